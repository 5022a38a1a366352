// Encoding: what a line holds, and where it ends.
#include "util/Base64.h"

#include <gtest/gtest.h>

#include "platform/foundation/base/Exception.h"
#include "tests/support/Eventually.h"
#include "tests/util/Base64Support.h"

namespace kestrine::test {
namespace {

struct Pair {
  const char* plain;
  const char* encoded;
};

// RFC 4648, section 10, without the empty text, of which nothing is made here.
constexpr Pair kVectors[] = {{"f", "Zg=="},        {"fo", "Zm8="},        {"foo", "Zm9v"},
                             {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}};

TEST(Base64Encoding, GivesTheVectorsOfTheStandard) {
  for (const auto& [plain, encoded] : kVectors) {
    EXPECT_EQ(base64EncodedString(bytesOf(plain)), encoded) << plain;
    EXPECT_EQ(base64EncodedStringWithWrapWidth(bytesOf(plain), 0), encoded) << plain;
    EXPECT_EQ(base64EncodedString(std::string_view(plain)), encoded) << plain;
    EXPECT_EQ(base64EncodedStringWithWrapWidth(std::string_view(plain), 0), encoded) << plain;
  }
}

TEST(Base64Encoding, OfThreeBytesWithoutAWidthIsFourCharacters) {
  EXPECT_EQ(base64EncodedStringWithWrapWidth(platform::Data{std::byte{0x66}, std::byte{0x6F}, std::byte{0x6F}}, 0), "Zm9v");
}

TEST(Base64Encoding, OfNothingIsNothing) {
  EXPECT_EQ(base64EncodedString(platform::Data()), std::nullopt);
  EXPECT_EQ(base64EncodedString(std::string_view()), std::nullopt);
  for (const std::size_t width : {0U, 4U, 64U, 76U, 100U}) {
    EXPECT_EQ(base64EncodedStringWithWrapWidth(platform::Data(), width), std::nullopt) << width;
    EXPECT_EQ(base64EncodedStringWithWrapWidth("", width), std::nullopt) << width;
  }
}

TEST(Base64Encoding, OfEveryByteInEveryPositionIsTheStandards) {
  for (std::size_t length = 1; length <= 6; ++length) {
    for (std::size_t position = 0; position < length; ++position) {
      for (int value = 0; value < 256; ++value) {
        platform::Data bytes(length, std::byte{0xA5});
        bytes[position] = static_cast<std::byte>(value);
        ASSERT_EQ(base64EncodedString(bytes), encodedByHand(bytes)) << value << " at " << position << " of " << length;
      }
    }
  }
}

TEST(Base64Encoding, UsesEachOfThe64CharactersInItsPlace) {
  platform::Data bytes;
  for (unsigned value = 0; value < 64; value += 4) {
    const unsigned group = value << 18U | (value + 1) << 12U | (value + 2) << 6U | (value + 3);
    for (const unsigned shift : {16U, 8U, 0U}) bytes.push_back(static_cast<std::byte>(group >> shift));
  }
  EXPECT_EQ(base64EncodedString(bytes), "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
}

TEST(Base64Encoding, OfSixtyBytesWithWidthTenIsTenLinesOfEight) {
  const platform::Data bytes(60, std::byte{0});
  EXPECT_EQ(base64EncodedStringWithWrapWidth(bytes, 10),
            "AAAAAAAA\r\nAAAAAAAA\r\nAAAAAAAA\r\nAAAAAAAA\r\nAAAAAAAA\r\n"
            "AAAAAAAA\r\nAAAAAAAA\r\nAAAAAAAA\r\nAAAAAAAA\r\nAAAAAAAA");
}

TEST(Base64Encoding, WrapsAtEightForTheWidthsFromEightToEleven) {
  for (const std::size_t width : {8U, 9U, 10U, 11U}) {
    EXPECT_EQ(base64EncodedStringWithWrapWidth(bytesOf("foobarfoobarf"), width), "Zm9vYmFy\r\nZm9vYmFy\r\nZg==") << width;
  }
  EXPECT_EQ(base64EncodedStringWithWrapWidth(bytesOf("foobarfoobarf"), 12), "Zm9vYmFyZm9v\r\nYmFyZg==");
}

TEST(Base64Encoding, IsOneLineForAWidthOfTheWholeLengthOrMore) {
  for (const std::size_t width : {12U, 13U, 16U, 64U, 76U, 1000U}) {
    EXPECT_EQ(base64EncodedStringWithWrapWidth(bytesOf("foobarfo"), width), "Zm9vYmFyZm8=") << width;
  }
  EXPECT_EQ(base64EncodedStringWithWrapWidth(bytesOf("foobarfo"), static_cast<std::size_t>(-1)), "Zm9vYmFyZm8=");
  EXPECT_EQ(base64EncodedStringWithWrapWidth(bytesOf("foobarfo"), 11), "Zm9vYmFy\r\nZm8=");
}

// Lengths around every border of every width.
TEST(Base64Encoding, HasLinesOfTheWidthRoundedDownToFourAndNoBreakBehindTheLast) {
  const auto longest = static_cast<std::size_t>(longOrShort(240, 80));
  for (std::size_t width = 4; width <= 100; ++width) {
    std::size_t lineLength = width;
    while (lineLength % 4 != 0) --lineLength;
    for (std::size_t size = 1; size <= longest; ++size) {
      platform::Data bytes;
      for (std::size_t i = 0; i < size; ++i) bytes.push_back(static_cast<std::byte>(i * 37 + size));
      const std::string whole = encodedByHand(bytes);
      std::string expected;
      for (std::size_t i = 0; i < whole.size(); ++i) {
        if (i > 0 && i % lineLength == 0 && whole.size() > width) expected += "\r\n";
        expected += whole[i];
      }
      ASSERT_EQ(base64EncodedStringWithWrapWidth(bytes, width), expected) << size << " bytes, width " << width;
    }
  }
}

TEST(Base64Encoding, HasTheTwoWellKnownWidthsInTheSameForm) {
  // 128 characters, told apart by their place in a group.
  std::string whole;
  for (int i = 0; i < 32; ++i) whole += "Zm9v";
  platform::Data bytes;
  for (int i = 0; i < 32; ++i) bytes.insert(bytes.end(), {std::byte{0x66}, std::byte{0x6F}, std::byte{0x6F}});
  for (const std::size_t width : {64U, 76U}) {
    std::string expected = whole;
    expected.insert(width, "\r\n");
    EXPECT_EQ(base64EncodedStringWithWrapWidth(bytes, width), expected) << width;
  }
}

TEST(Base64Encoding, RefusesWidthsThatAreNoLine) {
  for (const std::size_t width : {1U, 2U, 3U}) {
    try {
      static_cast<void>(base64EncodedStringWithWrapWidth(bytesOf("foo"), width));
      ADD_FAILURE() << "nothing was thrown for " << width;
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
    }
  }
}

TEST(Base64Encoding, OfTextIsThatOfItsUTF8Bytes) {
  EXPECT_EQ(base64EncodedString("é"), "w6k=");
  EXPECT_EQ(base64EncodedString("日本"), "5pel5pys");
  EXPECT_EQ(base64EncodedString("😀"), "8J+YgA==");
  EXPECT_EQ(base64EncodedString(std::string_view("a\0b", 3)), "YQBi");
  EXPECT_EQ(base64EncodedStringWithWrapWidth("日本", 4), "5pel\r\n5pys");
}

TEST(Base64Encoding, OfTextThatIsNoUTF8ReplacesWhatIsNone) {
  EXPECT_EQ(base64EncodedString("a\xFF"
                                "b"),
            encodedByHand(bytesOf("a\xEF\xBF\xBD"
                                  "b")));
  // A surrogate takes three bytes, none of which is a character.
  EXPECT_EQ(base64EncodedString("\xED\xA0\x80"), encodedByHand(bytesOf("\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD")));
}

TEST(Base64Encoding, OfManyMebibytesIsWholeWhereTheLibrarysPiecesMeet) {
  // Beyond two pieces, and not a multiple of three.
  platform::Data bytes(7U << 20U);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::byte>(i * 2'654'435'761U >> 13U);
  const auto text = base64EncodedString(bytes);
  ASSERT_TRUE(text.has_value());
  ASSERT_EQ(text->size(), 9'786'712U);
  for (const std::size_t group : {std::size_t{0}, (std::size_t{1} << 20U) - 1, std::size_t{1} << 20U, (std::size_t{2} << 20U) - 1,
                                  std::size_t{2} << 20U, std::size_t{2'446'676}}) {
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(group * 3);
    EXPECT_EQ(text->substr(group * 4, 4), encodedByHand(platform::Data(begin, begin + 3))) << group;
  }
  EXPECT_TRUE(dataWithBase64EncodedString(*text) == bytes);
  const auto lines = base64EncodedStringWithWrapWidth(bytes, 76);
  ASSERT_TRUE(lines.has_value());
  EXPECT_TRUE(dataWithBase64EncodedString(*lines) == bytes);
}

}  // namespace
}  // namespace kestrine::test
