#include "platform/foundation/text/UTF8.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace platform {
namespace {

TEST(UTF8, ReadsOneCharacter) {
  const std::vector<std::pair<std::string, char32_t>> cases = {
      {std::string("\0", 1), 0},
      {"A", 0x41},
      {"\x7F", 0x7F},
      {"\xC2\x80", 0x80},
      {"\xDF\xBF", 0x7FF},
      {"\xE0\xA0\x80", 0x800},
      {"\xED\x9F\xBF", 0xD7FF},
      {"\xEE\x80\x80", 0xE000},
      {"\xEF\xBF\xBF", 0xFFFF},
      {"\xF0\x90\x80\x80", 0x10000},
      {"\xF4\x8F\xBF\xBF", 0x10FFFF},
  };
  for (const auto& [bytes, expected] : cases) {
    char32_t character = 0;
    EXPECT_EQ(utf8Decode(bytes + "x", character), bytes.size());
    EXPECT_EQ(character, expected);
    EXPECT_TRUE(isUTF8(bytes + bytes));
  }
}

TEST(UTF8, RefusesWhatIsNone) {
  const std::vector<std::string> cases = {
      "\x80",              // a continuation by itself
      "\xC3",              // cut short
      "\xC3(",             // continued by something else
      "\xE2\x82",          // cut short
      "\xF0\x9F\x98",      // cut short
      "\xC0\x80",          // not the shortest form
      "\xC1\xBF",          // not the shortest form
      "\xE0\x9F\xBF",      // not the shortest form
      "\xF0\x8F\xBF\xBF",  // not the shortest form
      "\xED\xA0\x80",      // a surrogate
      "\xED\xBF\xBF",      // a surrogate
      "\xF4\x90\x80\x80",  // beyond the last character
      "\xF8\x88\x80\x80\x80",
      "\xFE",
      "\xFF",
  };
  for (const std::string& bytes : cases) {
    char32_t character = 'k';
    EXPECT_EQ(utf8Decode(bytes, character), 0U);
    EXPECT_EQ(character, U'k');
    EXPECT_FALSE(isUTF8("good" + bytes));
  }
}

TEST(UTF8, EmptyTextHoldsNoCharacterAndIsFine) {
  char32_t character = 0;
  EXPECT_EQ(utf8Decode("", character), 0U);
  EXPECT_TRUE(isUTF8(""));
}

}  // namespace
}  // namespace platform
