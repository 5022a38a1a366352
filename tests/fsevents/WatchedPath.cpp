#include "platform/fsevents/tree/WatchedPath.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::fsevents::watchedPath;
using Texts = std::vector<std::string>;

TEST(WatchedPath, ReportsThePathAsItWasGivenWithoutTrailingSeparators) {
  struct Row {
    const char* given;
    const char* reported;
    const char* opened;
  };
  const std::string here = std::filesystem::current_path().string();
  const std::string relative = here + "/(null)/Kestrine";
  for (const Row& row : {Row{"/x/y", "/x/y", "/x/y"}, Row{"/x/y//", "/x/y", "/x/y"}, Row{"/x/./y//z/", "/x/./y//z", "/x/./y//z"},
                         Row{"/", "", "/"}, Row{"(null)/Kestrine", "(null)/Kestrine", relative.c_str()}}) {
    const auto options = watchedPath(row.given, {});
    EXPECT_EQ(options.reportedPath, row.reported) << row.given;
    EXPECT_EQ(options.openPath, row.opened) << row.given;
    EXPECT_TRUE(options.exclusions.empty());
  }
}

TEST(WatchedPath, ComparesExclusionsByWholeComponents) {
  EXPECT_EQ(watchedPath("/x", {"/x/a", "/xa", "/y"}).exclusions, (Texts{"/a"}));
  EXPECT_EQ(watchedPath("/x/./", {"/x//a/"}).exclusions, (Texts{"/a"}));
  EXPECT_EQ(watchedPath("/x/y", {"/x"}).exclusions, (Texts{""}));
  EXPECT_EQ(watchedPath("/x/y", {"/x/y"}).exclusions, (Texts{""}));
  EXPECT_EQ(watchedPath("/", {"/proc"}).exclusions, (Texts{"/proc"}));
}

TEST(WatchedPath, FindsAnExclusionThatNamesTheFolderBehindALink) {
  const TemporaryDirectory folder;
  makeFolder(folder / "real");
  makeFolder(folder / "real/left out");
  std::filesystem::create_symlink("real", folder / "link");
  EXPECT_EQ(watchedPath(folder / "link", {folder / "real/left out"}).exclusions, (Texts{"/left out"}));
}

}  // namespace
}  // namespace kestrine::test
