#include "platform/foundation/files/FileManager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "tests/support/TemporaryDirectory.h"

namespace platform {
namespace {

namespace fs = std::filesystem;
using kestrine::test::makeFolder;
using kestrine::test::readFile;
using kestrine::test::TemporaryDirectory;
using kestrine::test::writeFile;

struct stat statusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

TEST(FileManager, FindsFilesAndFoldersThroughLinksAndNothingBehindABrokenOne) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "");
  fs::create_symlink("file", folder / "link");
  fs::create_symlink("nowhere", folder / "broken");
  bool isDirectory = true;
  EXPECT_TRUE(fileExistsAtPath(folder / "file", &isDirectory));
  EXPECT_FALSE(isDirectory);
  EXPECT_TRUE(fileExistsAtPath(folder.path(), &isDirectory));
  EXPECT_TRUE(isDirectory);
  EXPECT_TRUE(fileExistsAtPath(folder / "link"));
  EXPECT_FALSE(fileExistsAtPath(folder / "broken", &isDirectory));
  EXPECT_FALSE(isDirectory);
}

TEST(FileManager, CopiesAFileWithItsPermissionsAndTimes) {
  const TemporaryDirectory folder;
  writeFile(folder / "a", "content");
  ASSERT_EQ(chmod((folder / "a").c_str(), 0640), 0);
  fs::last_write_time(folder / "a", fs::file_time_type::clock::now() - std::chrono::hours(1000));
  EXPECT_FALSE(copyItemAtPath_toPath(folder / "a", folder / "b"));
  EXPECT_EQ(readFile(folder / "b"), "content");
  EXPECT_EQ(statusOf(folder / "b").st_mode & 07777, 0640U);
  EXPECT_EQ(statusOf(folder / "b").st_mtim.tv_sec, statusOf(folder / "a").st_mtim.tv_sec);
}

TEST(FileManager, CopiesAFolderThatNobodyMayWriteTo) {
  const TemporaryDirectory folder;
  makeFolder(folder / "a");
  writeFile(folder / "a/file", "content");
  ASSERT_EQ(chmod((folder / "a").c_str(), 0555), 0);
  EXPECT_FALSE(copyItemAtPath_toPath(folder / "a", folder / "b"));
  EXPECT_EQ(readFile(folder / "b/file"), "content");
  EXPECT_EQ(statusOf(folder / "b").st_mode & 07777, 0555U);
}

TEST(FileManager, CopiesALinkAsALink) {
  const TemporaryDirectory folder;
  fs::create_symlink("nowhere", folder / "a");
  EXPECT_FALSE(copyItemAtPath_toPath(folder / "a", folder / "b"));
  EXPECT_EQ(fs::read_symlink(folder / "b"), "nowhere");
}

TEST(FileManager, NeverReplacesWhatIsThere) {
  const TemporaryDirectory folder;
  writeFile(folder / "a", "new");
  writeFile(folder / "file", "old");
  makeFolder(folder / "folder");
  fs::create_symlink("nowhere", folder / "broken");
  for (const char* name : {"file", "folder", "broken"}) {
    EXPECT_EQ(copyItemAtPath_toPath(folder / "a", folder / name), std::errc::file_exists) << name;
  }
  EXPECT_EQ(readFile(folder / "file"), "old");
  EXPECT_TRUE(fs::is_symlink(folder / "broken"));
}

TEST(FileManager, LeavesNothingOfACopyThatFailed) {
  const TemporaryDirectory folder;
  makeFolder(folder / "a");
  writeFile(folder / "a/first", "content");
  ASSERT_EQ(mkfifo((folder / "a/pipe").c_str(), 0600), 0);
  EXPECT_EQ(copyItemAtPath_toPath(folder / "a", folder / "b"), std::errc::not_supported);
  EXPECT_FALSE(fs::exists(folder / "b"));
}

TEST(FileManager, RefusesToCopyAFolderIntoItself) {
  const TemporaryDirectory folder;
  makeFolder(folder / "a");
  EXPECT_EQ(copyItemAtPath_toPath(folder / "a", folder / "a/b"), std::errc::invalid_argument);
  EXPECT_FALSE(fs::exists(folder / "a/b"));
}

TEST(FileManager, TellsOfAMissingSource) {
  const TemporaryDirectory folder;
  EXPECT_EQ(copyItemAtPath_toPath(folder / "missing", folder / "b"), std::errc::no_such_file_or_directory);
}

}  // namespace
}  // namespace platform
