#include <fcntl.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <utility>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {
namespace {

TEST(JSONText, WritesEachKind) {
  EXPECT_EQ(jsonText(Object()), "null");
  EXPECT_EQ(jsonText(Object::null()), "null");
  EXPECT_EQ(jsonText("text"), "\"text\"");
  EXPECT_EQ(jsonText(Array{}), "[]");
  EXPECT_EQ(jsonText(Dictionary{}), "{}");
  EXPECT_EQ(jsonText(Array{"a", Object(), Array{Object::null()}}), R"(["a",null,[null]])");
  EXPECT_EQ(jsonText(Dictionary{{"b", "1"}, {"a", Dictionary{{"c", Object()}}}}), R"({"a":{"c":null},"b":"1"})");
}

TEST(JSONText, KeepsKindsOfNumbersApart) {
  EXPECT_EQ(jsonText(Object::numberWithBool(true)), "true");
  EXPECT_EQ(jsonText(Object::numberWithBool(false)), "false");
  EXPECT_EQ(jsonText(Object::numberWithChar(1)), "1");
  EXPECT_EQ(jsonText(Object::numberWithShort(-2)), "-2");
  EXPECT_EQ(jsonText(Object::numberWithInt(3)), "3");
  EXPECT_EQ(jsonText(Object::numberWithLongLong(std::numeric_limits<std::int64_t>::min())), "-9223372036854775808");
  EXPECT_EQ(jsonText(Object::numberWithUnsignedLongLong(std::numeric_limits<std::uint64_t>::max())), "18446744073709551615");
  EXPECT_EQ(jsonText(Object::numberWithDouble(1)), "1.0");
  EXPECT_EQ(jsonText(Object::numberWithDouble(0.1)), "0.1");
  EXPECT_EQ(jsonText(Object::numberWithFloat(0.5F)), "0.5");
}

TEST(JSONText, EscapesWhatAStringMayNotHold) {
  EXPECT_EQ(jsonText("a\"b\\c\n\x01"), R"("a\"b\\c\n\u0001")");
  EXPECT_EQ(jsonText(std::string("a\0b", 3)), R"("a\u0000b")");
  EXPECT_EQ(jsonText("caf\xC3\xA9 \xF0\x9F\x98\x80"), "\"caf\xC3\xA9 \xF0\x9F\x98\x80\"");
  EXPECT_EQ(jsonText(Dictionary{{"k\"", "v"}}), R"({"k\"":"v"})");
}

// Text is looked at eight characters at a time, so each character stands at each place of such a group once, and at the end.
TEST(JSONText, EscapesAtEveryPlace) {
  for (int c = 0; c < 0x80; ++c) {
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned>(c));
    std::string expected = c < 0x20 ? escape : std::string(1, static_cast<char>(c));
    for (const auto& [character, letter] :
         {std::pair{'"', '"'}, {'\\', '\\'}, {'\b', 'b'}, {'\f', 'f'}, {'\n', 'n'}, {'\r', 'r'}, {'\t', 't'}}) {
      if (c == character) expected = std::string("\\") + letter;
    }
    for (std::size_t place = 0; place < 20; ++place) {
      const std::string before(place, 'a');
      for (const std::string& after : {std::string(), std::string("zzzzzzzzz"), std::string("\xC3\xA9")}) {
        ASSERT_EQ(jsonText(before + static_cast<char>(c) + after), "\"" + before + expected + after + "\"") << c;
      }
    }
  }
}

TEST(JSONText, RefusesTextThatIsNotUTF8AtEveryPlace) {
  for (std::size_t place = 0; place < 20; ++place) {
    for (const char* wrong : {"\x80", "\xC3", "\xED\xA0\x80", "\xFF"}) {
      EXPECT_THROW((void)jsonText(std::string(place, 'a') + wrong), Exception) << place;
      EXPECT_THROW((void)jsonText(std::string(place, 'a') + wrong + "aaaaaaaaa"), Exception) << place;
    }
  }
}

TEST(JSONText, RefusesWhatJSONCannotHold) {
  const auto handle = std::make_shared<const FileHandle>(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const std::vector<Object> cases = {"\xFF",
                                     "cut \xC3",
                                     Object(Data{std::byte{1}}),
                                     Object(Date{1}),
                                     Object(UUID()),
                                     Object(handle),
                                     Object::numberWithDouble(std::nan("")),
                                     Object::numberWithDouble(std::numeric_limits<double>::infinity()),
                                     Object::numberWithFloat(-std::numeric_limits<float>::infinity()),
                                     Dictionary{{"\xFF", "v"}},
                                     Array{Dictionary{{"deep", Array{Date{0}}}}}};
  for (const Object& object : cases) {
    try {
      ADD_FAILURE() << jsonText(object);
    } catch (const Exception& exception) {
      EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
    }
  }
}

}  // namespace
}  // namespace platform
