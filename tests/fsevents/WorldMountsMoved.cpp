#include <fcntl.h>
#include <sys/stat.h>

#include "platform/foundation/base/FileHandle.h"
#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/WorldTest.h"

// Mounts within mounts, over mounts, and below folders that move.

namespace kestrine::test {
namespace {

class WorldMountsMoved : public WorldTest {
 protected:
  void SetUp() override {
    WorldTest::SetUp();
    if (IsSkipped()) return;
    makeFolders(in("a/mnt"));
    makeFolders(in("beside"));
  }
};
KESTRINE_PER_SOURCE(WorldMountsMoved);

TEST_P(WorldMountsMoved, NestedAreEachToldAndWatched) {
  inMountNamespace([this] {
    const auto stream = watchRoot();
    mountAt(in("a/mnt"), "tmpfs");
    makeFolders(in("a/mnt/x/inner"));
    mountAt(in("a/mnt/x/inner"), "tmpfs");
    ASSERT_TRUE(stream->waitFor(in("a/mnt/x/inner"), kMount)) << stream->describe();
    ASSERT_TRUE(stream->waitFor(in("a/mnt"), kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("a/mnt/x/inner"), "file"));
    EXPECT_TRUE(isWatched(*stream, in("a/mnt/x"), "file"));
    unmountAt(in("a/mnt/x/inner"));
    ASSERT_TRUE(stream->waitFor(in("a/mnt/x/inner"), kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("a/mnt/x/inner"), "underneath"));
    EXPECT_EQ(stream->flagsOf(in("a/mnt")) & kUnmount, 0U) << stream->describe();
    unmountAt(in("a/mnt"));
    ASSERT_TRUE(stream->waitFor(in("a/mnt"), kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("a/mnt"), "underneath"));
    EXPECT_TRUE(nothingIsLost(*stream));
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  });
}

TEST_P(WorldMountsMoved, NestedMayGoTogether) {
  inMountNamespace([this] {
    mountAt(in("a/mnt"), "tmpfs");
    makeFolders(in("a/mnt/inner"));
    mountAt(in("a/mnt/inner"), "tmpfs");
    const auto stream = watchRoot();
    detachAt(in("a/mnt"));
    ASSERT_TRUE(stream->waitFor(in("a/mnt"), kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("a/mnt"), "underneath"));
    // What was mounted inside is covered by the one event above it or has one of its own, never one of being mounted.
    EXPECT_EQ(stream->allFlags() & kMount, 0U) << stream->describe();
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  });
}

TEST_P(WorldMountsMoved, OneOverAnotherAreWatchedInTheTopmost) {
  inMountNamespace([this] {
    const auto stream = watchRoot();
    const auto point = in("a/mnt");
    mountAt(point, "tmpfs");
    ASSERT_TRUE(stream->waitFor(point, kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, point, "lower"));
    stream->clear();
    mountAt(point, "tmpfs");
    ASSERT_TRUE(stream->waitFor(point, kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, point, "upper"));
    stream->clear();
    unmountAt(point);
    ASSERT_TRUE(stream->waitFor(point, kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, point, "lowerAgain"));
    stream->clear();
    unmountAt(point);
    ASSERT_TRUE(stream->waitFor(point, kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, point, "underneath"));
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldMountsMoved, OverAFolderAboveThemHideThem) {
  inMountNamespace([this] {
    mountAt(in("a/mnt"), "tmpfs");
    const auto stream = watchRoot();
    EXPECT_TRUE(isWatched(*stream, in("a/mnt"), "file"));
    const platform::FileHandle hidden(::open(in("a/mnt").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    mountAt(in("a"), "tmpfs");
    ASSERT_TRUE(stream->waitFor(in("a"), kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("a"), "above"));
    stream->clear();
    ASSERT_EQ(::mkdirat(hidden.fileDescriptor(), "unseen", 0755), 0);
    EXPECT_TRUE(isWatched(*stream, in("beside"), "file"));
    EXPECT_FALSE(stream->tellsAtOrBelow(in("a/mnt"))) << stream->describe();
    unmountAt(in("a"));
    ASSERT_TRUE(stream->waitFor(in("a"), kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("a/mnt"), "seenAgain"));
    EXPECT_TRUE(isWatched(*stream, in("a"), "seenAgain"));
  });
}

TEST_P(WorldMountsMoved, WithAFolderAboveThemAreToldUnderTheNewName) {
  inMountNamespace([this] {
    makeFolders(outside("a"));
    mountAt(in("a/mnt"), "tmpfs");
    makeFolders(in("a/mnt/deep"));
    const auto stream = watchRoot();
    std::string now = in("a");
    int turn = 0;
    for (const auto& next : {in("b"), in("beside/b"), in("a")}) {
      moveItem(now, next);
      now = next;
      stream->flush();
      const auto name = "file" + std::to_string(++turn);
      EXPECT_TRUE(isWatched(*stream, now + "/mnt/deep", name));
      EXPECT_TRUE(isWatched(*stream, now, name));
    }
    EXPECT_EQ(stream->flagsOf(in("b")) & (kRenamed | kIsFolder), kRenamed | kIsFolder) << stream->describe();
    // They are where they were: nothing was mounted or unmounted.
    EXPECT_EQ(stream->allFlags() & (kMount | kUnmount), 0U) << stream->describe();
    EXPECT_TRUE(nothingIsLost(*stream));
    unmountAt(in("a/mnt"));
    ASSERT_TRUE(stream->waitFor(in("a/mnt"), kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("a/mnt"), "underneath"));
  });
}

TEST_P(WorldMountsMoved, OutWithAFolderAboveThemFallSilent) {
  inMountNamespace([this] {
    mountAt(in("a/mnt"), "tmpfs");
    const auto stream = watchRoot();
    moveItem(in("a"), outside("a"));
    stream->flush();
    stream->clear();
    writeFile(outside("a/mnt/file"), "text");
    EXPECT_TRUE(isWatched(*stream, in("beside"), "file"));
    for (const auto& event : stream->events()) EXPECT_EQ(event.path, in("beside/file")) << describeEvent(event);
    moveItem(outside("a"), in("back"));
    stream->flush();
    EXPECT_TRUE(isWatched(*stream, in("back/mnt"), "again"));
    EXPECT_TRUE(isWatched(*stream, in("back"), "again"));
    unmountAt(in("back/mnt"));
    EXPECT_TRUE(stream->waitFor(in("back/mnt"), kUnmount)) << stream->describe();
  });
}

TEST_P(WorldMountsMoved, ToAnotherPointAreToldAtBoth) {
  inMountNamespace([this] {
    makeFolders(in("b/mnt"));
    mountAt(in("a/mnt"), "tmpfs");
    makeFolders(in("a/mnt/deep"));
    const auto stream = watchRoot();
    moveMount(in("a/mnt"), in("b/mnt"));
    ASSERT_TRUE(stream->waitFor(in("a/mnt"), kUnmount)) << stream->describe();
    ASSERT_TRUE(stream->waitFor(in("b/mnt"), kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("b/mnt/deep"), "file"));
    EXPECT_TRUE(isWatched(*stream, in("a/mnt"), "underneath"));
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldMountsMoved, EndWhenTheirPointIsRemovedInAnotherNamespace) {
  inMountNamespace([this] {
    mountAt(in("a/mnt"), "tmpfs");
    const auto stream = watchRoot();
    EXPECT_TRUE(isWatched(*stream, in("a/mnt"), "file"));
    inFurtherNamespace("umount '" + in("a/mnt") + "' && rmdir '" + in("a/mnt") + "'");
    ASSERT_TRUE(stream->waitFor(in("a/mnt"), kRemoved)) << stream->describe();
    ASSERT_TRUE(stream->waitFor(in("a/mnt"), kUnmount)) << stream->describe();
    makeFolders(in("a/mnt"));
    EXPECT_TRUE(isWatched(*stream, in("a/mnt"), "again"));
  });
}

TEST_P(WorldMountsMoved, BelowTheWatchedPathAreNeverKeptBusy) {
  inMountNamespace([this] {
    const auto stream = watchRoot();
    for (int turn = 0; turn < 50; ++turn) {
      mountAt(in("a/mnt"), "tmpfs");
      for (int i = 0; i < 50; ++i) {
        makeFolders(in("a/mnt/" + std::to_string(i) + "/deep"));
        writeFile(in("a/mnt/" + std::to_string(i) + "/deep/file"), "text");
      }
      const bool flushed = turn % 2 == 0;
      if (flushed) stream->flush();
      EXPECT_EQ(tryToUnmount(in("a/mnt"), flushed), "") << turn;
    }
    stream->flush();
    EXPECT_NE(stream->flagsOf(in("a/mnt")) & kUnmount, 0U) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("a/mnt"), "underneath"));
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldMountsMoved, OfAFileAreTold) {
  inMountNamespace([this] {
    writeFile(in("a/file"), "text");
    writeFile(outside("other"), "text");
    const auto stream = watchRoot();
    bindAt(in("a/file"), outside("other"));
    ASSERT_TRUE(stream->waitFor(in("a/file"), kMount)) << stream->describe();
    stream->clear();
    appendFile(in("a/file"), "more");
    stream->flush();
    EXPECT_NE(stream->flagsOf(in("a/file")) & kModified, 0U) << stream->describe();
    unmountAt(in("a/file"));
    ASSERT_TRUE(stream->waitFor(in("a/file"), kUnmount)) << stream->describe();
    stream->clear();
    appendFile(in("a/file"), "more");
    stream->flush();
    EXPECT_NE(stream->flagsOf(in("a/file")) & kModified, 0U) << stream->describe();
  });
}

}  // namespace
}  // namespace kestrine::test
