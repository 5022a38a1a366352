#include <fcntl.h>
#include <sys/stat.h>

#include "platform/foundation/base/FileHandle.h"
#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/WorldTest.h"

// File systems that are mounted and unmounted at a watched path, or above it.

namespace kestrine::test {
namespace {

class WorldMountedPath : public WorldTest {
 protected:
  std::unique_ptr<WatchedStream> watchWithRoot() { return watch({.paths = {root_}, .flags = kFileEvents | kWatchRoot}); }
};
KESTRINE_PER_SOURCE(WorldMountedPath);

TEST_P(WorldMountedPath, IsWatchedInWhatIsMountedLater) {
  inMountNamespace([this] {
    const auto stream = watchRoot();
    mountAt(root_, "tmpfs");
    ASSERT_TRUE(stream->waitFor(root_, kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, root_, "file"));
    makeFolders(in("a/b"));
    EXPECT_TRUE(isWatched(*stream, in("a/b"), "file"));
    EXPECT_EQ(stream->allFlags() & kRootChanged, 0U) << stream->describe();
    EXPECT_TRUE(nothingIsLost(*stream));
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  });
}

TEST_P(WorldMountedPath, IsToldToHaveChangedWithWatchRoot) {
  inMountNamespace([this] {
    const auto stream = watchWithRoot();
    mountAt(root_, "tmpfs");
    EXPECT_TRUE(stream->waitFor(root_, kMount | kRootChanged)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, root_, "file"));
    stream->clear();
    unmountAt(root_);
    EXPECT_TRUE(stream->waitFor(root_, kUnmount | kRootChanged)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, root_, "file"));
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldMountedPath, IsWatchedInWhatTheUnmountUncovers) {
  inMountNamespace([this] {
    makeFolders(in("under/neath"));
    mountAt(root_, "tmpfs");
    const auto stream = watchRoot();
    EXPECT_TRUE(isWatched(*stream, root_, "above"));
    unmountAt(root_);
    ASSERT_TRUE(stream->waitFor(root_, kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("under/neath"), "file"));
    EXPECT_TRUE(nothingIsLost(*stream));
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  });
}

TEST_P(WorldMountedPath, IsWatchedThroughManyMounts) {
  inMountNamespace([this] {
    const auto stream = watchWithRoot();
    for (int turn = 0; turn < 10; ++turn) {
      mountAt(root_, "tmpfs");
      ASSERT_TRUE(stream->waitFor(root_, kMount)) << turn << stream->describe();
      EXPECT_TRUE(isWatched(*stream, root_, "file"));
      unmountAt(root_);
      ASSERT_TRUE(stream->waitFor(root_, kUnmount)) << turn << stream->describe();
      EXPECT_TRUE(isWatched(*stream, root_, "turn" + std::to_string(turn)));
      stream->clear();
    }
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  });
}

TEST_P(WorldMountedPath, MayComeWithAFileSystemThatIsMountedAboveIt) {
  inMountNamespace([this] {
    for (const platform::FSEventStreamCreateFlags flags : {kFileEvents, kFileEvents | kWatchRoot}) {
      const bool watchesRoot = flags != kFileEvents;
      const auto stick = base_ / (watchesRoot ? "media/one" : "media/other");
      const auto data = stick + "/data";
      makeFolders(stick);
      makeFolders(outside("stick/data/sub"));
      const auto stream = watch({.paths = {data}, .flags = flags});
      for (int turn = 0; turn < 3; ++turn) {
        bindAt(stick, outside("stick"));
        ASSERT_TRUE(stream->waitUntil([&](const auto& events) { return !events.empty(); })) << stream->describe();
        EXPECT_TRUE(isWatched(*stream, data + "/sub", (watchesRoot ? "in" : "on") + std::to_string(turn)));
        EXPECT_EQ((stream->flagsOf(data) & kRootChanged) != 0, watchesRoot) << stream->describe();
        stream->clear();
        unmountAt(stick);
        ASSERT_TRUE(stream->waitUntil([&](const auto& events) { return !events.empty(); })) << stream->describe();
        EXPECT_TRUE(stream->tells(data)) << stream->describe();
        EXPECT_EQ((stream->flagsOf(data) & kRootChanged) != 0, watchesRoot) << stream->describe();
        EXPECT_FALSE(stream->tellsBelow(data)) << stream->describe();
        stream->clear();
      }
    }
  });
}

TEST_P(WorldMountedPath, IsNeverKeptBusy) {
  inMountNamespace([this] {
    // The file system itself, and a folder below its root, whose way leads through it.
    for (const auto& watched : {root_, in("a/b")}) {
      for (int turn = 0; turn < 30; ++turn) {
        mountAt(root_, "tmpfs");
        makeFolders(in("a/b/c"));
        const auto stream = watch({.paths = {watched}, .flags = kFileEvents | kWatchRoot});
        for (int i = 0; i < 50; ++i) {
          makeFolders(in("a/b/c/" + std::to_string(i)));
          writeFile(in("a/b/c/" + std::to_string(i) + "/file"), "text");
        }
        const bool flushed = turn % 2 == 0;
        if (flushed) stream->flush();
        EXPECT_EQ(tryToUnmount(root_, flushed), "") << "while " << watched << " is watched";
        EXPECT_TRUE(stream->waitFor(watched, 0)) << stream->describe();
      }
    }
  });
}

TEST_P(WorldMountedPath, MayBeCoveredTwice) {
  inMountNamespace([this] {
    const auto stream = watchRoot();
    mountAt(root_, "tmpfs");
    ASSERT_TRUE(stream->waitFor(root_, kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, root_, "first"));
    stream->clear();
    mountAt(root_, "tmpfs");
    ASSERT_TRUE(stream->waitFor(root_, kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, root_, "second"));
    stream->clear();
    unmountAt(root_);
    ASSERT_TRUE(stream->waitFor(root_, kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, root_, "firstAgain"));
    stream->clear();
    unmountAt(root_);
    ASSERT_TRUE(stream->waitFor(root_, kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, root_, "underneath"));
    EXPECT_TRUE(nothingIsLost(*stream));
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  });
}

TEST_P(WorldMountedPath, ChangesNothingForOtherWatchedPaths) {
  inMountNamespace([this] {
    const auto other = base_ / "outside";
    makeFolders(outside("sub"));
    const auto stream = watch({.paths = {root_, other}, .flags = kFileEvents | kWatchRoot});
    for (int turn = 0; turn < 5; ++turn) {
      mountAt(root_, "tmpfs");
      EXPECT_TRUE(isWatched(*stream, outside("sub"), "one" + std::to_string(turn)));
      ASSERT_TRUE(stream->waitFor(root_, kMount)) << stream->describe();
      unmountAt(root_);
      EXPECT_TRUE(isWatched(*stream, outside("sub"), "two" + std::to_string(turn)));
      ASSERT_TRUE(stream->waitFor(root_, kUnmount)) << stream->describe();
      stream->clear();
    }
    EXPECT_EQ(stream->flagsOf(other), 0U) << stream->describe();
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldMountedPath, ReachedThroughALinkIsWatchedInWhatIsMountedLater) {
  inMountNamespace([this] {
    const auto link = base_ / "link";
    makeLink(root_, link);
    const auto stream = watch({.paths = {link}, .flags = kFileEvents | kWatchRoot});
    mountAt(root_, "tmpfs");
    ASSERT_TRUE(stream->waitFor(link, kMount | kRootChanged)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, link, "file"));
    unmountAt(root_);
    ASSERT_TRUE(stream->waitFor(link, kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, link, "underneath"));
  });
}

TEST_P(WorldMountedPath, LetGoWhileSomebodyIsInsideIsUnmountedAllTheSame) {
  inMountNamespace([this] {
    mountAt(root_, "tmpfs");
    makeFolder(in("held"));
    const auto stream = watchRoot();
    {
      const platform::FileHandle held(::open(in("held").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      detachAt(root_);
      ASSERT_TRUE(stream->waitFor(root_, kUnmount)) << stream->describe();
      stream->clear();
      // Still there for whoever is inside, and of no path any more.
      ASSERT_EQ(::mkdirat(held.fileDescriptor(), "later", 0755), 0);
      EXPECT_TRUE(isWatched(*stream, root_, "underneath"));
      EXPECT_FALSE(stream->tellsAtOrBelow(in("held"))) << stream->describe();
    }
  });
}

}  // namespace
}  // namespace kestrine::test
