#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/support/Eventually.h"

namespace kestrine::test {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::NumberType;
using platform::Object;
using platform::PropertyListError;
using platform::readPropertyList;

std::string bigEndian(std::uint64_t value, std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = size; i > 0; --i, value >>= 8U) bytes[i - 1] = static_cast<char>(value & 0xFFU);
  return bytes;
}

struct Layout {
  std::size_t offsetSize = 4;
  std::size_t referenceSize = 1;
  std::uint64_t top = 0;
};

std::string assembled(std::string body, const std::vector<std::uint64_t>& offsets, const Layout& layout) {
  const auto table = body.size();
  for (const auto offset : offsets) body += bigEndian(offset, layout.offsetSize);
  body += std::string(6, '\0') + static_cast<char>(layout.offsetSize) + static_cast<char>(layout.referenceSize);
  return body + bigEndian(offsets.size(), 8) + bigEndian(layout.top, 8) + bigEndian(table, 8);
}

/// A list of these objects, each already encoded.
std::string listOf(const std::vector<std::string>& objects, const Layout& layout = {}) {
  std::string body = "bplist00";
  std::vector<std::uint64_t> offsets;
  for (const auto& object : objects) {
    offsets.push_back(body.size());
    body += object;
  }
  return assembled(body, offsets, layout);
}

std::string operator""_b(const char* text, std::size_t size) { return {text, size}; }

TEST(BinaryPropertyList, IsReadWithAllItsKinds) {
  const struct {
    std::string encoded;
    Object value;
  } rows[] = {
      {"\x08"_b, Object::numberWithBool(false)},
      {"\x09"_b, Object::numberWithBool(true)},
      {"\x10\xFF"_b, Object::numberWithLongLong(255)},
      {"\x11\x01\x00"_b, Object::numberWithLongLong(256)},
      {"\x12\xFF\xFF\xFF\xFF"_b, Object::numberWithLongLong(4294967295)},
      {"\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE"_b, Object::numberWithLongLong(-2)},
      {"\x14\0\0\0\0\0\0\0\0\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"_b, Object::numberWithUnsignedLongLong(18446744073709551615ULL)},
      {"\x14\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x07"_b, Object::numberWithLongLong(7)},
      {"\x22\x3F\x00\x00\x00"_b, Object::numberWithDouble(0.5)},
      {"\x23\xC0\x04\0\0\0\0\0\0"_b, Object::numberWithDouble(-2.5)},
      {"\x33\0\0\0\0\0\0\0\0"_b, Object(platform::Date{978307200})},
      {"\x33\x42\x02\xA0\x5F\x20\0\0\0"_b, Object(platform::Date{978307200 + 10000000000.0})},
      {"\x42\x01\xFF"_b, Object(platform::Data{std::byte{1}, std::byte{255}})},
      {"\x53"
       "abc"_b,
       Object("abc")},
      {"\x5F\x10\x10"
       "0123456789abcdef"_b,
       Object("0123456789abcdef")},
      {"\x63\x00\xFC\xD8\x3E\xDD\x85"_b, Object("\xC3\xBC\xF0\x9F\xA6\x85")},
      {"\x14\x01\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"_b,
       Object::numberWithDigits("1329227995784915872903807060280344576", 1329227995784915872903807060280344576.0)},
      {"\x14\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x80\0\0\0\0\0\0\0"_b, Object::numberWithLongLong(std::numeric_limits<std::int64_t>::min())},
      {"\x33\x7E\x37\xE4\x3C\x88\0\0\0"_b, Object(platform::Date{0x1.7E43C88p+996})},
      {"\x51\x01"_b, Object("\x01")},
      {"\x61\xFF\xFE"_b, Object("\xEF\xBF\xBE")},
      {"\x80\x01"_b, Object(Dictionary{{"CF$UID", Object::numberWithLongLong(1)}})},
      {"\xA0"_b, Object(Array())},
      {"\xD0"_b, Object(Dictionary())},
  };
  for (const auto& row : rows) EXPECT_EQ(readPropertyList(listOf({row.encoded})), row.value) << row.value.description();
  EXPECT_EQ(readPropertyList(listOf({"\xD2\x01\x02\x03\x04"_b, "\x51k"_b, "\x51l"_b, "\xA2\x04\x04"_b, "\x09"_b})),
            Object(Dictionary{{"k", Object(Array{Object::numberWithBool(true), Object::numberWithBool(true)})},
                              {"l", Object::numberWithBool(true)}}));
  // Sizes from 15 on stand behind the marker.
  EXPECT_EQ(readPropertyList(listOf({"\xAF\x10\x0F"_b + std::string(15, '\x01'), "\x09"_b})),
            Object(Array(15, Object::numberWithBool(true))));
  EXPECT_EQ(readPropertyList(listOf({"\xDF\x10\x01\x01\x02"_b, "\x51k"_b, "\x09"_b})),
            Object(Dictionary{{"k", Object::numberWithBool(true)}}));
  EXPECT_EQ(readPropertyList(listOf({"\x09"_b, "\xA1\0\0\0"_b}, {.offsetSize = 8, .referenceSize = 3, .top = 1})),
            Object(Array{Object::numberWithBool(true)}));
}

