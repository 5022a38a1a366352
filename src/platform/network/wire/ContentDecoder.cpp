#include "platform/network/wire/ContentDecoder.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <new>
#include <utility>
#include <vector>

#include "platform/foundation/text/ASCII.h"
#include "platform/network/message/HTTPText.h"

namespace platform::network {

/// What a body's Content-Encoding asks for.
enum class Coding { None, Gzip, Deflate, Unknown };

namespace {

constexpr std::size_t kRoom = 64U << 10U;
// zlib's largest window; 16 more for gzip's wrapper, none of its own for a negative one.
constexpr int kWindow = 15;
constexpr int kGzip = kWindow + 16;
constexpr int kBare = -kWindow;

struct Name {
  std::string_view name;
  Coding coding;
};
constexpr std::array kNames = {Name{"gzip", Coding::Gzip}, Name{"x-gzip", Coding::Gzip}, Name{"deflate", Coding::Deflate},
                               Name{"identity", Coding::None}, Name{"", Coding::None}};

Coding codingNamed(std::string_view name) {
  const auto* const row =
      std::find_if(kNames.begin(), kNames.end(), [name](const Name& known) { return equalIgnoringASCIICase(known.name, name); });
  return row == kNames.end() ? Coding::Unknown : row->coding;
}

/// The one coding in a list. Several of them one upon the other were not asked for and are as good as an unknown one.
Coding codingOf(std::string_view list) {
  Coding coding = Coding::None;
  while (!list.empty()) {
    const Coding next = codingNamed(takeListElement(list));
    if (next == Coding::None) continue;
    coding = coding == Coding::None ? next : Coding::Unknown;
  }
  return coding;
}

}  // namespace

struct ContentDecoder::Stream {
  explicit Stream(Coding wanted) : coding(wanted) {
    if (coding != Coding::Unknown && inflateInit2(&inflater, coding == Coding::Gzip ? kGzip : kWindow) != Z_OK) throw std::bad_alloc();
  }
  ~Stream() {
    if (coding != Coding::Unknown) inflateEnd(&inflater);
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  const Coding coding;
  z_stream inflater{};
  std::vector<char> room = std::vector<char>(kRoom);
  std::size_t made = 0;
  bool begun = false;
  bool ended = false;
  /// Deflate without its wrapper, as some servers send it.
  bool bare = false;
};

std::unique_ptr<ContentDecoder> ContentDecoder::make(std::string_view contentEncoding) {
  const Coding coding = codingOf(contentEncoding);
  if (coding == Coding::None) return nullptr;
  return std::unique_ptr<ContentDecoder>(new ContentDecoder(std::make_unique<Stream>(coding)));
}

ContentDecoder::ContentDecoder(std::unique_ptr<Stream> stream) : stream_(std::move(stream)) {}
ContentDecoder::~ContentDecoder() = default;

ContentDecoder::Step ContentDecoder::next(std::span<const char>& input) {
  Stream& stream = *stream_;
  stream.made = 0;
  if (stream.coding == Coding::Unknown) return Step::Broken;
  if (stream.ended && input.empty()) return Step::Hungry;
  if (stream.ended) {
    // One gzip stream may follow another (RFC 1952, section 2.2).
    if (stream.coding != Coding::Gzip || inflateReset(&stream.inflater) != Z_OK) return Step::Broken;
    stream.ended = false;
  }
  if (!stream.begun && stream.coding == Coding::Deflate && !input.empty()) {
    // The wrapper begins with its method, 8, in the lower half of its first byte (RFC 1950, section 2.2); a bare stream hardly ever does.
    stream.bare = (static_cast<unsigned char>(input.front()) & 0xFU) != Z_DEFLATED;
    if (stream.bare && inflateReset2(&stream.inflater, kBare) != Z_OK) return Step::Broken;
  }
  stream.begun = stream.begun || !input.empty();
  z_stream& inflater = stream.inflater;
  inflater.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
  inflater.avail_in = static_cast<uInt>(input.size());
  inflater.next_out = reinterpret_cast<Bytef*>(stream.room.data());
  inflater.avail_out = static_cast<uInt>(stream.room.size());
  const int result = inflate(&inflater, Z_NO_FLUSH);
  input = input.last(inflater.avail_in);
  stream.made = stream.room.size() - inflater.avail_out;
  stream.ended = result == Z_STREAM_END;
  // No progress is no failure: it has neither input nor anything left to say.
  if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) return Step::Broken;
  return stream.made > 0 || !input.empty() ? Step::Piece : Step::Hungry;
}

std::span<const char> ContentDecoder::piece() const { return std::span(stream_->room).first(stream_->made); }

bool ContentDecoder::isAtEnd() const { return stream_->ended || !stream_->begun; }

}  // namespace platform::network
