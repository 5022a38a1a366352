#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/support/Eventually.h"

namespace platform {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;

/// The one element of an array read from `text`.
Object element(const std::string& text) {
  const Object array = readJSON("[" + text + "]");
  return array.count() == 1 ? array.objectAtIndex(0) : Object();
}

void expectRefused(const std::string& text) {
  try {
    ADD_FAILURE() << "read from " << testing::PrintToString(text) << ": " << readJSON(text).description();
  } catch (const JSONError& error) {
    EXPECT_LE(error.offset(), text.size());
    EXPECT_STRNE(error.what(), "");
  }
}

std::string nested(int depth, const std::string& opening, const std::string& closing) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += opening;
  for (int i = 0; i < depth; ++i) text += closing;
  return text;
}

TEST(JSONReader, ReadsEachKind) {
  EXPECT_EQ(readJSON("{}"), Object(Dictionary{}));
  EXPECT_EQ(readJSON(" [ ] \n"), Object(Array{}));
  EXPECT_EQ(readJSON(R"({"a":"text","b":null,"c":[true,false],"d":{"e":{}}})"),
            Object(Dictionary{{"a", "text"},
                              {"b", Object::null()},
                              {"c", Array{Object::numberWithBool(true), Object::numberWithBool(false)}},
                              {"d", Dictionary{{"e", Dictionary{}}}}}));
  EXPECT_EQ(element(R"("a\"\\\/\b\f\n\r\t\u00e9\uD83d\uDe00")"), Object("a\"\\/\b\f\n\r\t\xC3\xA9\xF0\x9F\x98\x80"));
  EXPECT_EQ(element("\"caf\xC3\xA9 \xEF\xBF\xBC\""), Object("caf\xC3\xA9 \xEF\xBF\xBC"));
  EXPECT_EQ(element(R"("a\u0000b")"), Object("a\0b"s));
}

