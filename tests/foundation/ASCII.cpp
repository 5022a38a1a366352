#include "platform/foundation/text/ASCII.h"

#include <gtest/gtest.h>

#include <string>

namespace platform {
namespace {

/// All characters that `isOne` says yes to, in order.
template <class IsOne>
std::string charactersThat(IsOne isOne) {
  std::string found;
  for (int c = 0; c < 256; ++c) {
    if (isOne(static_cast<char>(c))) found += static_cast<char>(c);
  }
  return found;
}

TEST(ASCII, KnowsItsLettersAndDigitsAndNoOthers) {
  EXPECT_EQ(charactersThat(isASCIILetter), "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
  EXPECT_EQ(charactersThat(isASCIIDigit), "0123456789");
}

TEST(ASCII, LowersItsOwnLettersOnly) {
  EXPECT_EQ(asciiLowered(std::string_view("AZ az [@` \xC3\x84")), "az az [@` \xC3\x84");
  EXPECT_EQ(charactersThat([](char c) { return asciiLowered(c) != c; }), "ABCDEFGHIJKLMNOPQRSTUVWXYZ");
  EXPECT_TRUE(equalIgnoringASCIICase("Content-Type", "content-TYPE"));
  EXPECT_FALSE(equalIgnoringASCIICase("Content-Type", "Content-Typ"));
  EXPECT_FALSE(equalIgnoringASCIICase("\xC3\x84", "\xC3\xA4"));
}

TEST(ASCII, TrimsTheEnds) {
  EXPECT_EQ(trimmed(" \ta b\t "), "a b");
  EXPECT_EQ(trimmed(" \t "), "");
  EXPECT_EQ(trimmed(""), "");
  EXPECT_EQ(trimmed(" a\n"), "a\n");
  EXPECT_EQ(trimmed("\n a \r", " \r\n"), "a");
}

TEST(ASCII, KnowsTheValuesOfHexadecimalDigits) {
  EXPECT_EQ(charactersThat([](char c) { return hexDigitValue(c) >= 0; }), "0123456789ABCDEFabcdef");
  for (int value = 0; value < 16; ++value) {
    EXPECT_EQ(hexDigitValue(kUpperHexDigits[static_cast<std::size_t>(value)]), value);
    EXPECT_EQ(hexDigitValue(kLowerHexDigits[static_cast<std::size_t>(value)]), value);
  }
  EXPECT_EQ(hexDigitValue('f'), 15);
  EXPECT_EQ(kLowerHexDigits, "0123456789abcdef");
}

}  // namespace
}  // namespace platform
