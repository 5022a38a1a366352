#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/WorldTest.h"

// File systems that are mounted and unmounted below a watched path.

namespace kestrine::test {
namespace {

class WorldMounts : public WorldTest {
 protected:
  void SetUp() override {
    WorldTest::SetUp();
    if (IsSkipped()) return;
    makeFolders(in("mnt"));
    makeFolders(in("beside"));
  }
};
KESTRINE_PER_SOURCE(WorldMounts);

TEST_P(WorldMounts, AreToldAndWatched) {
  inMountNamespace([this] {
    const auto stream = watchRoot();
    mountAt(in("mnt"), "tmpfs");
    ASSERT_TRUE(stream->waitFor(in("mnt"), kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("mnt"), "file"));
    makeFolders(in("mnt/a/b"));
    EXPECT_TRUE(isWatched(*stream, in("mnt/a/b"), "file"));
    moveItem(in("mnt/a"), in("mnt/c"));
    EXPECT_TRUE(isWatched(*stream, in("mnt/c/b"), "again"));
    EXPECT_EQ(stream->flagsOf(in("mnt/c")) & (kRenamed | kIsFolder), kRenamed | kIsFolder) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("beside"), "file"));
    EXPECT_EQ(told(*stream, in("mnt"), kMount), 1U) << stream->describe();
    EXPECT_EQ(stream->allFlags() & kUnmount, 0U) << stream->describe();
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldMounts, AreToldByAFlush) {
  inMountNamespace([this] {
    const auto stream = watchRoot();
    for (int turn = 0; turn < 20; ++turn) {
      mountAt(in("mnt"), "tmpfs");
      stream->flush();
      EXPECT_EQ(told(*stream, in("mnt"), kMount), 1U) << turn << stream->describe();
      EXPECT_TRUE(isWatched(*stream, in("mnt"), "file"));
      unmountAt(in("mnt"));
      stream->flush();
      EXPECT_EQ(told(*stream, in("mnt"), kUnmount), 1U) << turn << stream->describe();
      stream->clear();
    }
  });
}

TEST_P(WorldMounts, WithContentsAreTheEventThatTellsThem) {
  inMountNamespace([this] {
    makeFolders(outside("full/a/b"));
    writeFile(outside("full/a/file"), "text");
    const auto stream = watchRoot();
    bindAt(in("mnt"), outside("full"));
    ASSERT_TRUE(stream->waitFor(in("mnt"), kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("mnt/a/b"), "new"));
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldMounts, ThatGoLeaveTheFolderUnderneathWatched) {
  inMountNamespace([this] {
    makeFolders(in("mnt/under/neath"));
    writeFile(in("mnt/old"), "text");
    const auto stream = watchRoot();
    mountAt(in("mnt"), "tmpfs");
    ASSERT_TRUE(stream->waitFor(in("mnt"), kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("mnt"), "above"));
    unmountAt(in("mnt"));
    ASSERT_TRUE(stream->waitFor(in("mnt"), kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("mnt"), "file"));
    EXPECT_TRUE(isWatched(*stream, in("mnt/under/neath"), "file"));
    appendFile(in("mnt/old"), "more");
    stream->flush();
    EXPECT_NE(stream->flagsOf(in("mnt/old")) & kModified, 0U) << stream->describe();
    EXPECT_EQ(told(*stream, in("mnt"), kUnmount), 1U) << stream->describe();
    EXPECT_TRUE(nothingIsLost(*stream));
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  });
}

TEST_P(WorldMounts, ThatStandAtTheStartAreWatched) {
  inMountNamespace([this] {
    mountAt(in("mnt"), "tmpfs");
    makeFolders(in("mnt/a/b"));
    const auto stream = watchRoot();
    EXPECT_TRUE(isWatched(*stream, in("mnt"), "file"));
    EXPECT_TRUE(isWatched(*stream, in("mnt/a/b"), "file"));
    EXPECT_EQ(stream->allFlags() & (kMount | kUnmount), 0U) << stream->describe();
    unmountAt(in("mnt"));
    ASSERT_TRUE(stream->waitFor(in("mnt"), kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("mnt"), "underneath"));
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldMounts, ComingAndGoingAreToldEachTime) {
  inMountNamespace([this] {
    const auto stream = watchRoot();
    for (int turn = 0; turn < 10; ++turn) {
      mountAt(in("mnt"), "tmpfs");
      ASSERT_TRUE(stream->waitFor(in("mnt"), kMount)) << stream->describe();
      EXPECT_TRUE(isWatched(*stream, in("mnt"), "file"));
      unmountAt(in("mnt"));
      ASSERT_TRUE(stream->waitFor(in("mnt"), kUnmount)) << stream->describe();
      EXPECT_TRUE(isWatched(*stream, in("mnt"), "turn" + std::to_string(turn)));
      EXPECT_EQ(told(*stream, in("mnt"), kMount), 1U) << stream->describe();
      EXPECT_EQ(told(*stream, in("mnt"), kUnmount), 1U) << stream->describe();
      EXPECT_TRUE(nothingIsLost(*stream));
      stream->clear();
    }
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  });
}

TEST_P(WorldMounts, OfFoldersFromElsewhereAreToldUnderTheWatchedPath) {
  inMountNamespace([this] {
    makeFolders(outside("x/deep"));
    const auto stream = watchRoot();
    bindAt(in("mnt"), outside("x"));
    ASSERT_TRUE(stream->waitFor(in("mnt"), kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("mnt/deep"), "here"));
    writeFile(outside("x/deep/there"), "text");
    stream->flush();
    EXPECT_NE(stream->flagsOf(in("mnt/deep/there")) & kCreated, 0U) << stream->describe();
    unmountAt(in("mnt"));
    ASSERT_TRUE(stream->waitFor(in("mnt"), kUnmount)) << stream->describe();
    stream->clear();
    writeFile(outside("x/deep/later"), "text");
    EXPECT_TRUE(isWatched(*stream, in("mnt"), "underneath"));
    EXPECT_FALSE(stream->tellsAtOrBelow(in("mnt/deep"))) << stream->describe();
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  });
}

TEST_P(WorldMounts, OfAWatchedFolderInASecondPlaceAreToldInBoth) {
  inMountNamespace([this] {
    makeFolders(in("a/deep"));
    const auto stream = watchRoot();
    bindAt(in("mnt"), in("a"));
    ASSERT_TRUE(stream->waitFor(in("mnt"), kMount)) << stream->describe();
    for (const auto* way : {"a", "mnt"}) {
      const std::string name = std::string("by-") + way;
      writeFile(in(way) + "/deep/" + name, "text");
      stream->flush();
      EXPECT_NE(stream->flagsOf(in("a/deep/") + name) & kCreated, 0U) << stream->describe();
      EXPECT_NE(stream->flagsOf(in("mnt/deep/") + name) & kCreated, 0U) << stream->describe();
    }
    unmountAt(in("mnt"));
    ASSERT_TRUE(stream->waitFor(in("mnt"), kUnmount)) << stream->describe();
    stream->clear();
    EXPECT_TRUE(isWatched(*stream, in("a/deep"), "after"));
    EXPECT_FALSE(stream->tellsAtOrBelow(in("mnt/deep"))) << stream->describe();
  });
}

TEST_P(WorldMounts, OfTheWatchedFolderWithinItselfEnd) {
  inMountNamespace([this] {
    const auto stream = watchRoot();
    bindAt(in("mnt"), root_);
    ASSERT_TRUE(stream->waitFor(in("mnt"), kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("beside"), "file"));
    EXPECT_NE(stream->flagsOf(in("mnt/beside/file")) & kCreated, 0U) << stream->describe();
    unmountAt(in("mnt"));
    ASSERT_TRUE(stream->waitFor(in("mnt"), kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("mnt"), "underneath"));
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  });
}

TEST_P(WorldMounts, HideWhatIsUnderneath) {
  inMountNamespace([this] {
    makeFolders(in("mnt/hidden"));
    makeFolder(outside("way"));
    bindAt(outside("way"), root_);
    const auto stream = watchRoot();
    mountAt(in("mnt"), "tmpfs");
    ASSERT_TRUE(stream->waitFor(in("mnt"), kMount)) << stream->describe();
    stream->clear();
    // Another way to the folder that is hidden: nothing of this happens at the watched path.
    writeFile(outside("way/mnt/hidden/file"), "text");
    writeFile(outside("way/mnt/file"), "text");
    EXPECT_TRUE(isWatched(*stream, in("beside"), "file"));
    EXPECT_FALSE(stream->tellsAtOrBelow(in("mnt"))) << stream->describe();
  });
}

TEST_P(WorldMounts, ElsewhereAreOfNoMatter) {
  inMountNamespace([this] {
    const auto stream = watchRoot();
    for (int turn = 0; turn < 20; ++turn) {
      mountAt(base_.path() + "/outside", "tmpfs");
      unmountAt(base_.path() + "/outside");
    }
    EXPECT_TRUE(isWatched(*stream, in("beside"), "file"));
    for (const auto& event : stream->events()) EXPECT_EQ(event.path, in("beside/file")) << describeEvent(event);
  });
}

TEST_P(WorldMounts, ThatOnlyChangeTheirOptionsAreNotToldOf) {
  inMountNamespace([this] {
    mountAt(in("mnt"), "tmpfs");
    const auto stream = watchRoot();
    for (const bool readOnly : {true, false}) {
      remountAt(in("mnt"), readOnly);
      EXPECT_TRUE(isWatched(*stream, in("beside"), readOnly ? "one" : "other"));
    }
    EXPECT_TRUE(isWatched(*stream, in("mnt"), "file"));
    EXPECT_EQ(stream->allFlags() & (kMount | kUnmount | kMustScan), 0U) << stream->describe();
  });
}

TEST_P(WorldMounts, InAnExcludedFolderAreOfNoMatter) {
  inMountNamespace([this] {
    makeFolders(in("skip/inner"));
    const auto stream = watch({.paths = {root_}, .exclusions = {in("skip")}});
    const auto before = foldersMarked(*stream);
    for (const auto* place : {"skip/inner", "skip"}) {
      mountAt(in(place), "tmpfs");
      writeFile(in(place) + "/file", "text");
    }
    EXPECT_TRUE(isWatched(*stream, in("beside"), "file"));
    EXPECT_FALSE(stream->tellsAtOrBelow(in("skip"))) << stream->describe();
    EXPECT_EQ(foldersMarked(*stream), before);
  });
}

}  // namespace
}  // namespace kestrine::test
