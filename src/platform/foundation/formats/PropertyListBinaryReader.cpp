#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/formats/PropertyListText.h"
#include "platform/foundation/formats/PropertyListWriters.h"
#include "platform/foundation/formats/PropertyListXML.h"
#include "platform/foundation/text/UTF8.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;
/// The top, and a key with each value.
constexpr std::size_t kObjectsAtMost = 2 * kPropertyListMaximumCount + 1;

/// Objects are found through a table of offsets, so a hostile list can make one object contain itself, share one among many or lay many
/// over the same bytes. Each is read once; the depth, the number of values with shared ones counted wherever they appear, and the sum of
/// the bytes read are bounded.
class BinaryReader {
 public:
  explicit BinaryReader(std::string_view bytes) : bytes_(bytes) {
    PropertyListBounds::size(bytes.size());
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
    if (objects > kObjectsAtMost) PropertyListBounds::refuse("too many values");
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
    if (entry.height > 0) PropertyListBounds::enter(static_cast<std::size_t>(depth + entry.height - 1));
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
        entry.value = text(utf8FromUTF16(take(at, doubled(size(at, low))), false));
        return;
      case 0x8:
        return readIdentifier(entry, at, low);
      case 0xA:
        return readArray(entry, at, low, depth);
      case 0xD:
        return readDictionary(entry, at, low, depth);
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

  // An identifier has no element of its own in XML: there it is this dictionary.
  void readIdentifier(Entry& entry, std::uint64_t& at, unsigned low) {
    if (low > 7) fail("a bad identifier");
    entry.value = Dictionary{{"CF$UID", number(integer(take(at, low + 1)))}};
    entry.height = 1;
    entry.count = 2;
  }

  static Object number(std::uint64_t value) {
    if (value > std::uint64_t{std::numeric_limits<std::int64_t>::max()}) return Object::numberWithUnsignedLongLong(value);
    return Object::numberWithLongLong(static_cast<std::int64_t>(value));
  }

  // Up to four bytes are unsigned, eight are signed, and sixteen, signed too, hold what eight cannot.
  Object number(std::uint64_t& at, unsigned low) {
    if (low > 4) fail("a bad integer");
    const auto taken = take(at, 1ULL << low);
    const auto value = integer(low == 4 ? taken.substr(8) : taken);
    if (low < 4) return Object::numberWithLongLong(static_cast<std::int64_t>(value));
    const auto high = integer(taken.substr(0, 8));
    if (high == 0) return number(value);
    if (~high == 0 && (value >> 63U) != 0) return Object::numberWithLongLong(static_cast<std::int64_t>(value));
    return propertyListInteger(digitsOf({high, value}));
  }

  double real(std::uint64_t& at, unsigned low) {
    if (low == 2) return std::bit_cast<float>(static_cast<std::uint32_t>(integer(take(at, 4))));
    if (low == 3) return std::bit_cast<double>(integer(take(at, 8)));
    fail("a bad real number");
  }

  static Object date(double sinceReference) {
    const Date date{sinceReference + kPropertyListReferenceDate};
    if (!std::isfinite(date.timeIntervalSince1970)) fail("a date that is not finite");
    return date;
  }

  static Object text(std::string text) {
    if (!isUTF8(text)) fail("text that is not Unicode");
    return text;
  }

  std::vector<std::uint64_t> references(std::uint64_t& at, std::uint64_t count) {
    if (count > kPropertyListMaximumCount) PropertyListBounds::refuse("too many values");
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
    if (entry.count > kPropertyListMaximumCount) PropertyListBounds::refuse("too many values");
    return inner.value;
  }

  void readArray(Entry& entry, std::uint64_t at, unsigned low, int depth) {
    enter(entry, depth);
    const auto indexes = references(at, size(at, low));
    Array array;
    array.reserve(indexes.size());
    for (const auto index : indexes) array.push_back(part(entry, index, depth));
    entry.value = std::move(array);
  }

  void readDictionary(Entry& entry, std::uint64_t at, unsigned low, int depth) {
    enter(entry, depth);
    const std::uint64_t count = size(at, low);
    const auto keys = references(at, count);
    const auto values = references(at, count);
    std::vector<Dictionary::value_type> entries;
    entries.reserve(keys.size());
    for (std::size_t i = 0; i < count; ++i) {
      const Object& key = object(keys[i], depth + 1).value;
      if (!key.isString()) fail("a key that is not text");
      bounds_.key(key.stringView().size());
      entries.emplace_back(key.stringView(), part(entry, values[i], depth));
    }
    entry.value = Dictionary::withEntries(std::move(entries));
  }

  static void enter(Entry& entry, int depth) {
    PropertyListBounds::enter(static_cast<std::size_t>(depth));
    entry.height = 1;
  }

  const std::string_view bytes_;
  std::string_view offsets_;
  std::uint64_t offsetSize_ = 0;
  std::uint64_t referenceSize_ = 0;
  std::uint64_t top_ = 0;
  std::uint64_t objectsEnd_ = 0;
  std::uint64_t taken_ = 0;
  PropertyListBounds bounds_;
  std::vector<Entry> read_;
};

}  // namespace

Object readBinaryPropertyList(std::string_view bytes) { return BinaryReader(bytes).read(); }

}  // namespace platform
