#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/support/TemporaryDirectory.h"

// What the tests with mounts rely upon.

namespace kestrine::test {
namespace {

namespace fs = std::filesystem;

class TemporaryFolderOf : public testing::TestWithParam<Rights> {};
KESTRINE_PER_RIGHTS(TemporaryFolderOf);

TEST_P(TemporaryFolderOf, ATestThatLeavesSomethingMountedSparesIt) {
  inMountNamespace(
      [] {
        const TemporaryDirectory precious;
        makeFolder(precious / "below");
        writeFile(precious / "below/file", "text");
        fs::permissions(precious / "below", fs::perms(0555));
        {
          const TemporaryDirectory left;
          for (const char* const name : {"point", "gone"}) makeFolder(left / name);
          writeFile(left / "gone/file", "text");
          bindAt(left / "point", precious.path());
          const std::string path = left.path();
          removeFolder(path);
          EXPECT_TRUE(fs::exists(path + "/point/below/file"));
          EXPECT_FALSE(fs::exists(path + "/gone"));
        }
        {
          // The same where the mount is upon the folder itself.
          const TemporaryDirectory left;
          bindAt(left.path(), precious.path());
        }
        EXPECT_TRUE(fs::exists(precious / "below/file"));
        EXPECT_EQ(fs::status(precious / "below").permissions(), fs::perms(0555));
      },
      GetParam());
}

}  // namespace
}  // namespace kestrine::test
