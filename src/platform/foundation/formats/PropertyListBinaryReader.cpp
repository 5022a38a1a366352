#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/formats/PropertyListText.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

namespace {

/// Dates are counted from 2001-01-01T00:00:00Z.
constexpr double kReferenceDate = 978307200;
constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;

/// Objects are found through a table of offsets, so a hostile list can make one object contain itself, share one among many or lay many
/// over the same bytes. Each is read once; the depth, the number of values with shared ones counted wherever they appear, and the sum of
/// the bytes read are bounded.
class BinaryReader {
 public:
  explicit BinaryReader(std::string_view bytes) : bytes_(bytes) {
    if (bytes.size() > kPropertyListMaximumSize) fail("larger than a property list may be");
    if (bytes.size() < kHeaderSize + kTrailerSize || !bytes.starts_with("bplist0")) fail("no header or no trailer");
    const std::string_view trailer = bytes.substr(bytes.size() - kTrailerSize);
    offsetSize_ = integer(trailer.substr(6, 1));
    referenceSize_ = integer(trailer.substr(7, 1));
    const auto objects = integer(trailer.substr(8, 8));
    top_ = integer(trailer.substr(16, 8));
    const auto table = integer(trailer.substr(24, 8));
    const auto tableEnd = bytes.size() - kTrailerSize;
    if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) fail("bad integer sizes");
    if (table < kHeaderSize || table > tableEnd || objects > (tableEnd - table) / offsetSize_ || top_ >= objects) fail("a bad table");
    if (objects > kPropertyListMaximumCount) fail("too many values");
    objectsEnd_ = table;
    offsets_ = bytes.substr(table, objects * offsetSize_);
    read_.resize(objects);
  }

  Object read() { return object(top_, 0).value; }

 private:
  enum class State : char { Unread, BeingRead, Read };
  struct Entry {
    State state = State::Unread;
    /// Containers inside one another, this one included.
    int height = 0;
    /// Values in it with shared ones counted wherever they appear, this one included.
    std::size_t count = 1;
    Object value;
  };

  [[noreturn]] static void fail(const std::string& why) { throw PropertyListError("binary: " + why); }

  static std::uint64_t integer(std::string_view bytes) {
    std::uint64_t number = 0;
    for (const char byte : bytes) number = number << 8U | static_cast<unsigned char>(byte);
    return number;
  }

  /// `size` bytes at `at`, which moves behind them.
  std::string_view take(std::uint64_t& at, std::uint64_t size) {
    if (at > objectsEnd_ || size > objectsEnd_ - at) fail("an object beyond the end");
    taken_ += size;
    if (taken_ > bytes_.size()) fail("objects that lie over one another");
    const auto taken = bytes_.substr(at, size);
    at += size;
    return taken;
  }

  const Entry& object(std::uint64_t index, int depth) {
    if (index >= read_.size()) fail("a reference to no object");
    Entry& entry = read_[index];
    if (entry.state == State::BeingRead) fail("an object inside itself");
    if (entry.state == State::Unread) {
      entry.state = State::BeingRead;
      readInto(entry, integer(offsets_.substr(index * offsetSize_, offsetSize_)), depth);
      entry.state = State::Read;
    }
    if (depth + entry.height > kPropertyListMaximumDepth) fail("nested too deeply");
    return entry;
  }

  void readInto(Entry& entry, std::uint64_t at, int depth) {
    if (at < kHeaderSize) fail("an object in the header");
    const auto marker = static_cast<unsigned char>(take(at, 1).front());
    const unsigned low = marker & 0xFU;
    switch (marker >> 4U) {
      case 0x0:
        if (low != 8 && low != 9) fail("an object of no known kind");
        entry.value = Object::numberWithBool(low == 9);
        return;
      case 0x1:
        entry.value = number(at, low);
        return;
      case 0x2:
        entry.value = Object::numberWithDouble(real(at, low));
        return;
      case 0x3:
        entry.value = date(real(at, low));
        return;
      case 0x4: {
        const auto taken = take(at, size(at, low));
        const auto* begin = reinterpret_cast<const std::byte*>(taken.data());
        entry.value = Data(begin, begin + taken.size());
        return;
      }
      case 0x5:
        entry.value = text(std::string(take(at, size(at, low))));
        return;
      case 0x6:
        entry.value = text(fromUTF16(take(at, doubled(size(at, low)))));
        return;
      case 0xA:
        return readArray(entry, at, size(at, low), depth);
      case 0xD:
        return readDictionary(entry, at, size(at, low), depth);
      default:
        fail("an object of no known kind");
    }
  }

