// What a peer sends, cut as it likes and with descriptors where it likes: frames, and the values in them, or an error that stays; never a
// descriptor that is left behind, nor bytes that still count as held.
//
// The first byte chooses. Even: a stream of pieces, each a byte with its length, a byte with the number of descriptors that come with it,
// and its bytes. Odd: a payload alone, after one byte with the number of its descriptors; most inputs would end at a header otherwise.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <variant>
#include <vector>

#include "platform/xpc/channel/Frame.h"
#include "platform/xpc/value/ObjectConversion.h"
#include "platform/xpc/value/WireFormat.h"

namespace {

using namespace platform::xpc;
using platform::FileHandle;

/// More than any frame may have, and few enough for the process.
constexpr std::size_t kMostDescriptors = 80;

void require(bool holds) {
  if (!holds) std::abort();
}

/// The lowest free descriptor number: a leak makes it grow.
int lowestFree() {
  const FileHandle probe(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
  return probe.fileDescriptor();
}

std::vector<FileHandle> descriptors(std::size_t count) {
  std::vector<FileHandle> made;
  for (std::size_t i = 0; i < std::min(count, kMostDescriptors); ++i) made.emplace_back(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
  return made;
}

void readPayload(std::span<const std::byte> payload, std::vector<FileHandle> handles) {
  const std::size_t count = handles.size();
  const auto value = decode(payload, std::move(handles));
  if (!value) return require(!value.error().reason.empty());
  require(*value == *value);
  static_cast<void>(objectWithValue(*value).description());

  // What was read can be written, in as many bytes, and read again.
  const auto written = encode(*value);
  require(written && written->bytes.size() == payload.size() && written->descriptors.size() == count);
  if (count > 0) return;
  const auto again = decode(written->bytes, {});
  require(again && *again == *value);
}

struct Outcome {
  std::vector<std::vector<std::byte>> payloads;
  bool failed = false;
  friend bool operator==(const Outcome&, const Outcome&) = default;
};

/// Takes the frames that are there; false after an error.
bool takeFrames(FrameReader& reader, Outcome& outcome) {
  for (;;) {
    auto next = reader.next();
    if (!next) {
      require(!reader.next());
      outcome.failed = true;
      return false;
    }
    if (!*next) return true;
    Frame& frame = **next;
    require(frame.payload.size() <= kMaximumPayloadBytes && frame.descriptors.size() <= kMaximumDescriptors);
    outcome.payloads.push_back(frame.payload);
    if (frame.kind == FrameKind::Message) readPayload(frame.payload, std::move(frame.descriptors));
  }
}

void readStream(std::span<const std::byte> input) {
  FrameReader reader;
  Outcome outcome;
  std::vector<std::byte> whole;
  std::size_t sent = 0;
  while (input.size() > 2) {
    const auto size = std::min(std::to_integer<std::size_t>(input[0]), input.size() - 2);
    const auto count = std::min(std::to_integer<std::size_t>(input[1]), kMostDescriptors - sent);
    const auto piece = input.subspan(2, size);
    input = input.subspan(2 + size);
    // A socket gives descriptors with bytes only, and no piece without any.
    if (piece.empty()) continue;
    sent += count;
    whole.insert(whole.end(), piece.begin(), piece.end());
    if (outcome.failed) continue;
    reader.feed(piece, descriptors(count));
    takeFrames(reader, outcome);
  }
  if (sent > 0) return;
  // Without descriptors the cuts make no difference.
  FrameReader atOnce;
  Outcome expected;
  atOnce.feed(whole, {});
  takeFrames(atOnce, expected);
  require(outcome == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = std::as_bytes(std::span(data, size));
  if (input.size() < 2) return 0;
  const int before = lowestFree();
  if (std::to_integer<int>(input[0]) % 2 == 0) {
    readStream(input.subspan(1));
  } else {
    readPayload(input.subspan(2), descriptors(std::to_integer<std::size_t>(input[1])));
  }
  require(lowestFree() == before);
  require(ReceiveBudget::totalDescriptors() == 0 && ReceiveBudget::totalBytes() == 0);
  return 0;
}
