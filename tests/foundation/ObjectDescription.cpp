#include <gtest/gtest.h>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/value/Dictionary.h"
#include "platform/foundation/value/Object.h"

namespace platform {
namespace {

TEST(ObjectDescription, OfSimpleValuesIsWhatTheLogShows) {
  EXPECT_EQ(Object().description(), "(null)");
  EXPECT_EQ(Object::null().description(), "<null>");
  EXPECT_EQ(Object("as it \"stands\"\n").description(), "as it \"stands\"\n");
  EXPECT_EQ(Object("").description(), "");
  EXPECT_EQ(Object(Date{1795250280.9}).description(), "2026-11-21 08:38:00 +0000");
  EXPECT_EQ(Object(Data{std::byte{1}, std::byte{2}, std::byte{3}}).description(), "{length = 3, bytes = 0x010203}");
  EXPECT_EQ(Object(Data{}).description(), "{length = 0, bytes = 0x}");
  EXPECT_EQ(Object(UUID()).description(), "00000000-0000-0000-0000-000000000000");
  EXPECT_EQ(Object(std::make_shared<const FileHandle>()).description(), "<FileHandle: -1>");
}

TEST(ObjectDescription, OfNumbersIsDecimal) {
  EXPECT_EQ(Object::numberWithBool(true).description(), "1");
  EXPECT_EQ(Object::numberWithBool(false).description(), "0");
  EXPECT_EQ(Object::numberWithChar('A').description(), "65");
  EXPECT_EQ(Object::numberWithShort(-5).description(), "-5");
  EXPECT_EQ(Object::numberWithInt(-2147483647).description(), "-2147483647");
  EXPECT_EQ(Object::numberWithLongLong(INT64_MIN).description(), "-9223372036854775808");
  EXPECT_EQ(Object::numberWithUnsignedLongLong(UINT64_MAX).description(), "18446744073709551615");
}

TEST(ObjectDescription, OfFloatingPointNumbersIsTheShortestThatReadsBack) {
  EXPECT_EQ(Object::numberWithDouble(0.1).description(), "0.1");
  EXPECT_EQ(Object::numberWithDouble(1.0 / 3).description(), "0.3333333333333333");
  EXPECT_EQ(Object::numberWithDouble(3).description(), "3");
  EXPECT_EQ(Object::numberWithDouble(-2.5).description(), "-2.5");
  EXPECT_EQ(Object::numberWithDouble(1e22).description(), "1e+22");
  EXPECT_EQ(Object::numberWithFloat(0.1F).description(), "0.1");
  EXPECT_EQ(Object::numberWithFloat(16777216.0F).description(), "16777216");
}

TEST(ObjectDescription, OfAnArrayIsInParentheses) {
  EXPECT_EQ(Object(Array{}).description(), "(\n)");
  EXPECT_EQ(Object(Array{"a", Object::numberWithInt(2)}).description(), "(\n    a,\n    2\n)");
}

TEST(ObjectDescription, OfADictionaryIsInBraces) {
  EXPECT_EQ(Object(Dictionary{}).description(), "{\n}");
  EXPECT_EQ(Object(Dictionary{{"key", "value"}, {"b", Object::numberWithInt(1)}}).description(), "{\n    b = 1;\n    key = value;\n}");
}

TEST(ObjectDescription, IndentsWhatIsNested) {
  const Object object = Dictionary{{"list", Array{"x", Array{"y"}}}, {"map", Dictionary{{"k", "v"}}}};
  EXPECT_EQ(object.description(),
            "{\n"
            "    list =     (\n"
            "        x,\n"
            "                (\n"
            "            y\n"
            "        )\n"
            "    );\n"
            "    map =     {\n"
            "        k = v;\n"
            "    };\n"
            "}");
}

TEST(ObjectDescription, QuotesNestedTextThatHoldsMoreThanLettersAndDigits) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"plain9", "plain9"},
      {"", "\"\""},
      {"two words", "\"two words\""},
      {"/a/b.txt", "\"/a/b.txt\""},
      {"first_name", "\"first_name\""},
      {"say \"x\"", R"("say \"x\"")"},
      {"back\\slash", R"("back\\slash")"},
      {"line\nend\ttab", R"("line\nend\ttab")"},
      {std::string("\x01\0", 2), R"("\001\000")"},
      {"\x7F", R"("\177")"},
      {"caf\xC3\xA9", R"("caf\U00e9")"},
      {"\xF0\x9F\x98\x80", R"("\Ud83d\Ude00")"},
      {"bad\xFFz", R"("bad\377z")"},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(Object(Array{text}).description(), "(\n    " + expected + "\n)");
    EXPECT_EQ(Object(Dictionary{{text, "v"}}).description(), "{\n    " + expected + " = v;\n}");
  }
}

TEST(ObjectDescription, QuotesNestedValuesByTheSameRule) {
  const Object object =
      Array{Object(), Object::null(), Object::numberWithDouble(1.5), Object::numberWithInt(-1), Date{0}, Data{std::byte{0xAB}}, UUID()};
  EXPECT_EQ(object.description(),
            "(\n"
            "    \"(null)\",\n"
            "    \"<null>\",\n"
            "    \"1.5\",\n"
            "    \"-1\",\n"
            "    \"1970-01-01 00:00:00 +0000\",\n"
            "    {length = 1, bytes = 0xab},\n"
            "    \"00000000-0000-0000-0000-000000000000\"\n"
            ")");
}

}  // namespace
}  // namespace platform
