#include "platform/fsevents/tree/WatchedTree.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "tests/fsevents/support/KernelMarks.h"
#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/StreamTest.h"

// The tree by itself, so that a change can be made between its reading the queue and its applying what it read.

namespace kestrine::test {
namespace {

namespace fsevents = platform::fsevents;

std::uint64_t inodeNumberOf(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

class WatchedTreeTest : public StreamTest {
 protected:
  [[nodiscard]] fsevents::TreeOptions options() const {
    fsevents::TreeOptions made;
    made.reportedPath = made.openPath = root_;
    made.fileEvents = true;
    made.source = GetParam();
    return made;
  }
  // Applies what there is until nothing has come for a while.
  void rest(fsevents::WatchedTree& tree) {
    for (int i = 0; i < 10; ++i) {
      tree.processAll();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  std::vector<std::string> told() {
    std::vector<std::string> paths;
    for (auto& event : coalescer_.take()) paths.push_back(std::move(event.path));
    return paths;
  }
  // The paths that are told to have recovered since the last call.
  std::vector<std::string> recovered() {
    std::vector<std::string> paths;
    for (auto& notice : status_.losses().takeNotices()) {
      if (!notice.begins) paths.push_back(std::move(notice.path));
    }
    return paths;
  }
  fsevents::Coalescer coalescer_;
  fsevents::StreamStatus status_;
};
KESTRINE_PER_SOURCE(WatchedTreeTest);

// A listing finds the folder in the last of its places; then the queue tells how it came there, while the place itself moves on.
TEST_P(WatchedTreeTest, KeepsAFolderThatWasFoundAheadOfTheQueueInAPlaceThatMoves) {
  const int large = longOrShort(5000, 1500);
  for (int round = 0; round < 3; ++round) {
    const auto top = in(std::to_string(round));
    makeFolders(top + "/other");
    fsevents::WatchedTree tree(0, options(), coalescer_, status_);
    int error = 0;
    ASSERT_EQ(tree.attach(0, std::nullopt, error), fsevents::WatchedTree::Attached::Standing);
    makeFolders(top + "/new");
    makeFolders(top + "/place/within");
    // What keeps the walk busy while the place moves.
    for (int folder = 0; folder < 4; ++folder) {
      const auto name = top + "/place/" + std::to_string(round * 4 + folder);
      makeFolder(name);
      for (int i = 0; i < large; ++i) writeFile(name + "/" + std::to_string(i), "");
    }
    moveItem(top + "/new", top + "/once");
    moveItem(top + "/once", top + "/place/within/twice");
    const auto inode = inodeNumberOf(top + "/place/within/twice");
    std::thread mover([&] {
      const auto end = std::chrono::steady_clock::now() + kPatience;
      for (bool marked = false; !marked && std::chrono::steady_clock::now() < end;) {
        const auto marks = kernelMarks();
        marked = std::find(marks.begin(), marks.end(), inode) != marks.end();
      }
      moveItem(top + "/place/within", top + "/other/taken");
    });
    tree.drain();
    static_cast<void>(tree.process());
    mover.join();
    rest(tree);
    told();
    writeFile(top + "/other/taken/twice/file", "text");
    rest(tree);
    EXPECT_THAT(told(), ::testing::Contains(top + "/other/taken/twice/file")) << "round " << round;
  }
}

// Before Linux 6.8 the table of mounts may look the same afterwards.
TEST_P(WatchedTreeTest, WhoseFileSystemIsReplacedIsReadAgain) {
  if (GetParam() == platform::FSEventStreamSource::Fanotify)
    GTEST_SKIP() << "left out: the end of a file system, because fanotify does not tell it";
  inMountNamespace([this] {
    makeFolder(in("disk"));
    mountAt(in("disk"), "tmpfs");
    makeFolders(in("disk/former"));
    auto given = options();
    given.reportedPath = given.openPath = in("disk");
    fsevents::WatchedTree tree(0, given, coalescer_, status_);
    int error = 0;
    ASSERT_EQ(tree.attach(0, std::nullopt, error), fsevents::WatchedTree::Attached::Standing);
    unmountAt(in("disk"));
    mountAt(in("disk"), "tmpfs");
    makeFolders(in("disk/new/deep"));
    std::vector<std::string> paths;
    EXPECT_TRUE(eventually([&] {
      rest(tree);
      std::ranges::move(told(), std::back_inserter(paths));
      return std::ranges::find(paths, in("disk")) != paths.end();
    }));
    EXPECT_FALSE(status_.losses().any());
    writeFile(in("disk/new/deep/file"), "text");
    rest(tree);
    EXPECT_THAT(told(), ::testing::ElementsAre(in("disk/new/deep/file")));
  });
}

// A thread that was left behind in a file system comes back when another has long taken its place.
TEST_P(WatchedTreeTest, ThatWasLeftBehindLeavesLossesAlone) {
  const auto losses = [&](bool leftBehind) {
    auto given = options();
    given.pulse->leftBehind = leftBehind;
    {
      fsevents::WatchedTree tree(0, given, coalescer_, status_);
      int error = 0;
      EXPECT_EQ(tree.attach(0, std::nullopt, error), fsevents::WatchedTree::Attached::Standing);
      status_.losses().begin(fsevents::LossKind::InputOutput, root_, "another's", "");
    }
    return status_.losses().any();
  };
  EXPECT_TRUE(losses(true));
  EXPECT_FALSE(losses(false));
}

// Whoever was said to hang may have been stopped since, and then nobody else is left to say that it does not any more.
TEST_P(WatchedTreeTest, ThatIsAttachedEndsAHangOfItsPathAndOfNoOther) {
  const auto beside = base_ / "outside";
  for (const auto& path : {root_, beside}) status_.losses().begin(fsevents::LossKind::Hang, path, "the file system does not answer", "");
  EXPECT_THAT(recovered(), ::testing::IsEmpty());
  fsevents::WatchedTree tree(0, options(), coalescer_, status_);
  int error = 0;
  ASSERT_EQ(tree.attach(0, std::nullopt, error), fsevents::WatchedTree::Attached::Standing);
  EXPECT_THAT(recovered(), ::testing::ElementsAre(root_));
  EXPECT_TRUE(status_.losses().end(fsevents::LossKind::Hang, beside)) << "nobody has seen it answer";
}

TEST_P(WatchedTreeTest, ThatFindsNothingAtItsPathEndsAHangOfItToo) {
  status_.losses().begin(fsevents::LossKind::Hang, root_, "the file system does not answer", "");
  removeItem(root_);
  fsevents::WatchedTree tree(0, options(), coalescer_, status_);
  int error = 0;
  ASSERT_EQ(tree.attach(0, std::nullopt, error), fsevents::WatchedTree::Attached::Missing);
  EXPECT_EQ(error, ENOENT);
  EXPECT_THAT(recovered(), ::testing::ElementsAre(root_));
}

}  // namespace
}  // namespace kestrine::test
