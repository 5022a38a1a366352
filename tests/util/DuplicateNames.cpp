#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/TemporaryDirectory.h"
#include "util/ServicesUtilities.h"

namespace kestrine::test {
namespace {

namespace fs = std::filesystem;
using testing::UnorderedElementsAre;

class DuplicateNames : public testing::Test {
 protected:
  std::string duplicate(const std::string& name) const {
    return ServicesUtilities::checkDuplicateAndCreate_kestrinePath(folder / name, "not used");
  }
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder.path())) names.push_back(entry.path().filename().string());
    return names;
  }
  const TemporaryDirectory folder;
};

TEST_F(DuplicateNames, BeginAtOneAndCountOn) {
  writeFile(folder / "report.pdf", "content");
  EXPECT_EQ(duplicate("report.pdf"), folder / "report 1.pdf");
  EXPECT_EQ(duplicate("report.pdf"), folder / "report 2.pdf");
  EXPECT_EQ(readFile(folder / "report 1.pdf"), "content");
  EXPECT_THAT(names(), UnorderedElementsAre("report.pdf", "report 1.pdf", "report 2.pdf"));
}

TEST_F(DuplicateNames, TakeTheFirstFreeNumber) {
  writeFile(folder / "x.txt", "original");
  writeFile(folder / "x 1.txt", "first");
  EXPECT_EQ(duplicate("x.txt"), folder / "x 2.txt");
  EXPECT_EQ(readFile(folder / "x 2.txt"), "original");
  EXPECT_EQ(readFile(folder / "x 1.txt"), "first");
}

TEST_F(DuplicateNames, OfWhatIsMissingAreItsOwnAndNothingIsMade) {
  EXPECT_EQ(duplicate("missing.txt"), folder / "missing.txt");
  EXPECT_TRUE(names().empty());
}

TEST_F(DuplicateNames, KeepOnlyTheLastExtensionApart) {
  writeFile(folder / "a.tar.gz", "");
  EXPECT_EQ(duplicate("a.tar.gz"), folder / "a.tar 1.gz");
}

TEST_F(DuplicateNames, OfAFileWithoutAnExtensionHaveNoDot) {
  writeFile(folder / "Makefile", "");
  writeFile(folder / ".profile", "");
  EXPECT_EQ(duplicate("Makefile"), folder / "Makefile 1");
  EXPECT_EQ(duplicate(".profile"), folder / ".profile 1");
}

TEST_F(DuplicateNames, OfAFolderGetNoExtensionAndTheCopyHoldsItsContents) {
  makeFolder(folder / "Photos");
  makeFolder(folder / "Photos/2024.old");
  writeFile(folder / "Photos/2024.old/a.jpg", "picture");
  fs::create_symlink("nowhere", folder / "Photos/link");
  EXPECT_EQ(duplicate("Photos"), folder / "Photos 1");
  EXPECT_EQ(readFile(folder / "Photos 1/2024.old/a.jpg"), "picture");
  EXPECT_EQ(fs::read_symlink(folder / "Photos 1/link"), "nowhere");
  makeFolder(folder / "b.app");
  EXPECT_EQ(duplicate("b.app"), folder / "b 1") << "a folder's extension is left off";
}

TEST_F(DuplicateNames, GoOnAfterCopiesThatFailHoweverMany) {
  writeFile(folder / "x.txt", "content");
  // A link that leads nowhere is no item, but no copy can be put in its place either.
  constexpr int kFailures = 1500;
  for (int i = 1; i <= kFailures; ++i) fs::create_symlink("nowhere", folder / ("x " + std::to_string(i) + ".txt"));
  EXPECT_EQ(duplicate("x.txt"), folder / "x 1501.txt");
  EXPECT_EQ(readFile(folder / "x 1501.txt"), "content");
  EXPECT_TRUE(fs::is_symlink(folder / "x 1500.txt"));
}

TEST_F(DuplicateNames, AreTriedUntilTheSourceGoesAway) {
  // A pipe cannot be copied, so that only its end ends the search.
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
  std::thread removal([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    fs::remove(folder / "pipe");
  });
  EXPECT_EQ(duplicate("pipe"), folder / "pipe");
  removal.join();
  EXPECT_TRUE(names().empty()) << "a failed copy was left behind";
}

}  // namespace
}  // namespace kestrine::test
