#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/foundation/files/Paths.h"
#include "tests/support/TemporaryDirectory.h"

namespace platform {
namespace {

using kestrine::test::makeFolder;
using kestrine::test::TemporaryDirectory;

struct StandardizingCase {
  std::string path;
  std::string expected;
};

TEST(StandardizingPath, LeavesAStandardPathAlone) {
  for (const char* path :
       {"", "/", "/a", "/a/b.c", "a", "a/b", "/a b/\xFF", "/.a/..b/...", "/private/tmp", "/a~/~b", "...", "/a/.b", "/a/b."}) {
    EXPECT_EQ(stringByStandardizingPath(path), path);
  }
}

TEST(StandardizingPath, RemovesRepeatedAndTrailingSeparators) {
  const std::vector<StandardizingCase> cases = {{"//", "/"},   {"///a", "/a"},  {"/a//b", "/a/b"},
                                                {"/a/", "/a"}, {"/a///", "/a"}, {"a//b/", "a/b"}};
  for (const StandardizingCase& c : cases) EXPECT_EQ(stringByStandardizingPath(c.path), c.expected) << c.path;
}

TEST(StandardizingPath, RemovesDotComponents) {
  const std::vector<StandardizingCase> cases = {{"/.", "/"},      {"/./a", "/a"}, {"/a/.", "/a"}, {"/a/./b", "/a/b"}, {"./a", "a"},
                                                {"a/./b", "a/b"}, {"a/.", "a"},   {".", "."},     {"./", "."},        {"/././.", "/"}};
  for (const StandardizingCase& c : cases) EXPECT_EQ(stringByStandardizingPath(c.path), c.expected) << c.path;
}

TEST(StandardizingPath, RemovesDotDotFromAnAbsolutePath) {
  const std::vector<StandardizingCase> cases = {{"/..", "/"},
                                                {"/../a", "/a"},
                                                {"/missing-1/../b", "/b"},
                                                {"/missing-1/missing-2/../..", "/"},
                                                {"/missing-1/missing-2/../../../x", "/x"},
                                                {"/missing-1/missing-2//.././c/", "/missing-1/c"},
                                                {"/missing-1/..", "/"}};
  for (const StandardizingCase& c : cases) EXPECT_EQ(stringByStandardizingPath(c.path), c.expected) << c.path;
}

TEST(StandardizingPath, KeepsDotDotInARelativePath) {
  const std::vector<StandardizingCase> cases = {
      {"..", ".."}, {"../a", "../a"}, {"a/../b", "a/../b"}, {"a//../b/.", "a/../b"}, {"a/..", "a/.."}};
  for (const StandardizingCase& c : cases) EXPECT_EQ(stringByStandardizingPath(c.path), c.expected) << c.path;
}

TEST(StandardizingPath, ResolvesALinkOnlyWhereDotDotFollowsIt) {
  const TemporaryDirectory folder;
  std::filesystem::create_directories(folder / "real/deep");
  std::filesystem::create_directory_symlink(folder / "real/deep", folder / "link");
  EXPECT_EQ(stringByStandardizingPath(folder / "link/../x"), folder / "real/x");
  EXPECT_EQ(stringByStandardizingPath(folder / "link/./x/"), folder / "link/x");
  EXPECT_EQ(stringByStandardizingPath(folder / "link/x/../y"), folder / "link/y");
  EXPECT_EQ(stringByStandardizingPath(folder / "real/../link"), folder / "link");
}

TEST(StandardizingPath, StripsDotDotAfterALinkThatLeadsNowhere) {
  const TemporaryDirectory folder;
  std::filesystem::create_symlink("nowhere", folder / "dangling");
  std::filesystem::create_symlink("loop", folder / "loop");
  EXPECT_EQ(stringByStandardizingPath(folder / "dangling/../x"), folder / "x");
  EXPECT_EQ(stringByStandardizingPath(folder / "loop/../x"), folder / "x");
}

TEST(StandardizingPath, CopesWithALinkToTheRoot) {
  const TemporaryDirectory folder;
  std::filesystem::create_directory_symlink("/", folder / "root");
  EXPECT_EQ(stringByStandardizingPath(folder / "root/../x"), "/x");
}

TEST(StandardizingPath, ExpandsTheUsersHome) {
  setenv("HOME", "/home/somebody", 1);
  const std::vector<StandardizingCase> cases = {
      {"~", "/home/somebody"}, {"~/", "/home/somebody"}, {"~/a", "/home/somebody/a"}, {"~//a/./b/", "/home/somebody/a/b"}, {"/a/~", "/a/~"},
      {"a/~", "a/~"}};
  for (const StandardizingCase& c : cases) EXPECT_EQ(stringByStandardizingPath(c.path), c.expected) << c.path;
}

TEST(StandardizingPath, StandardizesTheHomeItself) {
  setenv("HOME", "/home//somebody/./", 1);
  EXPECT_EQ(stringByStandardizingPath("~/a"), "/home/somebody/a");
}

TEST(StandardizingPath, LeavesAnUnknownUserAlone) {
  EXPECT_EQ(stringByStandardizingPath("~no-such-user-here/a/"), "~no-such-user-here/a");
  EXPECT_EQ(stringByStandardizingPath("~no-such-user-here"), "~no-such-user-here");
}

TEST(StandardizingPath, TakesAnyLength) {
  std::string path;
  std::string doubled;
  for (int i = 0; i < 2000; ++i) {
    path += "/component";
    doubled += "//component";
  }
  EXPECT_EQ(stringByStandardizingPath(path), path);
  EXPECT_EQ(stringByStandardizingPath(doubled + "/"), path);
  EXPECT_EQ(stringByStandardizingPath(path + "/x/../y"), path + "/y");
}

}  // namespace
}  // namespace platform