  std::uint64_t size(std::uint64_t& at, unsigned low) {
    if (low != 0xF) return low;
    const auto marker = static_cast<unsigned char>(take(at, 1).front());
    if (marker >> 4U != 0x1 || (marker & 0xFU) > 3) fail("a bad size");
    return integer(take(at, 1ULL << (marker & 0xFU)));
  }

  static std::uint64_t doubled(std::uint64_t size) {
    if (size > kPropertyListMaximumSize) fail("a bad size");
    return 2 * size;
  }

  // Up to four bytes are unsigned, eight are signed, and sixteen hold what eight cannot.
  Object number(std::uint64_t& at, unsigned low) {
    if (low > 4) fail("a bad integer");
    const auto taken = take(at, 1ULL << low);
    const auto value = integer(low == 4 ? taken.substr(8) : taken);
    if (low == 4 && integer(taken.substr(0, 8)) != 0) fail("an integer of more than 64 bits");
    if (low == 4 && value > std::uint64_t{std::numeric_limits<std::int64_t>::max()}) return Object::numberWithUnsignedLongLong(value);
    return Object::numberWithLongLong(static_cast<std::int64_t>(value));
  }

  double real(std::uint64_t& at, unsigned low) {
    if (low == 2) return std::bit_cast<float>(static_cast<std::uint32_t>(integer(take(at, 4))));
    if (low == 3) return std::bit_cast<double>(integer(take(at, 8)));
    fail("a bad real number");
  }

  static Object date(double sinceReference) {
    const Date date{sinceReference + kReferenceDate};
    if (!propertyListDateText(date)) fail("a date outside the years 1 to 9999");
    return date;
  }

  static Object text(std::string text) {
    if (!isPropertyListText(text)) fail("text that is not Unicode or has forbidden characters");
    return text;
  }

  static std::string fromUTF16(std::string_view units);

  std::vector<std::uint64_t> references(std::uint64_t& at, std::uint64_t count) {
    if (count > kPropertyListMaximumCount) fail("too many values");
    const auto taken = take(at, count * referenceSize_);
    std::vector<std::uint64_t> found(count);
    for (std::size_t i = 0; i < count; ++i) found[i] = integer(taken.substr(i * referenceSize_, referenceSize_));
    return found;
  }

  /// Object `index` as a part of `entry`.
  const Object& part(Entry& entry, std::uint64_t index, int depth) {
    const Entry& inner = object(index, depth + 1);
    entry.height = std::max(entry.height, inner.height + 1);
    entry.count += inner.count;
    if (entry.count > kPropertyListMaximumCount) fail("too many values");
    return inner.value;
  }

  void readArray(Entry& entry, std::uint64_t at, std::uint64_t count, int depth) {
    enter(entry, depth);
    const auto indexes = references(at, count);
    Array array;
    array.reserve(indexes.size());
    for (const auto index : indexes) array.push_back(part(entry, index, depth));
    entry.value = std::move(array);
  }

  void readDictionary(Entry& entry, std::uint64_t at, std::uint64_t count, int depth) {
    enter(entry, depth);
    const auto keys = references(at, count);
    const auto values = references(at, count);
    std::vector<Dictionary::value_type> entries;
    entries.reserve(keys.size());
    for (std::size_t i = 0; i < count; ++i) {
      const Object& key = part(entry, keys[i], depth);
      if (!key.isString()) fail("a key that is not text");
      entries.emplace_back(key.stringView(), part(entry, values[i], depth));
    }
    entry.value = Dictionary::withEntries(std::move(entries));
  }

  static void enter(Entry& entry, int depth) {
    if (depth == kPropertyListMaximumDepth) fail("nested too deeply");
    entry.height = 1;
  }

  const std::string_view bytes_;
  std::string_view offsets_;
  std::uint64_t offsetSize_ = 0;
  std::uint64_t referenceSize_ = 0;
  std::uint64_t top_ = 0;
  std::uint64_t objectsEnd_ = 0;
  std::uint64_t taken_ = 0;
  std::vector<Entry> read_;
};

std::string BinaryReader::fromUTF16(std::string_view units) {
  std::string text;
  const auto unit = [units](std::size_t i) { return static_cast<std::uint32_t>(integer(units.substr(i, 2))); };
  for (std::size_t i = 0; i < units.size(); i += 2) {
    std::uint32_t character = unit(i);
    if ((character & 0xFC00U) == 0xD800U && i + 2 < units.size() && (unit(i + 2) & 0xFC00U) == 0xDC00U) {
      character = 0x10000 + ((character & 0x3FFU) << 10U | (unit(i + 2) & 0x3FFU));
      i += 2;
    }
    appendCharacter(text, character);
  }
  return text;
}

}  // namespace

Object readBinaryPropertyList(std::string_view bytes) { return BinaryReader(bytes).read(); }

}  // namespace platform
