// Decoding: what is skipped, what is refused.
#include <gtest/gtest.h>

#include <random>

#include "tests/util/Base64Support.h"
#include "util/Base64.h"

namespace kestrine::test {
namespace {

const std::string kCharacters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

TEST(Base64Decoding, ReadsTheVectorsOfTheStandard) {
  const std::pair<const char*, const char*> table[] = {{"Zg==", "f"},        {"Zm8=", "fo"},        {"Zm9v", "foo"},
                                                       {"Zm9vYg==", "foob"}, {"Zm9vYmE=", "fooba"}, {"Zm9vYmFy", "foobar"}};
  for (const auto& [encoded, plain] : table) {
    EXPECT_EQ(dataWithBase64EncodedString(encoded), bytesOf(plain)) << encoded;
    EXPECT_EQ(base64DecodedData(encoded), bytesOf(plain)) << encoded;
    EXPECT_EQ(stringWithBase64EncodedString(encoded), plain) << encoded;
    EXPECT_EQ(base64DecodedString(encoded), plain) << encoded;
  }
}

TEST(Base64Decoding, GivesTheSameThreeBytesWithALineFeedOrAnAsteriskInBetween) {
  const platform::Data foo{std::byte{0x66}, std::byte{0x6F}, std::byte{0x6F}};
  EXPECT_EQ(dataWithBase64EncodedString("Zm9v"), foo);
  EXPECT_EQ(dataWithBase64EncodedString("Zm9v\n"), foo);
  EXPECT_EQ(dataWithBase64EncodedString("Zm*9v"), foo);
}

TEST(Base64Decoding, OfAnEmptyTextIsNothing) {
  EXPECT_EQ(dataWithBase64EncodedString(""), std::nullopt);
  EXPECT_EQ(stringWithBase64EncodedString(""), std::nullopt);
  EXPECT_EQ(base64DecodedData(""), std::nullopt);
  EXPECT_EQ(base64DecodedString(""), std::nullopt);
}

TEST(Base64Decoding, OfThreePaddingSignsAloneIsNothing) { EXPECT_EQ(dataWithBase64EncodedString("==="), std::nullopt); }

TEST(Base64Decoding, OfNothingThatIsKnownIsNothing) {
  for (const char* text : {" ", "\r\n", "****", "-_-_", "é", "\x80\xFF", "    "}) {
    EXPECT_EQ(dataWithBase64EncodedString(text), std::nullopt) << text;
    EXPECT_EQ(stringWithBase64EncodedString(text), std::nullopt) << text;
  }
}

TEST(Base64Decoding, OfGroupsThatAreNotWholeOrPaddedInTheMiddleIsNothing) {
  for (const char* text : {"Z",        "Zg",    "Zm9",    "Zg=",  "Z=",   "Z===", "====",     "=",        "==",   "Zm9v=",  "Zm9v==",
                           "Zm9v====", "Zm9vY", "Zm9vYg", "Zg=A", "=Zg=", "==Zg", "Zg==Zg==", "Zm8=Zm9v", "Z=g=", "Zm9v Y", "Zg= "}) {
    EXPECT_EQ(dataWithBase64EncodedString(text), std::nullopt) << text;
  }
}

TEST(Base64Decoding, IgnoresBitsBeyondTheLastByte) {
  EXPECT_EQ(dataWithBase64EncodedString("Zn=="), bytesOf("f"));
  EXPECT_EQ(dataWithBase64EncodedString("Zm+="), bytesOf("fo"));
}

TEST(Base64Decoding, SkipsEveryByteThatIsNotOfTheAlphabetInEveryPlace) {
  int skipped = 0;
  for (int value = 0; value < 256; ++value) {
    const char character = static_cast<char>(value);
    if (kCharacters.find(character) != std::string::npos || character == '=') continue;
    ++skipped;
    for (const std::string text : {"Zm9vYmFy", "Zm9vYg==", "Zm9vYmE="}) {
      const auto expected = dataWithBase64EncodedString(text);
      ASSERT_TRUE(expected.has_value());
      for (std::size_t place = 0; place <= text.size(); ++place) {
        for (const std::size_t times : {1U, 2U, 4U, 8U}) {
          std::string disturbed = text;
          disturbed.insert(place, times, character);
          ASSERT_EQ(dataWithBase64EncodedString(disturbed), expected) << value << ", " << times << " times, at " << place << " of " << text;
        }
      }
    }
  }
  EXPECT_EQ(skipped, 191);
}

TEST(Base64Decoding, ReadsEveryByteInEveryPosition) {
  for (std::size_t length = 1; length <= 6; ++length) {
    for (std::size_t position = 0; position < length; ++position) {
      for (int value = 0; value < 256; ++value) {
        platform::Data bytes(length, std::byte{0x5A});
        bytes[position] = static_cast<std::byte>(value);
        ASSERT_EQ(dataWithBase64EncodedString(encodedByHand(bytes)), bytes) << value << " at " << position << " of " << length;
      }
    }
  }
}

TEST(Base64Decoding, ReadsEveryCharacterOfTheAlphabetInEveryPlaceOfAGroup) {
  for (std::size_t place = 0; place < 4; ++place) {
    for (std::size_t value = 0; value < 64; ++value) {
      std::string text = "AAAA";
      text[place] = kCharacters[value];
      const std::size_t bits = value << (18 - 6 * place);
      const platform::Data expected{static_cast<std::byte>(bits >> 16U), static_cast<std::byte>(bits >> 8U), static_cast<std::byte>(bits)};
      EXPECT_EQ(dataWithBase64EncodedString(text), expected) << text;
    }
  }
}

TEST(Base64Decoding, OfTextThatIsNoUTF8IsNothingThoughItsBytesAreThere) {
  const std::pair<const char*, platform::Data> table[] = {
      {"/w==", {std::byte{0xFF}}},
      {"w6k=", {std::byte{0xC3}, std::byte{0xA9}}},
      {"ww==", {std::byte{0xC3}}},
      {"7aCA", {std::byte{0xED}, std::byte{0xA0}, std::byte{0x80}}},
      {"wIA=", {std::byte{0xC0}, std::byte{0x80}}},
  };
  for (const auto& [text, bytes] : table) EXPECT_EQ(dataWithBase64EncodedString(text), bytes) << text;
  EXPECT_EQ(stringWithBase64EncodedString("w6k="), "é");
  for (const char* text : {"/w==", "ww==", "7aCA", "wIA="}) EXPECT_EQ(stringWithBase64EncodedString(text), std::nullopt) << text;
}

TEST(Base64Decoding, OfTextKeepsANul) { EXPECT_EQ(stringWithBase64EncodedString("YQBi"), std::string("a\0b", 3)); }

// Whatever was encoded comes back, at every width and with anything unknown strewn in.
TEST(Base64Decoding, GivesBackWhatWasEncoded) {
  std::mt19937 random(20'261'121);
  for (int round = 0; round < 2000; ++round) {
    platform::Data bytes(1 + random() % 400);
    for (std::byte& byte : bytes) byte = static_cast<std::byte>(random());
    const std::size_t width = random() % 2 == 0 ? 0 : 4 + random() % 97;
    std::string text = base64EncodedStringWithWrapWidth(bytes, width).value();
    for (auto noise = random() % 8; noise > 0; --noise) text.insert(random() % (text.size() + 1), 1, "\n\t *-_.\x80"[random() % 8]);
    ASSERT_EQ(dataWithBase64EncodedString(text), bytes) << "round " << round << ", width " << width << ": " << text;
  }
}

}  // namespace
}  // namespace kestrine::test
