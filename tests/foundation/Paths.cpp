#include "platform/foundation/files/Paths.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace platform {
namespace {

struct Case {
  std::string path;
  std::string expected;
};

struct JoinCase {
  std::string path;
  std::string added;
  std::string expected;
};

using Components = std::vector<std::string>;

TEST(Paths, LastComponentIgnoresTrailingSeparators) {
  const std::vector<Case> cases = {{"/a/b", "b"}, {"/a/b/", "b"}, {"/a/b///", "b"}, {"a", "a"},        {"a/", "a"},
                                   {"", ""},      {"/", "/"},     {"///", "/"},     {"/a", "a"},       {"/a/..", ".."},
                                   {"a//b", "b"}, {".", "."},     {"/ ", " "},      {"/\xFF/", "\xFF"}};
  for (const Case& c : cases) EXPECT_EQ(lastPathComponent(c.path), c.expected) << c.path;
}

TEST(Paths, ExtensionIsWhatFollowsTheLastDotOfTheName) {
  const std::vector<Case> cases = {
      {"a.tar.gz", "gz"},
      {"/tmp/scratch.tiff", "tiff"},
      {"/tmp/scratch", ""},
      {".bashrc", ""},
      {"/x/.bashrc", ""},
      {".bashrc.old", "old"},
      {"a.", ""},
      {"a..", ""},
      {"a..b", "b"},
      {"/a.b/c", ""},
      {"/a/b.c/", "c"},
      {"/a/b.c//", "c"},
      {"", ""},
      {"/", ""},
      {".", ""},
      {"..", ""},
      {"...", ""},
      {"..a", ""},
      {"...a.b", "b"},
      {"/tmp/", ""},
      {"a.b c", "b c"},
      {"a.\xFF", "\xFF"},
      {"/a.b/..", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(pathExtension(c.path), c.expected) << c.path;
}

TEST(Paths, DeletingTheExtensionLeavesAPathWithoutOneAsItIs) {
  const std::vector<Case> cases = {
      {"/tmp/scratch.tiff", "/tmp/scratch"},
      {"a.tar.gz", "a.tar"},
      {"/tmp/scratch", "/tmp/scratch"},
      {".bashrc", ".bashrc"},
      {"a.", "a."},
      {"scratch.bundle/", "scratch"},
      {"a..b", "a."},
      {"/a.b/c", "/a.b/c"},
      {"", ""},
      {"/", "/"},
      {"..", ".."},
      {"...", "..."},
      {"/tmp/", "/tmp"},
      {".tiff", ".tiff"},
      {"/a.b/.c", "/a.b/.c"},
      {"//a//b.c", "/a/b"},
  };
  for (const Case& c : cases) EXPECT_EQ(stringByDeletingPathExtension(c.path), c.expected) << c.path;
}

TEST(Paths, AppendingAnExtensionPutsADotBetween) {
  const std::vector<JoinCase> cases = {
      {"scratch", "tiff", "scratch.tiff"},
      {"/tmp/scratch.old", "tiff", "/tmp/scratch.old.tiff"},
      {"/tmp/scratch.", "tiff", "/tmp/scratch..tiff"},
      {"/tmp/", "tiff", "/tmp.tiff"},
      {"a 1", "tar.gz", "a 1.tar.gz"},
      {"", "tiff", ""},
      {"/", "tiff", "/"},
      {"///", "tiff", "///"},
      {"a", "b/c", "a"},
  };
  for (const JoinCase& c : cases) EXPECT_EQ(stringByAppendingPathExtension(c.path, c.added), c.expected) << c.path << " + " << c.added;
}

TEST(Paths, AppendingAnEmptyExtensionChangesNothing) {
  for (const char* path : {"a", "/a/b/", "a.", "", "/", "//x"}) EXPECT_EQ(stringByAppendingPathExtension(path, ""), path);
}

TEST(Paths, AppendingAComponentPutsOneSeparatorBetween) {
  const std::vector<JoinCase> cases = {
      {"/tmp", "scratch.tiff", "/tmp/scratch.tiff"},
      {"/tmp/", "x", "/tmp/x"},
      {"/tmp", "/x", "/tmp/x"},
      {"/tmp/", "/x/", "/tmp/x"},
      {"/", "x", "/x"},
      {"", "x", "x"},
      {"", "/x", "/x"},
      {"a", "b/c", "a/b/c"},
      {"/tmp", "", "/tmp"},
      {"/tmp/", "", "/tmp"},
      {"", "", ""},
      {"/", "", "/"},
      {"/a//b", "c", "/a/b/c"},
      {"/a", "..", "/a/.."},
  };
  for (const JoinCase& c : cases) EXPECT_EQ(stringByAppendingPathComponent(c.path, c.added), c.expected) << c.path << " + " << c.added;
}

TEST(Paths, DeletingTheLastComponentStopsAtTheRoot) {
  const std::vector<Case> cases = {
      {"/tmp/scratch.tiff", "/tmp"}, {"/tmp/lock/", "/tmp"}, {"/tmp/", "/"}, {"/tmp", "/"}, {"/", "/"},    {"//", "/"},
      {"scratch.tiff", ""},          {"a/b", "a"},           {"a/b/", "a"},  {"", ""},      {"a//b", "a"}, {"/a//b", "/a"}};
  for (const Case& c : cases) EXPECT_EQ(stringByDeletingLastPathComponent(c.path), c.expected) << c.path;
}

TEST(Paths, ComponentsBeginWithTheRoot) {
  EXPECT_EQ(pathComponents("/a/b"), (Components{"/", "a", "b"}));
  EXPECT_EQ(pathComponents("a/b"), (Components{"a", "b"}));
  EXPECT_EQ(pathComponents("/"), (Components{"/"}));
  EXPECT_EQ(pathComponents("//a///b//"), (Components{"/", "a", "b"}));
  EXPECT_EQ(pathComponents("a"), (Components{"a"}));
  EXPECT_EQ(pathComponents(""), Components{});
  EXPECT_EQ(pathComponents("/./.."), (Components{"/", ".", ".."}));
}

TEST(Paths, LieAtOrBelowAFolderByWholeComponents) {
  enum class Place { At, Below, Elsewhere };
  struct PlaceCase {
    std::string path;
    std::string folder;
    Place place;
  };
  const std::vector<PlaceCase> cases = {
      {"/a/b", "/a", Place::Below},
      {"/a/b/c/d", "/a", Place::Below},
      {"/a/b/c/d", "/a/b/c", Place::Below},
      {"/a", "/a", Place::At},
      {"/a/b", "/a/b", Place::At},
      {"/ab", "/a", Place::Elsewhere},
      {"/ab/c", "/a", Place::Elsewhere},
      {"/a b", "/a", Place::Elsewhere},
      {"/a.b", "/a", Place::Elsewhere},
      {"/a", "/ab", Place::Elsewhere},
      {"/a", "/a/b", Place::Elsewhere},
      {"/b/a", "/a", Place::Elsewhere},
      {"/A/b", "/a", Place::Elsewhere},
      // The root, by either name.
      {"/", "/", Place::At},
      {"/", "", Place::At},
      {"", "/", Place::At},
      {"", "", Place::At},
      {"/a", "/", Place::Below},
      {"/a", "", Place::Below},
      {"/a/b", "/", Place::Below},
      {"/", "/a", Place::Elsewhere},
      {"", "/a", Place::Elsewhere},
      // Relative paths.
      {"a/b", "a", Place::Below},
      {"a", "a", Place::At},
      {"ab", "a", Place::Elsewhere},
      {"a", "/", Place::Elsewhere},
      {"a", "/a", Place::Elsewhere},
      {"/a", "a", Place::Elsewhere},
      {".", ".", Place::At},
      {"./a", ".", Place::Below},
      {".a", ".", Place::Elsewhere},
      {"/a/\xFF/b", "/a/\xFF", Place::Below},
  };
  for (const PlaceCase& c : cases) {
    EXPECT_EQ(isAtOrBelowPath(c.path, c.folder), c.place != Place::Elsewhere) << "\"" << c.path << "\" and \"" << c.folder << "\"";
    EXPECT_EQ(isBelowPath(c.path, c.folder), c.place == Place::Below) << "\"" << c.path << "\" and \"" << c.folder << "\"";
  }
}

TEST(Paths, AreMadeAbsoluteByTheCurrentFolder) {
  const std::string former = std::filesystem::current_path();
  EXPECT_EQ(absolutePath("/a//b/"), "/a//b/");
  std::filesystem::current_path("/usr");
  EXPECT_EQ(absolutePath("a/../b"), "/usr/a/../b");
  std::filesystem::current_path("/");
  EXPECT_EQ(absolutePath("a"), "/a");
  std::filesystem::current_path(former);
}

TEST(Paths, AreCollapsedToSingleSeparators) {
  for (const auto& [path, expected] : {Case{"//a///b//", "/a/b"}, Case{"/", "/"}, Case{"///", "/"}, Case{"a//", "a"}, Case{"", ""}})
    EXPECT_EQ(collapsedPath(path), expected) << path;
}

}  // namespace
}  // namespace platform
