#include <bit>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/foundation/formats/PropertyListText.h"
#include "platform/foundation/formats/PropertyListWriters.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

namespace {

void appendBigEndian(std::string& bytes, std::uint64_t value, std::size_t size) {
  for (std::size_t left = size; left > 0; --left) bytes += static_cast<char>(value >> (8 * (left - 1)) & 0xFFU);
}

/// The fewest of 1, 2, 4 and 8 bytes that hold it, as a power of two.
unsigned widthOf(std::uint64_t value) {
  if (value <= 0xFFU) return 0;
  if (value <= 0xFFFFU) return 1;
  return value <= 0xFFFFFFFFU ? 2 : 3;
}

/// In tables any number of bytes will do.
std::size_t bytesOf(std::size_t value) {
  std::size_t bytes = 1;
  while ((value >>= 8U) != 0) ++bytes;
  return bytes;
}

void appendInteger(std::string& bytes, std::uint64_t value) {
  const unsigned width = widthOf(value);
  bytes += static_cast<char>(0x10U | width);
  appendBigEndian(bytes, value, std::size_t{1} << width);
}

void appendMarker(std::string& bytes, unsigned kind, std::size_t size) {
  bytes += static_cast<char>(kind << 4U | (size < 0xF ? size : 0xFU));
  if (size >= 0xF) appendInteger(bytes, size);
}

std::string encodedText(std::string_view text) {
  std::string bytes;
  if (isASCIIText(text)) {
    appendMarker(bytes, 0x5, text.size());
    return bytes += text;
  }
  const std::string units = utf16FromUTF8(text);
  appendMarker(bytes, 0x6, units.size() / 2);
  return bytes += units;
}

std::string encodedNumber(const Object& number) {
  std::string bytes;
  if (const auto digits = number.numberDigits(); !digits.empty()) {
    const auto wide = integerOf128Bits(digits);
    if (!wide) throw PropertyListError("the number " + std::string(digits) + " beside what only the binary form holds");
    bytes += '\x14';
    appendBigEndian(bytes, wide->high, 8);
    appendBigEndian(bytes, wide->low, 8);
    return bytes;
  }
  switch (number.numberType()) {
    case NumberType::Bool:
      bytes += number.boolValue() ? '\x09' : '\x08';
      break;
    case NumberType::Float:
    case NumberType::Double:
      bytes += '\x23';
      appendBigEndian(bytes, std::bit_cast<std::uint64_t>(number.doubleValue()), 8);
      break;
    case NumberType::UnsignedLongLong:
      // Eight bytes are signed.
      bytes += '\x14';
      appendBigEndian(bytes, 0, 8);
      appendBigEndian(bytes, number.unsignedLongLongValue(), 8);
      break;
    default:
      appendInteger(bytes, static_cast<std::uint64_t>(number.longLongValue()));
  }
  return bytes;
}

/// Equal texts, numbers, dates and data are written once.
class BinaryWriter {
 public:
  std::string write(const Object& value) {
    add(value, 0);
    referenceSize_ = bytesOf(objects_.size());
    std::string bytes = "bplist00";
    std::vector<std::size_t> offsets;
    offsets.reserve(objects_.size());
    for (const auto& object : objects_) {
      offsets.push_back(bytes.size());
      bytes += object.bytes;
      for (const std::size_t part : object.parts) appendBigEndian(bytes, part, referenceSize_);
      PropertyListBounds::size(bytes.size());
    }
    const std::size_t table = bytes.size();
    const std::size_t offsetSize = bytesOf(table);
    for (const std::size_t offset : offsets) appendBigEndian(bytes, offset, offsetSize);
    bytes += std::string(6, '\0');
    bytes += static_cast<char>(offsetSize);
    bytes += static_cast<char>(referenceSize_);
    for (const std::size_t each : {objects_.size(), std::size_t{0}, table}) appendBigEndian(bytes, each, 8);
    PropertyListBounds::size(bytes.size());
    return bytes;
  }

 private:
  struct Encoded {
    std::string bytes;
    std::vector<std::size_t> parts;
  };

  std::size_t add(const Object& value, std::size_t depth) {
    bounds_.count();
    switch (value.kind()) {
      case Object::Kind::Number:
        return leaf(encodedNumber(value));
      case Object::Kind::String:
        return shared(value.stringView().data(), [&] { return encodedText(value.stringView()); });
      case Object::Kind::Data:
        return shared(&value.dataValue(), [&] { return encodedData(value.dataValue()); });
      case Object::Kind::Date: {
        std::string bytes = "\x33";
        appendBigEndian(bytes, std::bit_cast<std::uint64_t>(value.dateValue().timeIntervalSince1970 - kPropertyListReferenceDate), 8);
        return leaf(std::move(bytes));
      }
      case Object::Kind::Array: {
        const std::size_t index = container(0xA, value.arrayValue().size(), depth);
        std::vector<std::size_t> parts;
        parts.reserve(value.arrayValue().size());
        for (const auto& each : value.arrayValue()) parts.push_back(add(each, depth + 1));
        objects_[index].parts = std::move(parts);
        return index;
      }
      case Object::Kind::Dictionary: {
        const Dictionary& entries = value.dictionaryValue();
        const std::size_t index = container(0xD, entries.size(), depth);
        std::vector<std::size_t> parts;
        parts.reserve(2 * entries.size());
        for (const auto& entry : entries) {
          bounds_.key(entry.first.size());
          parts.push_back(leaf(encodedText(entry.first)));
        }
        for (const auto& entry : entries) parts.push_back(add(entry.second, depth + 1));
        objects_[index].parts = std::move(parts);
        return index;
      }
      default:
        throw PropertyListError("a value that no property list holds");
    }
  }

  std::size_t container(unsigned kind, std::size_t size, std::size_t depth) {
    PropertyListBounds::enter(depth);
    Encoded& object = objects_.emplace_back();
    appendMarker(object.bytes, kind, size);
    return objects_.size() - 1;
  }

  static std::string encodedData(const Data& data) {
    std::string bytes;
    appendMarker(bytes, 0x4, data.size());
    return bytes.append(reinterpret_cast<const char*>(data.data()), data.size());
  }

  /// A value that many places share is encoded once: a list of a few bytes may name a long text a million times.
  template <class Encode>
  std::size_t shared(const void* representation, const Encode& encode) {
    if (const auto known = byRepresentation_.find(representation); known != byRepresentation_.end()) return known->second;
    const std::size_t index = leaf(encode());
    byRepresentation_.emplace(representation, index);
    return index;
  }

  std::size_t leaf(std::string bytes) {
    const auto [found, isNew] = leaves_.try_emplace(std::move(bytes), objects_.size());
    if (isNew) {
      bytes_ += found->first.size();
      PropertyListBounds::size(bytes_);
      objects_.push_back({found->first, {}});
    }
    return found->second;
  }

  PropertyListBounds bounds_;
  std::vector<Encoded> objects_;
  std::unordered_map<std::string, std::size_t> leaves_;
  std::unordered_map<const void*, std::size_t> byRepresentation_;
  std::size_t bytes_ = 0;
  std::size_t referenceSize_ = 1;
};

}  // namespace

std::string writeBinaryPropertyList(const Object& value) { return BinaryWriter().write(value); }

}  // namespace platform
