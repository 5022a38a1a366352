#include <gtest/gtest.h>

#include "platform/foundation/base/Exception.h"
#include "util/ServicesUtilities.h"

namespace kestrine::test {
namespace {

struct Conversion {
  const char* from;
  const char* to;
};

TEST(PathConversion, ToTheServersFormDropsTheFirstCharacterAndTurnsSeparators) {
  for (const auto& [from, to] : {Conversion{"/", ""},
                                 {"/a/b", "a\\b"},
                                 {"/Users/me/a.txt", "Users\\me\\a.txt"},
                                 {"//a", "\\a"},
                                 {"a/b", "\\b"},
                                 {"/a\\b/c", "a\\b\\c"},
                                 {"/a/", "a\\"},
                                 {"x", ""}}) {
    EXPECT_EQ(ServicesUtilities::convertPathToWindows(from), to) << from;
  }
}

TEST(PathConversion, ToTheServersFormDropsAWholeCharacterNotAByteOfIt) {
  EXPECT_EQ(ServicesUtilities::convertPathToWindows("é/b"), "\\b");
  EXPECT_EQ(ServicesUtilities::convertPathToWindows("😀a"), "a");
}

TEST(PathConversion, ToTheServersFormOfAnEmptyPathIsARangeError) {
  try {
    ServicesUtilities::convertPathToWindows("");
    ADD_FAILURE() << "nothing was thrown";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSRangeException");
  }
}

TEST(PathConversion, ToTheLocalFormTurnsSeparatorsAndPutsOneBefore) {
  for (const auto& [from, to] :
       {Conversion{"a\\b", "/a/b"}, {"", "/"}, {"Users\\me\\a.txt", "/Users/me/a.txt"}, {"a/b", "/a/b"}, {"a\\\\b", "/a//b"}}) {
    EXPECT_EQ(ServicesUtilities::convertPathToMac(from), to) << from;
  }
}

TEST(PathConversion, ToTheLocalFormGivesAPathThatBeginsWithASeparatorASecondOne) {
  EXPECT_EQ(ServicesUtilities::convertPathToMac("\\a"), "//a");
  EXPECT_EQ(ServicesUtilities::convertPathToMac("/a"), "//a");
}

TEST(PathConversion, GoesThereAndBackForPathsThatBeginWithOneSeparator) {
  for (const char* path : {"/", "/a", "/a/b c/d.e", "/ä/ö"}) {
    EXPECT_EQ(ServicesUtilities::convertPathToMac(ServicesUtilities::convertPathToWindows(path)), path);
  }
  EXPECT_EQ(ServicesUtilities::convertPathToMac(ServicesUtilities::convertPathToWindows("a/b")), "//b");
}

}  // namespace
}  // namespace kestrine::test