TEST(BinaryPropertyList, IsRefusedWhenItsPartsAreNotWhatTheySay) {
  const std::string bad[] = {
      "\x00"_b,
      "\x0F"_b,
      "\x15"_b,
      "\x21\0\0"_b,
      "\x33\x7F\xF8\0\0\0\0\0\0"_b,
      "\x51\xFF"_b,
      "\x61\xD8\x00"_b,
      "\x88\0\0\0\0\0\0\0\0\x01"_b,
      "\xB0"_b,
      "\xC0"_b,
      "\xE0"_b,
      "\x5F\x23"
      "a"_b,
      "\x5F\x14\0"_b,
      "\xA1\x05"_b,
      "\xD1\x00\x00"_b,
      "\x4F\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"_b,
      "\x6F\x13\x80\0\0\0\0\0\0\x01"_b,
      "\xAF\x13\x20\0\0\0\0\0\0\0"_b,
  };
  for (const auto& each : bad) EXPECT_THROW(readPropertyList(listOf({each})), PropertyListError) << testing::PrintToString(each);
  EXPECT_THROW(readPropertyList(listOf({"\xD1\x01\x01"_b, "\x10\x01"_b})), PropertyListError);  // a number as key
}

TEST(BinaryPropertyList, IsRefusedWhenItsTableIsBad) {
  const std::string good = listOf({"\x09"_b});
  ASSERT_EQ(readPropertyList(good), Object::numberWithBool(true));
  EXPECT_THROW(readPropertyList("bplist00"), PropertyListError);
  EXPECT_THROW(readPropertyList(good.substr(0, good.size() - 1)), PropertyListError);
  EXPECT_THROW(readPropertyList(assembled("bplist00\x09", {0}, {})), PropertyListError);
  EXPECT_THROW(readPropertyList(assembled("bplist00\x09", {9}, {})), PropertyListError);
  EXPECT_THROW(readPropertyList(assembled("bplist00\x09", {~0ULL}, {.offsetSize = 8})), PropertyListError);
  EXPECT_THROW(readPropertyList(assembled("bplist00\x09", {8}, {.top = 1})), PropertyListError);
  for (std::size_t at = good.size() - 26; at < good.size(); ++at) {
    for (const int value : {0, 1, 9, 127, 128, 255}) {
      std::string changed = good;
      changed[at] = static_cast<char>(value);
      try {
        EXPECT_EQ(readPropertyList(changed), Object::numberWithBool(true));
      } catch (const PropertyListError&) {
      }
    }
  }
}

TEST(BinaryPropertyList, ThatContainsItselfIsRefused) {
  EXPECT_THROW(readPropertyList(listOf({"\xA1\x00"_b})), PropertyListError);
  EXPECT_THROW(readPropertyList(listOf({"\xA1\x01"_b, "\xA2\x02\x03"_b, "\x09"_b, "\xD1\x04\x00"_b, "\x51k"_b})), PropertyListError);
}

/// Arrays inside one another, each of `width` references to the next.
std::string chain(std::size_t levels, std::size_t width) {
  std::vector<std::string> objects;
  for (std::size_t i = 0; i < levels; ++i) {
    std::string object(1, static_cast<char>(0xA0U + width));
    for (std::size_t k = 0; k < width; ++k) object += bigEndian(i + 1, 4);
    objects.push_back(object);
  }
  objects.push_back("\x09"_b);
  return listOf(objects, {.referenceSize = 4});
}