TEST(JSONReader, KeepsKindsOfNumbersApart) {
  EXPECT_EQ(element("1"), Object::numberWithLongLong(1));
  EXPECT_EQ(element("-1"), Object::numberWithLongLong(-1));
  EXPECT_EQ(element("true"), Object::numberWithBool(true));
  EXPECT_EQ(element("1.0"), Object::numberWithDouble(1));
  EXPECT_EQ(element("1e0"), Object::numberWithDouble(1));
  EXPECT_EQ(element("4294967296"), Object::numberWithLongLong(4294967296));
  EXPECT_EQ(element("9223372036854775807"), Object::numberWithLongLong(std::numeric_limits<std::int64_t>::max()));
  EXPECT_EQ(element("-9223372036854775808"), Object::numberWithLongLong(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(element("9223372036854775808"), Object::numberWithUnsignedLongLong(9223372036854775808U));
  EXPECT_EQ(element("18446744073709551615"), Object::numberWithUnsignedLongLong(std::numeric_limits<std::uint64_t>::max()));
}

TEST(JSONReader, ReadsAnIntegerTooLargeFor64BitsAsADouble) {
  EXPECT_EQ(element("18446744073709551616"), Object::numberWithDouble(18446744073709551616.0));
  EXPECT_EQ(element("-9223372036854775809"), Object::numberWithDouble(-9223372036854775809.0));
  EXPECT_EQ(element("123456789012345678901234567890"), Object::numberWithDouble(123456789012345678901234567890.0));
}

TEST(JSONReader, RefusesANumberBeyondADouble) {
  for (const char* text :
       {"1e309", "-1e309", "1e999999999999", "1.7976931348623159e308", "-1.7976931348623159e308", "17976931348623159e292"})
    expectRefused("["s + text + "]");
  expectRefused("[" + std::string(400, '9') + "]");
  EXPECT_EQ(element("1e-400"), Object::numberWithDouble(0));
}

TEST(JSONReader, ReadsDoublesExactly) {
  std::mt19937_64 random(20261121);
  const int count = kestrine::test::longOrShort(200'000, 20'000);
  for (int i = 0; i < count; ++i) {
    const std::uint64_t bits = random();
    double value = 0;
    std::memcpy(&value, &bits, sizeof value);
    if (!std::isfinite(value)) continue;
    const Object number = Object::numberWithDouble(value);
    ASSERT_EQ(element(jsonText(number)), number) << jsonText(number);
    // More and fewer digits than the shortest form, against the C library.
    char text[64];
    std::snprintf(text, sizeof text, "%.*e", static_cast<int>(random() % 22), value);
    if (std::isfinite(std::strtod(text, nullptr))) {
      ASSERT_EQ(element(text), Object::numberWithDouble(std::strtod(text, nullptr))) << text;
    }
  }
}

TEST(JSONReader, RefusesAScalarAtTheTop) {
  for (const char* text : {"1", "1.5", "true", "null", "\"text\""}) expectRefused(text);
}

TEST(JSONReader, RefusesNothing) {
  for (const char* text : {"", " ", "\n\t", "\xEF\xBB\xBF"}) expectRefused(text);
}

TEST(JSONReader, RefusesTextBehindTheEnd) {
  for (const char* text : {"{}x", "[] []", "{},", "[]]", "{}// c", "{}\xEF\xBB\xBF"}) expectRefused(text);
}

TEST(JSONReader, RefusesTextBehindANul) {
  for (const std::string& text : {"{}\0"s, "{}\0x"s, "[1]\0\0"s, "\0{}"s, "[\0]"s, "[1\0]"s, "{\"a\0b\":1}"s, "{} \0 {}"s})
    expectRefused(text);
}

TEST(JSONReader, RefusesTextThatIsNotUTF8) {
  const std::vector<std::string> cases = {"\x80",         "\xC3", "\xC0\xAF",         "\xE0\x80\xAF", "\xED\xA0\x80",
                                          "\xED\xBF\xBF", "\xFF", "\xF5\x80\x80\x80", "\xC3\x28",     "\xF4\x90\x80\x80",
                                          "\xF0\x9F\x98"};
  for (const std::string& bytes : cases) {
    expectRefused("[\"" + bytes + "\"]");
    expectRefused("{\"" + bytes + "\":1}");
    expectRefused("[" + bytes + "]");
  }
}

TEST(JSONReader, RefusesALoneSurrogate) {
  for (const char* text : {R"(\uD83D)", R"(\uD83D\n)", R"(\uD83DA)", R"(\uD83D\uD83D)", R"(\uDE00)", R"(a\uDE00b)", R"(\uDE00\uD83D)",
                           R"(\uDFFF)", R"(\uD800)", R"(\uD83D\uDE00\uDE00)"}) {
    expectRefused("[\""s + text + "\"]");
    expectRefused("{\""s + text + "\":1}");
  }
}

TEST(JSONReader, ReadsContainersToTheBoundAndNoDeeper) {
  for (const auto& [opening, closing] : {std::pair{"["s, "]"s}, {"{\"a\":", "}"}, {"[{\"a\":", "}]"}}) {
    const int perStep = opening.starts_with("[{") ? 2 : 1;
    // What the innermost object holds.
    const std::string inner = opening.ends_with(':') ? "0" : "";
    const std::string half = nested(512 / perStep, opening, "") + inner + nested(512 / perStep, "", closing);
    EXPECT_EQ(readJSON(half).count(), 1U);
    expectRefused("[" + half + "]");
    expectRefused("{\"a\":" + half + "}");
  }
  EXPECT_EQ(jsonText(readJSON(nested(512, "[", "]"))), nested(512, "[", "]"));
}

TEST(JSONReader, RefusesAMillionOpenContainers) {
  expectRefused(nested(1'000'000, "[", "]"));
  expectRefused(nested(1'000'000, "[", ""));
  expectRefused(nested(1'000'000, "{\"a\":", ""));
}

TEST(JSONReader, RefusesWhatOtherDialectsAllow) {
  for (const char* text :
       {"[1,]",        "{\"a\":1,}",    "{a:1}",      "{'a':1}", "['a']", "[NaN]",   "[Infinity]", "[-Infinity]", "[01]",     "[+1]",
        "[.5]",        "[1.]",          "[1e]",       "[0x1]",   "[-]",   "[tru]",   "[nul]",      "[True]",      "[\"\t\"]", "[\"\n\"]",
        R"(["\x41"])", R"(["\u12g4"])", "/* c */ []", "[1 2]",   "[,]",   "{\"a\"}", "{\"a\":}",   "{1:2}",       "[",        "{",
        "[1",          "{\"a\":1",      "[\"a",       "]",       "[}"}) {
    expectRefused(text);
  }
}

TEST(JSONReader, TakesTheLastOfEqualKeys) {
  EXPECT_EQ(readJSON(R"({"b":1,"a":1,"b":2,"a":3})"),
            Object(Dictionary{{"a", Object::numberWithLongLong(3)}, {"b", Object::numberWithLongLong(2)}}));
}

TEST(JSONReader, SkipsAByteOrderMark) { EXPECT_EQ(readJSON("\xEF\xBB\xBF{\"a\":\"b\"}"), Object(Dictionary{{"a", "b"}})); }

TEST(JSONReader, TellsWhereItStopped) {
  try {
    readJSON("\xEF\xBB\xBF[1, x]");
    FAIL() << "read";
  } catch (const JSONError& error) {
    EXPECT_EQ(error.offset(), 7U);
    EXPECT_THAT(error.what(), HasSubstr("Invalid value"));
  }
}

TEST(JSONReader, ReadsWhatTheWritersWrite) {
  const Object object =
      Dictionary{{"", Array{Object::null(), "\x01\x7F", Object::numberWithBool(false)}},
                 {"k\"\\", Dictionary{{"d", Object::numberWithDouble(0.1)}, {"u", Object::numberWithUnsignedLongLong(UINT64_MAX)}}},
                 {"text", "a\0b \xF0\x9F\x98\x80"s}};
  EXPECT_EQ(readJSON(jsonText(object)), object);
  EXPECT_EQ(readJSON(prettyJSONText(object)), object);
}

TEST(PrettyJSONText, WritesOneMemberALineAndTwoBlanksALevel) {
  EXPECT_EQ(prettyJSONText(Dictionary{{"a", "1"}, {"b", Array{"2", Dictionary{{"c", Object()}}}}}),
            "{\n  \"a\": \"1\",\n  \"b\": [\n    \"2\",\n    {\n      \"c\": null\n    }\n  ]\n}");
}

TEST(PrettyJSONText, RefusesWhatIsNoContainer) {
  for (const Object& object : {Object(), Object::null(), Object("text"), Object::numberWithInt(1), Object(Array{Date{1}})}) {
    try {
      ADD_FAILURE() << prettyJSONText(object);
    } catch (const Exception& exception) {
      EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
    }
  }
}

}  // namespace
}  // namespace platform
