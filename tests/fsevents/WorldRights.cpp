#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/WorldTest.h"

// Folders that the user may not read, or not enter, and that change their minds. As an ordinary user, who runs into them.

namespace kestrine::test {
namespace {

class WorldRights : public WorldTest {
 protected:
  void run(const std::function<void()>& body) {
    inMountNamespace(
        [&] {
          makeFolders(in("closed/inner/deep"));
          makeFolders(in("open"));
          body();
        },
        Rights::OfAnOrdinaryUser);
  }
  static bool isCovered(WatchedStream& stream, const std::string& path) {
    return stream.waitUntil([&](const std::vector<FSEvent>& events) {
      return std::any_of(events.begin(), events.end(), [&](const FSEvent& event) { return coversPath(event, path); });
    });
  }
  static bool isListed(WatchedStream& stream, const std::string& path) {
    const auto paths = listed(stream, "unreadable");
    return std::find(paths.begin(), paths.end(), path) != paths.end();
  }
  // Everything below is watched, and nothing is said to be missing any more.
  void expectAllIsWell(WatchedStream& stream, const std::vector<std::string>& folders) {
    EXPECT_TRUE(eventually([&] { return listed(stream, "unreadable").empty(); })) << stream.stream().status().description();
    EXPECT_TRUE(marksAreThoseOf(stream, {root_}));
    stream.flush();
    stream.clear();
    for (const auto& folder : folders) EXPECT_TRUE(isWatched(stream, folder, "afterwards"));
    EXPECT_TRUE(nothingIsLost(stream));
  }
};
KESTRINE_PER_SOURCE(WorldRights);

TEST_P(WorldRights, MissingAtTheStartAskForARescanOnce) {
  run([this] {
    setMode(in("closed"), 0);
    const auto stream = watchRoot();
    EXPECT_TRUE(stream->waitFor(in("closed"), kMustScan)) << stream->describe();
    EXPECT_TRUE(isListed(*stream, in("closed"))) << stream->stream().status().description();
    EXPECT_TRUE(isWatched(*stream, in("open"), "file"));
    setMode(in("closed"), 0755);
    EXPECT_TRUE(eventually([&] { return listed(*stream, "unreadable").empty(); }));
    EXPECT_EQ(told(*stream, in("closed"), kMustScan), 1U) << stream->describe();
    expectAllIsWell(*stream, {in("closed"), in("closed/inner"), in("closed/inner/deep")});
  });
}

TEST_P(WorldRights, ToEnterAreMissedWhereReadingIsAllowed) {
  run([this] {
    setMode(in("closed"), 0400);
    const auto stream = watchRoot();
    EXPECT_TRUE(isCovered(*stream, in("closed/inner"))) << stream->describe();
    EXPECT_FALSE(listed(*stream, "unreadable").empty());
    setMode(in("closed"), 0755);
    expectAllIsWell(*stream, {in("closed"), in("closed/inner"), in("closed/inner/deep")});
  });
}

TEST_P(WorldRights, ToEnterThatAreReturnedAndTakenAgainStay) {
  run([this] {
    const auto stream = watchRoot();
    for (int turn = 0; turn < 10; ++turn) {
      for (const mode_t mode : {0400, 0, 0311, 0600, 0100}) setMode(in("closed"), mode);
      if (turn % 2 == 0) stream->flush();
      setMode(in("closed"), 0755);
    }
    expectAllIsWell(*stream, {in("closed"), in("closed/inner"), in("closed/inner/deep")});
  });
}

TEST_P(WorldRights, OfEachKindAreToldAndTakenUp) {
  run([this] {
    for (const mode_t mode : {0000, 0100, 0200, 0300, 0311, 0400, 0600}) {
      setMode(in("closed"), mode);
      const auto stream = watchRoot();
      // What may be read but not entered is a loss of each folder in it; what may not be read, of itself.
      EXPECT_TRUE(isCovered(*stream, in("closed/inner"))) << std::oct << mode << stream->describe();
      setMode(in("closed"), 0755);
      expectAllIsWell(*stream, {in("closed"), in("closed/inner/deep")});
      removeItem(in("closed/afterwards"));
      removeItem(in("closed/inner/deep/afterwards"));
    }
  });
}

TEST_P(WorldRights, MissingMeanwhileHideChangesThatAreToldAfterwards) {
  run([this] {
    // May be written to, but not read: what is made in it cannot be seen by the watch.
    setMode(in("closed"), 0311);
    const auto stream = watchRoot();
    ASSERT_TRUE(isCovered(*stream, in("closed"))) << stream->describe();
    stream->flush();
    stream->clear();
    writeFile(in("closed/unseen"), "text");
    makeFolders(in("closed/new/deep"));
    stream->flush();
    setMode(in("closed"), 0755);
    EXPECT_TRUE(isCovered(*stream, in("closed/unseen"))) << stream->describe();
    EXPECT_TRUE(isCovered(*stream, in("closed/new/deep"))) << stream->describe();
    expectAllIsWell(*stream, {in("closed/new/deep"), in("closed")});
  });
}

TEST_P(WorldRights, MissingInAFolderThatMovesInAreTold) {
  run([this] {
    makeFolders(outside("new/closed/inner"));
    setMode(outside("new/closed"), 0);
    const auto stream = watchRoot();
    moveItem(outside("new"), in("new"));
    EXPECT_TRUE(stream->waitFor(in("new/closed"), kMustScan)) << stream->describe();
    EXPECT_TRUE(isListed(*stream, in("new/closed")));
    moveItem(in("new"), in("open/newer"));
    EXPECT_TRUE(eventually([&] { return isListed(*stream, in("open/newer/closed")); })) << stream->stream().status().description();
    setMode(in("open/newer/closed"), 0755);
    expectAllIsWell(*stream, {in("open/newer/closed/inner"), in("open/newer/closed")});
  });
}

TEST_P(WorldRights, MissingForAFolderThatIsRemovedAreNoLossAnyMore) {
  run([this] {
    makeFolders(in("open/empty"));
    setMode(in("open/empty"), 0);
    const auto stream = watchRoot();
    ASSERT_TRUE(stream->waitFor(in("open/empty"), kMustScan)) << stream->describe();
    ASSERT_EQ(::rmdir(in("open/empty").c_str()), 0);
    EXPECT_TRUE(eventually([&] { return listed(*stream, "unreadable").empty(); }));
    makeFolders(in("open/empty/deep"));
    expectAllIsWell(*stream, {in("open/empty/deep")});
  });
}

TEST_P(WorldRights, MissingForAFolderThatIsRenamedAreMissingAtItsNewPlace) {
  run([this] {
    setMode(in("closed"), 0);
    const auto stream = watchRoot();
    ASSERT_TRUE(stream->waitFor(in("closed"), kMustScan)) << stream->describe();
    moveItem(in("closed"), in("moved"));
    stream->flush();
    EXPECT_TRUE(isListed(*stream, in("moved"))) << stream->stream().status().description();
    EXPECT_FALSE(isListed(*stream, in("closed"))) << stream->stream().status().description();
    setMode(in("moved"), 0755);
    expectAllIsWell(*stream, {in("moved"), in("moved/inner"), in("moved/inner/deep")});
  });
}

TEST_P(WorldRights, TakenFromAFolderThatIsRenamedThenLeaveItWatched) {
  run([this] {
    const auto stream = watchRoot();
    setMode(in("closed"), 0);
    stream->flush();
    moveItem(in("closed"), in("moved"));
    stream->flush();
    setMode(in("moved"), 0755);
    expectAllIsWell(*stream, {in("moved"), in("moved/inner"), in("moved/inner/deep")});
  });
}

TEST_P(WorldRights, MissingForAFolderThatMovesOutAreNoLossAnyMore) {
  run([this] {
    setMode(in("closed/inner"), 0);
    const auto stream = watchRoot();
    ASSERT_TRUE(stream->waitFor(in("closed/inner"), kMustScan)) << stream->describe();
    moveItem(in("closed"), outside("closed"));
    EXPECT_TRUE(eventually([&] { return listed(*stream, "unreadable").empty(); })) << stream->stream().status().description();
    expectAllIsWell(*stream, {in("open")});
  });
}

TEST_P(WorldRights, MissingForManyAreEachTakenUp) {
  run([this] {
    for (int i = 0; i < 200; ++i) {
      makeFolders(in("many/" + std::to_string(i) + "/inner"));
      setMode(in("many/" + std::to_string(i)), 0);
    }
    const auto stream = watchRoot();
    EXPECT_TRUE(eventually([&] {
      for (int i = 0; i < 200; ++i) {
        if (!stream->covers(in("many/" + std::to_string(i)))) return false;
      }
      return true;
    })) << stream->describe();
    for (int i = 0; i < 200; ++i) setMode(in("many/" + std::to_string(i)), 0755);
    expectAllIsWell(*stream, {in("many/0/inner"), in("many/199/inner"), in("many/77")});
  });
}

TEST_P(WorldRights, MissingForTheWatchedFolderAskForARescan) {
  run([this] {
    setMode(root_, 0);
    WatchedStream stream(GetParam(), {.paths = {root_}});
    ASSERT_TRUE(stream.started());
    EXPECT_TRUE(stream.waitFor(root_, kMustScan)) << stream.describe();
    setMode(root_, 0755);
    EXPECT_TRUE(eventually([&] { return listed(stream, "unreadable").empty(); }));
    expectAllIsWell(stream, {root_, in("closed/inner")});
  });
}

TEST_P(WorldRights, MissingForAFileSystemBelowAreAwaited) {
  run([this] {
    mountAt(in("open"), "tmpfs", "mode=0");
    const auto stream = watchRoot();
    EXPECT_TRUE(stream->waitFor(in("open"), kMustScan)) << stream->describe();
    EXPECT_TRUE(isListed(*stream, in("open"))) << stream->stream().status().description();
    EXPECT_TRUE(isWatched(*stream, in("closed/inner"), "file"));
    setMode(in("open"), 0755);
    makeFolders(in("open/deep"));
    expectAllIsWell(*stream, {in("open"), in("open/deep")});
  });
}

}  // namespace
}  // namespace kestrine::test
