#include "platform/foundation/text/Printable.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(Printable, LeavesTextAndEscapesWhatMovesTheCursorOrBeginsALine) {
  struct Row {
    std::string text;
    const char* shown;
  };
  const Row kRows[] = {
      {"", ""},
      {"plain text, \\ and \"quotes\"", "plain text, \\ and \"quotes\""},
      {"gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80", "gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80"},
      {"one\ntwo\r\tthree", "one\\012two\\015\\011three"},
      {"\x1b[2J\x7f", "\\033[2J\\177"},
      {std::string("\0", 1), "\\000"},
      {"\xc2\x9b"
       "31m",
       "\\302\\23331m"},
      {"cut \xc3", "cut \\303"},
      {"\xff\xfe", "\\377\\376"},
  };
  for (const auto& [text, shown] : kRows) EXPECT_EQ(printable(text), shown);
}

}  // namespace
}  // namespace platform