TEST(BinaryPropertyList, NestedTooDeeplyIsRefusedFromWhereverItIsReached) {
  EXPECT_NO_THROW(readPropertyList(chain(128, 1)));
  EXPECT_THROW(readPropertyList(chain(129, 1)), PropertyListError);
  EXPECT_THROW(readPropertyList(chain(100000, 1)), PropertyListError);
  // The top holds an array of 100 levels first, and then 60 levels that lead to it.
  std::vector<std::string> objects = {"\xA2"_b + bigEndian(1, 4) + bigEndian(101, 4)};
  for (std::size_t i = 1; i < 100; ++i) objects.push_back("\xA1"_b + bigEndian(i + 1, 4));
  objects.push_back("\x09"_b);
  for (std::size_t i = 101; i < 160; ++i) objects.push_back("\xA1"_b + bigEndian(i + 1, 4));
  objects.push_back("\xA1"_b + bigEndian(1, 4));
  EXPECT_THROW(readPropertyList(listOf(objects, {.referenceSize = 4})), PropertyListError);
}

TEST(BinaryPropertyList, ThatUnfoldsToMoreThanAMillionValuesIsRefused) {
  EXPECT_EQ(readPropertyList(chain(4, 14)).count(), 14U);
  EXPECT_THROW(readPropertyList(chain(40, 14)), PropertyListError);
}

TEST(BinaryPropertyList, WhoseKeysUnfoldToMoreThanTheirBoundIsRefused) {
  for (const std::size_t copies : {60, 100}) {
    std::vector<std::string> objects = {"\xAF\x10"_b + static_cast<char>(copies),
                                        "\x5F\x12\x00\x10\x00\x00"_b + std::string(1U << 20U, 'k'), "\x09"_b};
    for (std::size_t i = 0; i < copies; ++i) {
      objects[0] += static_cast<char>(3 + i);
      objects.push_back("\xD1\x01\x02"_b);
    }
    if (copies == 60) {
      EXPECT_EQ(readPropertyList(listOf(objects)).count(), copies);
    } else {
      EXPECT_THROW(readPropertyList(listOf(objects)), PropertyListError);
    }
  }
}

TEST(BinaryPropertyList, WhoseObjectsLieOverOneAnotherIsRefused) {
  // One thousand objects that are all the same 60,000 bytes.
  std::string body = "bplist00\xA0\x4F\x11\xEA\x60" + std::string(60000, 'x');
  std::vector<std::uint64_t> offsets(1000, 9);
  std::string top = "\xAF\x11\x03\xE8";
  for (std::size_t i = 0; i < 1000; ++i) top += bigEndian(i, 2);
  offsets.push_back(body.size());
  body += top;
  EXPECT_THROW(readPropertyList(assembled(body, offsets, {.referenceSize = 2, .top = 1000})), PropertyListError);
}

TEST(BinaryPropertyList, SurvivesAnyChangeOfItsBytes) {
  const std::string good = listOf({"\xD2\x01\x02\x03\x04"_b, "\x51k"_b, "\x51l"_b, "\xA2\x05\x06"_b,
                                   "\x5F\x10\x10"
                                   "0123456789abcdef"_b,
                                   "\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE"_b, "\x33\0\0\0\0\0\0\0\0"_b});
  std::uint32_t state = 99;
  const auto next = [&state](std::size_t bound) {
    state = state * 1664525U + 1013904223U;
    return static_cast<std::size_t>(state >> 8U) % bound;
  };
  int refused = 0;
  const int rounds = longOrShort(50000, 5000);
  for (int round = 0; round < rounds; ++round) {
    std::string changed = good;
    for (std::size_t changes = 1 + next(3); changes > 0; --changes) changed[next(changed.size())] = static_cast<char>(next(256));
    try {
      const Object read = readPropertyList(changed);
      EXPECT_EQ(readPropertyList(platform::writePropertyList(read)), read);
    } catch (const PropertyListError&) {
      ++refused;
    }
  }
  EXPECT_GT(refused, rounds / 50);
}

}  // namespace
}  // namespace kestrine::test
