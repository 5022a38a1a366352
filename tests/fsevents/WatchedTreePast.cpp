#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <map>
#include <thread>

#include "platform/fsevents/tree/WatchedTree.h"
#include "tests/fsevents/support/StreamTest.h"

// What a tree tells of the time before it was attached.

namespace kestrine::test {
namespace {

namespace fsevents = platform::fsevents;

class WatchedTreePast : public StreamTest {
 protected:
  [[nodiscard]] fsevents::TreeOptions options() const {
    fsevents::TreeOptions made;
    made.reportedPath = made.openPath = root_;
    made.fileEvents = true;
    made.source = GetParam();
    // As of the file systems that temporary folders lie on.
    made.policy = {fsevents::FileSystemKind::Local, false, true, std::chrono::milliseconds(10)};
    return made;
  }
  // A moment that is surely apart from what was done before it and what is done after.
  static std::uint64_t moment() {
    const auto apart = std::chrono::milliseconds(60);
    std::this_thread::sleep_for(apart);
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    std::this_thread::sleep_for(apart);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000;
  }
  // What is told of the time since the moment itself, without the slack that is allowed to an identifier.
  std::map<std::string, FSEventStreamEventFlags> toldSince(std::uint64_t moment) {
    fsevents::Coalescer coalescer;
    fsevents::StreamStatus status;
    fsevents::WatchedTree tree(0, options(), coalescer, status);
    int error = 0;
    const auto slack = std::chrono::duration_cast<std::chrono::milliseconds>(fsevents::PastChanges::kSlack).count();
    EXPECT_EQ(tree.attach(0, moment + static_cast<std::uint64_t>(slack), error), fsevents::WatchedTree::Attached::Standing);
    std::map<std::string, FSEventStreamEventFlags> told;
    for (const auto& event : coalescer.take()) told[event.path] |= event.flags;
    EXPECT_FALSE(status.losses().any());
    return told;
  }
};
KESTRINE_PER_SOURCE(WatchedTreePast);

TEST_P(WatchedTreePast, IsSilentAboutWhatHasNotChanged) {
  makeFolders(in("a/b"));
  writeFile(in("a/b/file"), "text");
  const auto since = moment();
  EXPECT_TRUE(toldSince(since).empty());
}

TEST_P(WatchedTreePast, TellsFilesByTheirTimes) {
  makeFolders(in("a/b"));
  for (const auto* name : {"written", "mode", "left"}) writeFile(in("a/b/") + name, "text");
  const auto since = moment();
  appendFile(in("a/b/written"), "more");
  setMode(in("a/b/mode"), 0600);
  const auto told = toldSince(since);
  EXPECT_EQ(told.size(), 2U);
  EXPECT_EQ(told.at(in("a/b/written")), kModified | kIsFile);
  EXPECT_EQ(told.at(in("a/b/mode")), kMetadata | kIsFile);
}

TEST_P(WatchedTreePast, TellsWhatIsNewAndWhereSomethingWasRemoved) {
  makeFolders(in("a"));
  makeFolders(in("other"));
  writeFile(in("a/removed"), "text");
  const auto since = moment();
  makeFolders(in("new/deep"));
  writeFile(in("new/deep/file"), "text");
  removeItem(in("a/removed"));
  const auto told = toldSince(since);
  EXPECT_NE(told.at(in("new")) & kCreated, 0U);
  EXPECT_NE(told.at(in("new/deep/file")) & kCreated, 0U);
  EXPECT_EQ(told.at(in("a")) & (kModified | kIsFolder), kModified | kIsFolder);
  EXPECT_EQ(told.count(in("other")), 0U);
}

TEST_P(WatchedTreePast, TellsARenamedFolderWithEverythingInIt) {
  makeFolders(in("a/moved/deep"));
  makeFolders(in("b"));
  writeFile(in("a/moved/deep/file"), "text");
  writeFile(in("b/left"), "text");
  const auto since = moment();
  moveItem(in("a/moved"), in("b/moved"));
  const auto told = toldSince(since);
  EXPECT_EQ(told.count(in("a")), 1U);
  EXPECT_NE(told.at(in("b/moved")) & kRenamed, 0U);
  EXPECT_NE(told.at(in("b/moved/deep")) & kRenamed, 0U);
  EXPECT_NE(told.at(in("b/moved/deep/file")) & kRenamed, 0U);
  EXPECT_EQ(told.count(in("b/left")), 0U);
}

TEST_P(WatchedTreePast, TellsAFileThatCameFromElsewhereWithAnOldTime) {
  makeFolders(in("a"));
  writeFile(outside("old"), "text");
  const auto since = moment();
  moveItem(outside("old"), in("a/old"));
  const auto told = toldSince(since);
  EXPECT_NE(told.at(in("a/old")) & kRenamed, 0U);
}

TEST_P(WatchedTreePast, IsForgottenOnceItIsTold) {
  makeFolders(in("a"));
  const auto since = moment();
  writeFile(in("a/file"), "text");
  fsevents::Coalescer coalescer;
  fsevents::StreamStatus status;
  fsevents::WatchedTree tree(0, options(), coalescer, status);
  int error = 0;
  ASSERT_EQ(tree.attach(0, since, error), fsevents::WatchedTree::Attached::Standing);
  EXPECT_FALSE(coalescer.take().empty());
  makeFolders(in("later"));
  tree.processAll();
  std::vector<std::string> paths;
  for (auto& event : coalescer.take()) paths.push_back(std::move(event.path));
  EXPECT_THAT(paths, ::testing::ElementsAre(in("later")));
}

}  // namespace
}  // namespace kestrine::test
