// Random nested objects and values through the conversions, against a second statement of what must become of them.
#include <gtest/gtest.h>

#include <random>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/support/Eventually.h"
#include "xpc/XPCParse.h"

namespace kestrine::test {
namespace {

using platform::Dictionary;
using platform::Object;
using platform::xpc::Value;

/// The same objects for the same seed: every kind, with whole seconds for dates so that no digits are lost.
class RandomObject {
 public:
  explicit RandomObject(unsigned seed) : random_(seed) {}

  Object next(int depth = 5) {
    const auto shape = depth > 0 ? below(4) : 0;
    if (shape < 2) return plain();
    if (shape == 2) {
      platform::Array elements;
      for (auto count = below(5); count > 0; --count) elements.push_back(next(depth - 1));
      return elements;
    }
    Dictionary entries;
    for (auto count = below(5); count > 0; --count) entries[text()] = next(depth - 1);
    return entries;
  }

 private:
  std::uint64_t below(std::uint64_t limit) { return random_() % limit; }
  std::string text() {
    static constexpr std::array kPieces = {"a", "7", " ", "ß", "漢", "😀", "\n", "\\", "\""};
    std::string made;
    for (auto count = below(8); count > 0; --count) made += kPieces[below(kPieces.size())];
    return made;
  }
  Object plain() {
    const std::uint64_t bits = random_();
    switch (below(14)) {
      case 0:
        return {};
      case 1:
        return Object::null();
      case 2:
        return Object::numberWithBool((bits & 1U) != 0);
      case 3:
        return Object::numberWithChar(static_cast<signed char>(bits));
      case 4:
        return Object::numberWithShort(static_cast<short>(bits));
      case 5:
        return Object::numberWithInt(static_cast<int>(bits));
      case 6:
        return Object::numberWithLongLong(static_cast<std::int64_t>(bits));
      case 7:
        return Object::numberWithUnsignedLongLong(bits);
      case 8:
        return Object::numberWithFloat(static_cast<float>(static_cast<std::int32_t>(bits)) / 8);
      case 9:
        return Object::numberWithDouble(static_cast<double>(bits) / 3);
      case 10:
        return text();
      case 11:
        return platform::Data(below(20), static_cast<std::byte>(bits));
      case 12:
        return platform::Date{static_cast<double>(static_cast<std::int32_t>(bits))};
      default: {
        platform::UUID::Bytes bytes{};
        for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random_());
        return platform::UUID(bytes);
      }
    }
  }

  std::mt19937_64 random_;
};

/// What comes back of an object: numbers other than true and the 64-bit ones are doubles then, nil and null are gone.
Object survivor(const Object& object) {
  if (object.isNumber()) {
    const char code = static_cast<char>(object.numberType());
    if (code == 'q' || code == 'Q' || (code == 'B' && object.boolValue())) return object;
    return Object::numberWithDouble(object.doubleValue());
  }
  if (object.isArray()) {
    platform::Array kept;
    for (const Object& element : object.arrayValue()) {
      if (const Object left = survivor(element)) kept.push_back(left);
    }
    return kept;
  }
  if (object.isDictionary()) {
    Dictionary kept;
    for (const auto& [key, entry] : object.dictionaryValue()) {
      if (const Object left = survivor(entry)) kept[key] = left;
    }
    return kept;
  }
  return object.isNull() ? Object() : object;
}

TEST(XPCParseRandom, BringsRandomObjectsThereAndBack) {
  constexpr unsigned kSeed = 20111;
  RandomObject random(kSeed);
  const int count = longOrShort(20000, 2000);
  int converted = 0;
  for (int i = 0; i < count; ++i) {
    const Object object = random.next();
    const auto value = newXPCObject(object);
    const Object expected = survivor(object);
    ASSERT_EQ(value.has_value(), !expected.isNil()) << "seed " << kSeed << ", object " << i << ": " << object.description();
    if (!value) continue;
    ++converted;
    ASSERT_EQ(objectWithXPCObject(*value), expected) << "seed " << kSeed << ", object " << i << ": " << object.description();
    // What has been through once is changed no more.
    ASSERT_EQ(newXPCObject(expected), value) << "seed " << kSeed << ", object " << i;
  }
  EXPECT_GT(converted, count / 2);
}

}  // namespace
}  // namespace kestrine::test
