// Property lists that other programs wrote: every valid one is read, and what is in it survives being written again here.
#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/support/Eventually.h"

namespace kestrine::test {
namespace {

using platform::Array;
using platform::Date;
using platform::Dictionary;
using platform::NumberType;
using platform::Object;
using platform::PropertyListError;
using platform::readPropertyList;
using platform::writePropertyList;

std::string utf16(std::string_view ascii, bool littleEndian) {
  std::string units;
  for (const char c : ascii) units += littleEndian ? std::string{c, '\0'} : std::string{'\0', c};
  return units;
}

TEST(PropertyListOfOthers, IsReadInUTF16) {
  const std::string before = "<?xml version=\"1.0\" encoding=\"UTF-16\"?><plist><dict><key>k</key><string>a";
  const std::string after = "</string></dict></plist>";
  const Object expected = Dictionary{{"k", Object("a\xC3\xBC\xF0\x9F\xA6\x85")}};
  // An umlaut, and a character of two units.
  const std::string big("\0\xFC\xD8\x3E\xDD\x85", 6);
  const std::string little("\xFC\0\x3E\xD8\x85\xDD", 6);
  EXPECT_EQ(readPropertyList("\xFE\xFF" + utf16(before, false) + big + utf16(after, false)), expected);
  EXPECT_EQ(readPropertyList("\xFF\xFE" + utf16(before, true) + little + utf16(after, true)), expected);
  EXPECT_EQ(readPropertyList(utf16(before, false) + big + utf16(after, false)), expected);
  EXPECT_EQ(readPropertyList(utf16(before, true) + little + utf16(after, true)), expected);
  EXPECT_THROW(readPropertyList("\xFE\xFF" + utf16(before, false) + std::string("\xD8\x3E", 2) + utf16(after, false)), PropertyListError);
}

TEST(PropertyListOfOthers, IsReadInDeclaredLatin1) {
  for (const char* name : {"ISO-8859-1", "iso-8859-1", "latin1"}) {
    const std::string text = "<?xml version='1.0' encoding='" + std::string(name) +
                             "' ?>\n<plist><dict><key>gr\xFC\xDF</key><string>\xE9</string></dict></plist>";
    EXPECT_EQ(readPropertyList(text), Object(Dictionary{{"gr\xC3\xBC\xC3\x9F", Object("\xC3\xA9")}})) << name;
  }
  EXPECT_THROW(readPropertyList("<?xml version='1.0'?><plist><string>\xFC</string></plist>"), PropertyListError);
}

TEST(PropertyListOfOthers, KeepsNumbersBeyondOurTypesAsTheyStand) {
  const struct {
    const char* element;
    double nearest;
  } rows[] = {
      {"<integer>18446744073709551616</integer>", 18446744073709551616.0},
      {"<integer>-9223372036854775809</integer>", -9223372036854775808.0},
      {"<integer>123456789012345678901234567890123456789012345678901234567890</integer>",
       123456789012345678901234567890123456789012345678901234567890.0},
      {"<real>1e999</real>", std::numeric_limits<double>::infinity()},
      {"<real>-1e999</real>", -std::numeric_limits<double>::infinity()},
      {"<real>1e-999</real>", 0},
  };
  for (const auto& row : rows) {
    const Object read = readPropertyList(std::string("<plist><array>") + row.element + "</array></plist>");
    const Object number = read.objectAtIndex(0);
    EXPECT_EQ(number.numberType(), NumberType::Double) << row.element;
    EXPECT_EQ(number.doubleValue(), row.nearest) << row.element;
    const std::string written = writePropertyList(read);
    EXPECT_NE(written.find(row.element), std::string::npos) << written;
    EXPECT_EQ(readPropertyList(written), read);
    EXPECT_EQ(platform::propertyListValue(read), read);
  }
  EXPECT_EQ(readPropertyList("<plist><integer>18446744073709551616</integer></plist>").description(), "18446744073709551616");
}

TEST(PropertyListOfOthers, KeepsWhatOnlyTheBinaryFormHolds) {
  const Object values[] = {
      Object(Date{0.25}),
      Object(Date{-1500000000.125}),
      Object(Date{-62135769600.0}),
      Object(Date{253402300800.0}),
      Object("a\x01z"),
      Object("\xEF\xBF\xBE"),
      Object(Dictionary{{std::string("\0", 1), Object("v")}}),
      Object(Array{Object("\x02"), readPropertyList("<plist><integer>-170141183460469231731687303715884105728</integer></plist>"),
                   Object::numberWithUnsignedLongLong(18446744073709551615ULL), Object::numberWithLongLong(-1),
                   Object::numberWithDouble(0.1), Object("Gr\xC3\xBC\xC3\x9F"), Object::numberWithBool(true),
                   Object(platform::Data{std::byte{7}}), Object(std::string(300, 'x')),
                   Object(Dictionary{{"k", Object("Gr\xC3\xBC\xC3\x9F")}})}),
  };
  for (const Object& value : values) {
    const std::string written = writePropertyList(value);
    EXPECT_TRUE(written.starts_with("bplist00"));
    EXPECT_EQ(readPropertyList(written), value) << value.description();
  }
  EXPECT_TRUE(writePropertyList(Object(Date{5})).starts_with("<?xml"));
  // What stands between U+F000 and U+FFFD begins with the same byte as the two that XML excludes.
  EXPECT_TRUE(writePropertyList(Object("\xEF\xBF\xBD\xEF\x80\x80")).starts_with("<?xml"));
}

TEST(PropertyListOfOthers, SaysUnderWhichKeyAValueCannotBeStored) {
  for (const char* key : {"first", "second"}) {
    try {
      platform::propertyListValue(Dictionary{{"before", Object("x")}, {key, Object(Array{Object(Dictionary{{"inner", Object("\x01")}})})}});
      ADD_FAILURE() << "taken";
    } catch (const platform::Exception& exception) {
      EXPECT_NE(exception.reason().find("under the key \"" + std::string(key) + "\""), std::string::npos) << exception.reason();
    }
  }
}

TEST(PropertyListOfOthers, IsWrittenAgainHoweverMuchRoomItsIndentationWouldTake) {
  // 1.4 MB of the smallest values, deep inside: with a tab for each level they would be 20 MB.
  std::string text = "<plist>";
  for (int level = 0; level < 100; ++level) text += "<array>";
  for (int i = 0; i < 200000; ++i) text += "<true/>";
  for (int level = 0; level < 100; ++level) text += "</array>";
  const Object crowded = readPropertyList(text + "</plist>");
  const std::string written = writePropertyList(crowded);
  EXPECT_TRUE(written.starts_with("<?xml"));
  EXPECT_EQ(readPropertyList(written), crowded);
  // The same long key again and again: XML without indentation is too large as well, and the binary form has it once.
  Array many(150000, Object(Dictionary{{std::string(120, 'k'), Object::numberWithBool(false)}}));
  const std::string binary = writePropertyList(many);
  EXPECT_TRUE(binary.starts_with("bplist00"));
  EXPECT_EQ(readPropertyList(binary), Object(std::move(many)));
}

Object arrays(int levels) {
  Object value("deep");
  for (int i = 0; i < levels; ++i) value = Array{value};
  return value;
}

void expectTooLarge(const Object& value, const char* what) {
  try {
    static_cast<void>(writePropertyList(value));
    ADD_FAILURE() << what << " was written";
  } catch (const PropertyListError& error) {
    EXPECT_EQ(error.kind(), PropertyListError::Kind::TooLarge) << what;
  }
}

TEST(PropertyListBounds, AreTheSameForWritingAndForReading) {
  const Object onlyBinary("\x01");
  EXPECT_EQ(readPropertyList(writePropertyList(arrays(128))), arrays(128));
  expectTooLarge(arrays(129), "129 levels");
  expectTooLarge(Array{onlyBinary, arrays(128)}, "129 levels in binary");
  const Object inBinary = Array{onlyBinary, arrays(127)};
  EXPECT_EQ(readPropertyList(writePropertyList(inBinary)), inBinary);

  // Keys of three letters beside values that take no room.
  const auto keyed = [](int count) {
    std::vector<Dictionary::value_type> entries;
    for (int i = 0; i < count; ++i) {
      std::string key;
      for (int rest = i; key.size() < 4; rest /= 36) key += "0123456789abcdefghijklmnopqrstuvwxyz"[rest % 36];
      entries.emplace_back(std::move(key), Object::numberWithBool(true));
    }
    return Dictionary::withEntries(std::move(entries));
  };
  const Object million = keyed(longOrShort(999999, 99999));
  EXPECT_EQ(readPropertyList(writePropertyList(million)), million);
  expectTooLarge(Array(1000000, Object::numberWithBool(true)), "a million values and one");

  expectTooLarge(Object(std::string(platform::kPropertyListMaximumSize, 'x')), "16 MiB of text");
  expectTooLarge(Object(std::string(platform::kPropertyListMaximumSize, 'x') + "\x01"), "16 MiB of text in binary");
}

TEST(PropertyListBounds, HoldForKeysThatABinaryListShares) {
  // One key of a megabyte in each of a thousand dictionaries would be a gigabyte once it is read.
  const Object one = Dictionary{{std::string(1U << 20U, 'k'), Object("\x01")}};
  const Object few = Array(8, one);
  EXPECT_EQ(readPropertyList(writePropertyList(few)), few);
  expectTooLarge(Array(1000, one), "a gigabyte of keys");
}

}  // namespace
}  // namespace kestrine::test
