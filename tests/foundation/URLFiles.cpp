#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "platform/foundation/url/URL.h"
#include "tests/support/TemporaryDirectory.h"

namespace platform {
namespace {

using kestrine::test::TemporaryDirectory;

std::string fileURLText(std::string_view path) { return URL::fileURLWithPath(path).absoluteString(); }

TEST(FileURL, HasTheSchemeAndNoHost) {
  const URL url = URL::fileURLWithPath("/a/b");
  EXPECT_EQ(url.absoluteString(), "file:///a/b");
  EXPECT_TRUE(url.isFileURL());
  EXPECT_EQ(url.host(), "");
  EXPECT_EQ(url.path(), "/a/b");
}

TEST(FileURL, EscapesWhatAURLMayNotHold) {
  EXPECT_EQ(fileURLText("/a b"), "file:///a%20b");
  EXPECT_EQ(fileURLText("/100%"), "file:///100%25");
  EXPECT_EQ(fileURLText("/a#b?c"), "file:///a%23b%3Fc");
  EXPECT_EQ(fileURLText("/[x]"), "file:///%5Bx%5D");
  EXPECT_EQ(fileURLText("/caf\xC3\xA9"), "file:///caf%C3%A9");
  EXPECT_EQ(fileURLText("/line\nend"), "file:///line%0Aend");
}

TEST(FileURL, GivesBackEveryNameThatTheKernelAllows) {
  std::string everyByte = "/";
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/') everyByte += static_cast<char>(byte);
  }
  EXPECT_EQ(URL::fileURLWithPath(everyByte).path(), everyByte);
  EXPECT_EQ(URL::fileURLWithPath("/%41").path(), "/%41");
  EXPECT_EQ(URL::fileURLWithPath("//a//b").path(), "//a//b");
}

TEST(FileURL, IsAlwaysAURLText) {
  for (const char* path : {"/a b", "/\xFF", "/#", "/[", "/%", "/a\"<>"}) {
    const URL url = URL::fileURLWithPath(path);
    const auto again = URL::URLWithString(url.absoluteString());
    ASSERT_TRUE(again) << path;
    EXPECT_EQ(*again, url);
  }
}

TEST(FileURL, KeepsATrailingSeparatorOnlyForAFolder) {
  const TemporaryDirectory folder;
  kestrine::test::writeFile(folder / "file", "");
  EXPECT_EQ(fileURLText(folder.path() + "/"), "file://" + folder.path() + "/");
  EXPECT_EQ(fileURLText(folder.path()), "file://" + folder.path());
  EXPECT_EQ(fileURLText(folder / "file/"), "file://" + folder.path() + "/file");
  EXPECT_EQ(fileURLText(folder / "missing///"), "file://" + folder.path() + "/missing");
  EXPECT_EQ(URL::fileURLWithPath(folder.path() + "/").path(), folder.path());
  EXPECT_EQ(fileURLText("/"), "file:///");
}

TEST(FileURL, TakesARelativePathFromTheCurrentDirectory) {
  const TemporaryDirectory folder;
  ASSERT_EQ(chdir(folder.path().c_str()), 0);
  EXPECT_EQ(URL::fileURLWithPath("a/b").path(), folder / "a/b");
  EXPECT_EQ(URL::fileURLWithPath("").path(), folder.path());
  ASSERT_EQ(chdir("/"), 0);
  EXPECT_EQ(fileURLText("a"), "file:///a");
}

TEST(FileURL, TakesARelativePathFromTheRootWhenTheCurrentDirectoryIsGone) {
  const TemporaryDirectory folder;
  kestrine::test::makeFolder(folder / "gone");
  ASSERT_EQ(chdir((folder / "gone").c_str()), 0);
  ASSERT_EQ(rmdir((folder / "gone").c_str()), 0);
  EXPECT_EQ(fileURLText("a"), "file:///a");
  ASSERT_EQ(chdir("/"), 0);
}

}  // namespace
}  // namespace platform
