#include "platform/foundation/url/PercentEscapes.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/foundation/url/URL.h"

namespace platform {
namespace {

TEST(PercentEscapes, AreAddedToWhatAURLMayNotHold) {
  EXPECT_EQ(stringByAddingPercentEscapes("/home/a b/Downloads"), "/home/a%20b/Downloads");
  EXPECT_EQ(stringByAddingPercentEscapes("\"<>\\^`{|}"), "%22%3C%3E%5C%5E%60%7B%7C%7D");
  EXPECT_EQ(stringByAddingPercentEscapes("#[]"), "%23%5B%5D");
  EXPECT_EQ(stringByAddingPercentEscapes(std::string("\0\n\x7F", 3)), "%00%0A%7F");
  EXPECT_EQ(stringByAddingPercentEscapes(""), "");
}

TEST(PercentEscapes, AreAddedToThePercentSignItself) {
  EXPECT_EQ(stringByAddingPercentEscapes("100%"), "100%25");
  EXPECT_EQ(stringByAddingPercentEscapes("%41"), "%2541");
}

TEST(PercentEscapes, AreAddedToEveryByteBeyondASCII) {
  EXPECT_EQ(stringByAddingPercentEscapes("caf\xC3\xA9"), "caf%C3%A9");
  EXPECT_EQ(stringByAddingPercentEscapes("\xFF"), "%FF");
}

TEST(PercentEscapes, AreNotAddedToWhatIsLegal) {
  const std::string legal = "ABCXYZabcxyz0189-_.~!$&'()*+,;=:@/?";
  EXPECT_EQ(stringByAddingPercentEscapes(legal), legal);
}

TEST(PercentEscapes, MakeAURLOfEveryPath) {
  std::string everyByte = "/";
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/' && byte != '?') everyByte += static_cast<char>(byte);
  }
  const auto url = URL::URLWithString(stringByAddingPercentEscapes(everyByte));
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path(), everyByte);
}

TEST(PercentEscapes, AreResolved) {
  bool ok = false;
  EXPECT_EQ(stringByReplacingPercentEscapes("/a%20b%C3%a9%2525", &ok), "/a b\xC3\xA9%25");
  EXPECT_TRUE(ok);
  EXPECT_EQ(stringByReplacingPercentEscapes("plain"), "plain");
  EXPECT_EQ(stringByReplacingPercentEscapes("%00"), std::string(1, '\0'));
  EXPECT_EQ(stringByReplacingPercentEscapes(""), "");
}

TEST(PercentEscapes, ThatAreBadGiveEmptyTextAndSaySo) {
  for (const char* text : {"%", "a%4", "%4g", "%g4", "good%41bad%"}) {
    bool ok = true;
    EXPECT_EQ(stringByReplacingPercentEscapes(text, &ok), "") << text;
    EXPECT_FALSE(ok) << text;
    EXPECT_EQ(stringByReplacingPercentEscapes(text), "") << text;
  }
}

}  // namespace
}  // namespace platform
