#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <future>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/TestFuse.h"
#include "tests/fsevents/support/WorldTest.h"

// The file system that the tests make fail is itself in order: what it shows is what is behind it, and it fails as it is told.

namespace kestrine::test {
namespace {

namespace fs = std::filesystem;

class TestFuseTest : public testing::Test {
 protected:
  void run(const std::function<void(TestFuse&)>& body) {
    inMountNamespace([&] {
      if (const auto why = TestFuse::whyNot(); !why.empty())
        GTEST_SKIP() << "left out: a file system in user space, because there is " << why;
      makeFolders(behind("folder"));
      makeFolders(folder_ / "point");
      TestFuse disk(folder_ / "backing", folder_ / "point");
      body(disk);
    });
  }
  [[nodiscard]] std::string behind(const std::string& name) const { return folder_.path() + "/backing/" + name; }
  [[nodiscard]] std::string on(const std::string& name) const { return folder_.path() + "/point/" + name; }
  static int errorOf(const std::string& path) {
    struct stat facts {};
    return ::stat(path.c_str(), &facts) == 0 ? 0 : errno;
  }
  static int errorOfListing(const std::string& path, std::size_t& entries) {
    std::error_code error;
    entries = 0;
    for (fs::directory_iterator at(path, error), end; !error && at != end; at.increment(error)) ++entries;
    return error.value();
  }
  TemporaryDirectory folder_;
};

TEST_F(TestFuseTest, ShowsWhatIsBehindIt) {
  run([this](TestFuse&) {
    writeFile(on("folder/file"), "text");
    EXPECT_EQ(readFile(behind("folder/file")), "text");
    appendFile(on("folder/file"), " and more");
    EXPECT_EQ(readFile(behind("folder/file")), "text and more");
    writeFile(behind("folder/other"), "another's");
    EXPECT_EQ(readFile(on("folder/other")), "another's");
    makeFolders(on("folder/a/b"));
    moveItem(on("folder/a"), on("c"));
    EXPECT_TRUE(fs::is_directory(behind("c/b")));
    writeFile(on("c/b/deep"), "text");
    exchangeItems(on("c"), on("folder"));
    EXPECT_EQ(readFile(on("folder/b/deep")), "text");
    EXPECT_EQ(readFile(on("c/file")), "text and more");
    makeHardLink(on("c/file"), on("link"));
    makeLink("c/file", on("symbolic"));
    EXPECT_EQ(readFile(on("symbolic")), "text and more");
    setMode(on("c/file"), 0600);
    fs::resize_file(on("c/file"), 4);
    EXPECT_EQ(readFile(on("link")), "text");
    moveItem(behind("folder/b"), behind("folder/behind"));
    EXPECT_EQ(readFile(on("folder/behind/deep")), "text");
    EXPECT_EQ(errorOf(on("folder/b")), ENOENT);
    for (int i = 0; i < 100; ++i) makeFolder(on("folder/" + std::to_string(i)));
    std::size_t entries = 0;
    EXPECT_EQ(errorOfListing(on("folder"), entries), 0);
    EXPECT_EQ(entries, 101U);
    removeTree(on("folder"));
    EXPECT_FALSE(fs::exists(behind("folder")));
  });
}

TEST_F(TestFuseTest, FailsAsItIsTold) {
  run([this](TestFuse& disk) {
    for (int i = 0; i < 100; ++i) makeFolder(behind("folder/" + std::to_string(i)));
    std::size_t entries = 0;
    for (const int error : {EIO, ENOTCONN, ESTALE, EUCLEAN}) {
      disk.fail("opendir", "folder", error);
      EXPECT_EQ(errorOfListing(on("folder"), entries), error);
      EXPECT_EQ(errorOf(on("folder/7")), 0);
      disk.heal();
      disk.fail("readdirRest", "folder", error);
      EXPECT_EQ(errorOfListing(on("folder"), entries), error);
      EXPECT_GT(entries, 0U);
      EXPECT_LT(entries, 100U);
      disk.heal();
      disk.fail("lookup", "folder/7", error);
      EXPECT_EQ(errorOf(on("folder/7")), error);
      disk.heal();
      EXPECT_EQ(errorOfListing(on("folder"), entries), 0);
      EXPECT_EQ(entries, 100U);
    }
    EXPECT_GE(disk.asked("opendir", "folder"), 4U);
  });
}

TEST_F(TestFuseTest, HangsDiesAndComesBack) {
  run([this](TestFuse& disk) {
    writeFile(behind("folder/file"), "text");
    disk.hang();
    auto waiting = std::async(std::launch::async, [this] { return readFile(on("folder/file")); });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    disk.answer();
    EXPECT_EQ(waiting.get(), "text");
    disk.die();
    EXPECT_EQ(errorOf(on("folder/file")), ENOTCONN);
    disk.comeBack();
    EXPECT_EQ(readFile(on("folder/file")), "text");
    EXPECT_EQ(disk.unmount(), 0);
    EXPECT_EQ(errorOf(on("folder/file")), ENOENT);
  });
}

TEST_F(TestFuseTest, LeavesNothingBehindWhenItEndsHanging) {
  run([this](TestFuse&) {
    const auto point = folder_ / "second";
    makeFolder(point);
    std::future<int> waiting;
    {
      TestFuse disk(behind(""), point);
      disk.hang();
      waiting = std::async(std::launch::async, [&] { return errorOf(point + "/folder"); });
      EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    }
    EXPECT_NE(waiting.get(), 0);
    EXPECT_EQ(errorOf(point + "/folder"), ENOENT);
    EXPECT_TRUE(fs::is_empty(point));
  });
}

}  // namespace
}  // namespace kestrine::test
