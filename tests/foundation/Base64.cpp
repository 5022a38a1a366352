#include "platform/foundation/text/Base64.h"

#include <gtest/gtest.h>

#include <string>

namespace platform {
namespace {

std::vector<std::byte> bytesOf(std::string_view text) {
  const auto* begin = reinterpret_cast<const std::byte*>(text.data());
  return {begin, begin + text.size()};
}

TEST(Base64, IsThatOfTheStandard) {
  // RFC 4648, section 10.
  constexpr struct {
    std::string_view plain;
    std::string_view text;
  } kVectors[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}};
  for (const auto& [plain, text] : kVectors) {
    EXPECT_EQ(base64Text(bytesOf(plain)), text);
    EXPECT_EQ(base64Bytes(text), bytesOf(plain)) << text;
  }
}

TEST(Base64, HoldsEveryByteInEveryPlace) {
  for (int before = 0; before < 3; ++before) {
    std::vector<std::byte> bytes(static_cast<std::size_t>(before));
    for (int byte = 0; byte < 256; ++byte) bytes.push_back(static_cast<std::byte>(byte));
    EXPECT_EQ(base64Bytes(base64Text(bytes)), bytes);
  }
  EXPECT_EQ(base64Text(bytesOf("\xFB\xEF\xBE\xFF\xFF\xFF")), "++++////");
}

TEST(Base64, IgnoresBitsBeyondTheLastByte) {
  EXPECT_EQ(base64Bytes("Zh=="), bytesOf("f"));
  EXPECT_EQ(base64Bytes("Zm9="), bytesOf("fo"));
}

TEST(Base64, RefusesEverythingElse) {
  for (const char* text : {"Z", "Zg", "Zg=", "Zg===", "====", "=", "Z===", "Zg==Zg==", "Zg=g", "Zm8=Zm8=", " Zg==", "Zg==\n", "Zm 9",
                           "Zm9v,m9v", "Zm9-", "Zm9_", "Zm9\x80", "Zm9vZm9\xFF"}) {
    EXPECT_EQ(base64Bytes(text), std::nullopt) << text;
  }
  EXPECT_EQ(base64Bytes(std::string_view("Zm9\0", 4)), std::nullopt);
}

}  // namespace
}  // namespace platform
