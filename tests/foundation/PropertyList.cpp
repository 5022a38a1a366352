#include "platform/foundation/formats/PropertyList.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/support/Eventually.h"

namespace kestrine::test {
namespace {

using platform::Array;
using platform::Data;
using platform::Date;
using platform::Dictionary;
using platform::NumberType;
using platform::Object;
using platform::PropertyListError;
using platform::propertyListValue;
using platform::readPropertyList;
using platform::writePropertyList;

Object throughText(const Object& value) { return readPropertyList(writePropertyList(propertyListValue(value))); }

Data bytes(std::initializer_list<int> values) {
  Data data;
  for (const int value : values) data.push_back(static_cast<std::byte>(value));
  return data;
}

TEST(PropertyList, GivesEveryKindOfValueBackAsItWas) {
  const Object values[] = {
      Object::numberWithBool(true),
      Object::numberWithBool(false),
      Object::numberWithLongLong(0),
      Object::numberWithLongLong(-1),
      Object::numberWithLongLong(std::numeric_limits<std::int64_t>::min()),
      Object::numberWithLongLong(std::numeric_limits<std::int64_t>::max()),
      Object::numberWithUnsignedLongLong(9223372036854775808ULL),
      Object::numberWithUnsignedLongLong(18446744073709551615ULL),
      Object::numberWithDouble(0.1),
      Object::numberWithDouble(-0.0),
      Object::numberWithDouble(1e300),
      Object::numberWithDouble(5e-324),
      Object::numberWithDouble(3),
      Object(""),
      Object("plain"),
      Object(" <&>\"' \t\n\r\r\n ]]> "),
      Object("Grüße, 世界, \xF0\x9F\xA6\x85"),
      Object(Data()),
      Object(bytes({0})),
      Object(bytes({0, 255})),
      Object(bytes({1, 2, 3})),
      Object(bytes({0xFB, 0xFF, 0xBF, 0x3E})),
      Object(Date{0}),
      Object(Date{1795250280}),
      Object(Date{-62135596800.0}),
      Object(Date{253402300799.0}),
      Object(Array()),
      Object(Dictionary()),
      Object(Array{Object("a"), Object(Array{Object::numberWithBool(true)}), Object(Dictionary{{"k", Object("v")}})}),
      Object(Dictionary{{"", Object("empty key")}, {"<k&>", Object("marked")}, {"n", Object(Dictionary{{"d", Object(Date{1})}})}}),
  };
  for (const auto& value : values) {
    EXPECT_EQ(throughText(value), value) << value.description();
    EXPECT_EQ(propertyListValue(value), value) << value.description();
  }
  EXPECT_TRUE(std::signbit(throughText(Object::numberWithDouble(-0.0)).doubleValue()));
}

TEST(PropertyList, GivesNumbersTheTypeCodesOfTheirReading) {
  const struct {
    Object given;
    NumberType type;
  } rows[] = {
      {Object::numberWithBool(true), NumberType::Bool},
      {Object::numberWithChar(7), NumberType::LongLong},
      {Object::numberWithShort(-7), NumberType::LongLong},
      {Object::numberWithInt(7), NumberType::LongLong},
      {Object::numberWithLongLong(7), NumberType::LongLong},
      {Object::numberWithUnsignedLongLong(7), NumberType::LongLong},
      {Object::numberWithUnsignedLongLong(9223372036854775807ULL), NumberType::LongLong},
      {Object::numberWithUnsignedLongLong(9223372036854775808ULL), NumberType::UnsignedLongLong},
      {Object::numberWithFloat(0.5F), NumberType::Double},
      {Object::numberWithDouble(0.5), NumberType::Double},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(propertyListValue(row.given).numberType(), row.type) << row.given.description();
    EXPECT_EQ(throughText(row.given).numberType(), row.type) << row.given.description();
    EXPECT_EQ(throughText(row.given).doubleValue(), row.given.doubleValue());
  }
}

TEST(PropertyList, RoundsDatesDownToTheSecond) {
  EXPECT_EQ(propertyListValue(Date{1.75}), Object(Date{1}));
  EXPECT_EQ(propertyListValue(Date{-0.25}), Object(Date{-1}));
  EXPECT_NE(writePropertyList(Date{1795250280}).find("<date>2026-11-21T08:38:00Z</date>"), std::string::npos);
}

void expectRefused(const Object& value, const char* what) {
  for (const auto& wrapped : {value, Object(Array{value}), Object(Dictionary{{"key", value}})}) {
    try {
      propertyListValue(wrapped);
      ADD_FAILURE() << what << " was taken";
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "NSInvalidArgumentException") << what;
    }
  }
}

TEST(PropertyList, RefusesWhatItCannotHold) {
  expectRefused(nullptr, "nil");
  expectRefused(Object::null(), "null");
  expectRefused(platform::UUID::random(), "a UUID");
  expectRefused(std::make_shared<const platform::FileHandle>(), "a file handle");
  for (const double number : {std::nan(""), std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()}) {
    expectRefused(Object::numberWithDouble(number), "a number that is not finite");
    expectRefused(Date{number}, "a date that is not finite");
  }
  expectRefused(Object::numberWithFloat(std::numeric_limits<float>::infinity()), "a float that is not finite");
  expectRefused(Date{253402300800.0}, "the year 10000");
  expectRefused(Date{-62135596801.0}, "the year 0");
  using namespace std::string_view_literals;
  for (const auto text : {"\0"sv, "a\x01"sv, "\x1F"sv, "\xFF"sv, "\xC3"sv, "\xC0\xAF"sv, "\xED\xA0\x80"sv, "\xEF\xBF\xBE"sv,
                          "\xEF\xBF\xBF"sv, "\xF4\x90\x80\x80"sv}) {
    expectRefused(text, "forbidden text");
    EXPECT_THROW(propertyListValue(Dictionary{{std::string(text), Object("v")}}), platform::Exception);
  }
}

Object nested(int levels) {
  Object value("deep");
  for (int i = 0; i < levels; ++i) value = i % 2 == 0 ? Object(Array{value}) : Object(Dictionary{{"k", value}});
  return value;
}

TEST(PropertyList, HoldsOneHundredAndTwentyEightLevelsAndNoMore) {
  EXPECT_EQ(throughText(nested(128)), nested(128));
  EXPECT_THROW(propertyListValue(nested(129)), platform::Exception);
}

TEST(PropertyList, ReadsWhatOthersWriteInXML) {
  const char* text =
      "\xEF\xBB\xBF<?xml version='1.0' encoding=\"UTF-8\"?>\r\n<!DOCTYPE plist PUBLIC \"-//X//DTD\" \"file:///x.dtd\">\n<!-- <dict> -->"
      "<plist version=\"1.0\"><!-- a > b --><dict >\r\n<key>a<!-- c -->b</key><string>x &#60;&#x1F985;<![CDATA[<&]]>&apos;&quot;</string>"
      "<key>i</key><integer> +42 </integer><key>h</key><integer>0x1f</integer><key>r</key><real>-1.5E2</real><key>e</key><string/>"
      "<key>t</key><true></true><key>f</key><false/><key>l</key><array/><key>m</key><dict/><key/><string>a\r\nb\rc</string>"
      "<key>d</key><data>\n\tAAEC\n\t/w==\n</data></dict></plist>\n<!-- end -->";
  const Object expected = Dictionary{
      {"ab", Object("x <\xF0\x9F\xA6\x85<&'\"")},
      {"i", Object::numberWithLongLong(42)},
      {"h", Object::numberWithLongLong(31)},
      {"r", Object::numberWithDouble(-150)},
      {"e", Object("")},
      {"t", Object::numberWithBool(true)},
      {"f", Object::numberWithBool(false)},
      {"l", Object(Array())},
      {"m", Object(Dictionary())},
      {"", Object("a\nb\nc")},
      {"d", Object(bytes({0, 1, 2, 255}))},
  };
  EXPECT_EQ(readPropertyList(text), expected);
}

TEST(PropertyList, RefusesWhatIsNoXMLPropertyList) {
  const std::string inside[] = {
      "",
      "text",
      "<dict>",
      "</dict>",
      "<dict></array>",
      "<dict><string>v</string></dict>",
      "<dict><key>k</key></dict>",
      "<dict><key>k</key><key>l</key><true/></dict>",
      "<key>k</key>",
      "<array><key>k</key></array>",
      "<true/><true/>",
      "<unknown/>",
      "<string>a<b/></string>",
      "<string>a",
      "<string>&unknown;</string>",
      "<string>&#xD800;</string>",
      "<string>&#0;</string>",
      "<string>&#x110000;</string>",
      "<string>\xFF</string>",
      "<string>\x01</string>",
      "<integer></integer>",
      "<integer>1.5</integer>",
      "<integer>-</integer>",
      "<integer>18446744073709551616x</integer>",
      "<integer>0x10000000000000000</integer>",
      "<real>x</real>",
      "<real>1,5</real>",
      "<date>2026-02-30T00:00:00Z</date>",
      "<date>2026-11-21</date>",
      "<date>2026-11-21T24:00:00Z</date>",
      "<date>0000-01-01T00:00:00Z</date>",
      "<date>9999-12-31T23:59:60Z</date>",
      "<data>A</data>",
      "<data>AB=</data>",
      "<data>AB*=</data>",
      "<data>AB==AB==</data>",
      "<!-- open",
      "<plist><true/></plist>",
      "<true",
      "<string attribute=\"/>\">x",
      "<true/ >",
      "<![CDATA[x]]>",
      "<>",
      "< true/>",
  };
  for (const auto& each : inside) EXPECT_THROW(readPropertyList("<plist version=\"1.0\">" + each + "</plist>"), PropertyListError) << each;
  for (const char* whole :
       {"", " ", "<plist>", "<plist><true/>", "<plist/>", "</plist>", "<true/>", "{ a = b; }", "<plist><true/></plist><a/>",
        "<plist><true/></plist>x", "<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><true/></plist>", "<?xml"}) {
    EXPECT_THROW(readPropertyList(whole), PropertyListError) << whole;
  }
}

TEST(PropertyList, RefusesHostileNestingAndSizeInXML) {
  const auto arrays = [](int levels) {
    std::string text = "<plist>";
    for (int i = 0; i < levels; ++i) text += "<array>";
    for (int i = 0; i < levels; ++i) text += "</array>";
    return text + "</plist>";
  };
  EXPECT_NO_THROW(readPropertyList(arrays(128)));
  EXPECT_THROW(readPropertyList(arrays(129)), PropertyListError);
  EXPECT_THROW(readPropertyList(arrays(100000)), PropertyListError);
  std::string many = "<plist><array>";
  for (int i = 0; i < 1000001; ++i) many += "<true/>";
  EXPECT_THROW(readPropertyList(many + "</array></plist>"), PropertyListError);
  EXPECT_THROW(readPropertyList("<plist><string>" + std::string(20U << 20U, 'a') + "</string></plist>"), PropertyListError);
  EXPECT_THROW(writePropertyList(Object(std::string(17U << 20U, 'a'))), PropertyListError);
}

TEST(PropertyList, SurvivesAnyChangeOfItsBytes) {
  const Object value = Dictionary{{"a", Object(Array{Object("x"), Object::numberWithLongLong(-5), Object(Date{86400})})},
                                  {"b", Object(Dictionary{{"c", Object(bytes({1, 2, 3}))}, {"d", Object::numberWithBool(true)}})}};
  const std::string text = writePropertyList(value);
  std::uint32_t state = 12345;
  const auto next = [&state](std::size_t bound) {
    state = state * 1664525U + 1013904223U;
    return static_cast<std::size_t>(state >> 8U) % bound;
  };
  int refused = 0;
  const int rounds = longOrShort(20000, 4000);
  for (int round = 0; round < rounds; ++round) {
    std::string changed = text;
    for (std::size_t changes = 1 + next(3); changes > 0; --changes) {
      const auto at = next(changed.size());
      if (next(2) == 0) {
        changed[at] = static_cast<char>(next(256));
      } else {
        changed.erase(at, next(20));
      }
    }
    try {
      const Object read = readPropertyList(changed);
      EXPECT_EQ(readPropertyList(writePropertyList(read)), read);
    } catch (const PropertyListError&) {
      ++refused;
    }
  }
  EXPECT_GT(refused, rounds / 20);
}

}  // namespace
}  // namespace kestrine::test
