#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/TestFuse.h"
#include "tests/fsevents/support/WorldTest.h"

// File systems that answer errors, and disks that do for a while.

namespace kestrine::test {
namespace {

class WorldDisks : public WorldTest {
 protected:
  // `folders` below the file system's root; `body` runs while it is mounted at "disk", which lies below the watched path.
  void run(const std::vector<std::string>& folders, const std::function<void(TestFuse&)>& body) {
    inMountNamespace([&] {
      if (const auto why = TestFuse::whyNot(); !why.empty()) GTEST_SKIP() << "left out: failing disks, because there is " << why;
      for (const auto& folder : folders) makeFolders(behind(folder));
      makeFolders(in("beside"));
      makeFolders(in("disk"));
      TestFuse disk(behind(""), in("disk"));
      body(disk);
    });
  }
  [[nodiscard]] std::string behind(const std::string& name) const { return base_.path() + "/backing/" + name; }
  static bool isLost(WatchedStream& stream, const std::string& path) {
    const auto paths = listed(stream, "losses");
    return std::find(paths.begin(), paths.end(), path) != paths.end();
  }
  // Whether the status says of a loss at or below this path that it lasts.
  static bool isLasting(WatchedStream& stream, const std::string& path) {
    const auto losses = stream.stream().status().objectForKey("losses");
    for (std::size_t i = 0; i < losses.count(); ++i) {
      const auto loss = losses.objectAtIndex(i);
      if (isAtOrBelow(loss.objectForKey("path").stringValue(), path) && loss.objectForKey("lasting").boolValue()) return true;
    }
    return false;
  }
  static void wait(std::chrono::milliseconds time) { std::this_thread::sleep_for(time); }
};
KESTRINE_PER_SOURCE(WorldDisks);

TEST_P(WorldDisks, ThatFailAreToldOnceShownAndRecover) {
  run({"ok", "bad/sub/deep"}, [this](TestFuse& disk) {
    for (const int error : {EIO, ENOTCONN, ESTALE, EUCLEAN}) {
      disk.fail("opendir", "bad", error);
      const auto stream = watchRoot();
      ASSERT_TRUE(stream->waitFor(in("disk/bad"), kMustScan)) << error << stream->describe();
      EXPECT_TRUE(isLost(*stream, in("disk/bad"))) << stream->stream().status().description();
      EXPECT_TRUE(isLasting(*stream, in("disk/bad"))) << stream->stream().status().description();
      const auto name = std::to_string(error);
      EXPECT_TRUE(isWatched(*stream, in("disk/ok"), name));
      EXPECT_TRUE(isWatched(*stream, in("beside"), name));
      EXPECT_EQ(told(*stream, in("disk/bad"), kMustScan), 1U) << stream->describe();
      disk.heal();
      EXPECT_TRUE(eventually([&] { return !isLasting(*stream, in("disk")); })) << stream->stream().status().description();
      // What happened meanwhile nobody knows, which is told when it is over.
      stream->flush();
      EXPECT_EQ(told(*stream, in("disk/bad"), kMustScan), 2U) << stream->describe();
      stream->clear();
      EXPECT_TRUE(isWatched(*stream, in("disk/bad"), name));
      EXPECT_TRUE(isWatched(*stream, in("disk/bad/sub/deep"), name));
      EXPECT_TRUE(nothingIsLost(*stream));
    }
  });
}

TEST_P(WorldDisks, ThatFailAreAskedEverLessOften) {
  run({"ok", "bad/sub"}, [this](TestFuse& disk) {
    disk.fail("any", "bad", EIO);
    const auto stream = watchRoot();
    ASSERT_TRUE(stream->waitFor(in("disk/bad"), kMustScan)) << stream->describe();
    const auto asked = [&] { return disk.asked("opendir", "bad") + disk.asked("lookup", "bad"); };
    // Two equal times: in the second there are fewer questions, and never many.
    const auto begin = asked();
    wait(std::chrono::seconds(6));
    const auto middle = asked();
    wait(std::chrono::seconds(6));
    const auto end = asked();
    EXPECT_LE(middle - begin, 24U);
    EXPECT_LE(end - middle, (middle - begin) / 2 + 2);
    EXPECT_TRUE(isWatched(*stream, in("disk/ok"), "file"));
    EXPECT_EQ(told(*stream, in("disk/bad"), kMustScan), 1U) << stream->describe();
  });
}

TEST_P(WorldDisks, ThatFailDoNotHoldUpIdentifiers) {
  run({"ok", "bad"}, [this](TestFuse& disk) {
    const auto timeOf = [](platform::FSEventStreamEventId id) { return id >> 22U; };  // milliseconds
    disk.fail("any", "bad", EIO);
    const auto stream = watchRoot();
    ASSERT_TRUE(stream->waitFor(in("disk/bad"), kMustScan)) << stream->describe();
    stream->flush();
    const auto before = timeOf(platform::FSEventsGetCurrentEventId());
    EXPECT_TRUE(eventually([&] { return timeOf(platform::FSEventsGetCurrentEventId()) > before + 3000; }, std::chrono::seconds(60)));
    writeFile(in("beside/file"), "text");
    stream->flush();
    const auto events = stream->eventsOf(in("beside/file"));
    ASSERT_FALSE(events.empty()) << stream->describe();
    EXPECT_GT(timeOf(events.back().id), before + 2000);
  });
}

TEST_P(WorldDisks, ThatFailHalfWayThroughAListingAreToldAndRead) {
  std::vector<std::string> folders;
  for (int i = 0; i < 100; ++i) folders.push_back("many/" + std::to_string(i) + "/sub");
  run(folders, [this](TestFuse& disk) {
    disk.fail("readdirRest", "many", EIO);
    const auto stream = watchRoot();
    ASSERT_TRUE(stream->waitFor(in("disk/many"), kMustScan)) << stream->describe();
    EXPECT_TRUE(isLost(*stream, in("disk/many"))) << stream->stream().status().description();
    disk.heal();
    EXPECT_TRUE(eventually([&] { return !isLasting(*stream, in("disk")); })) << stream->stream().status().description();
    stream->flush();
    stream->clear();
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(isWatched(*stream, in("disk/many/" + std::to_string(i) + "/sub"), "file"));
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldDisks, ThatFailForANewFolderAreToldAndRead) {
  run({"ok"}, [this](TestFuse& disk) {
    const auto stream = watchRoot();
    disk.fail("opendir", "ok/new", EIO);
    makeFolders(in("disk/ok/new"));
    makeFolders(in("disk/ok/new/deep"));
    EXPECT_TRUE(stream->waitFor(in("disk/ok/new"), kMustScan)) << stream->describe();
    disk.heal();
    EXPECT_TRUE(eventually([&] { return !isLasting(*stream, in("disk")); })) << stream->stream().status().description();
    stream->flush();  // the walk is over then
    EXPECT_TRUE(isWatched(*stream, in("disk/ok/new/deep"), "file"));
  });
}

TEST_P(WorldDisks, ThatFailAtAFolderWhichGoesHaveLostNothingMore) {
  run({"ok/bad"}, [this](TestFuse& disk) {
    disk.fail("opendir", "ok/bad", EIO);
    const auto stream = watchRoot();
    ASSERT_TRUE(stream->waitFor(in("disk/ok/bad"), kMustScan)) << stream->describe();
    ASSERT_EQ(::rmdir(in("disk/ok/bad").c_str()), 0);
    EXPECT_TRUE(eventually([&] { return !isLasting(*stream, in("disk")); })) << stream->stream().status().description();
    stream->flush();  // the walk is over then
    EXPECT_TRUE(isWatched(*stream, in("disk/ok"), "file"));
  });
}

TEST_P(WorldDisks, ThatFailAtAFolderWhichIsRenamedAreReadAtItsNewPlace) {
  run({"ok/bad/sub/deep", "other"}, [this](TestFuse& disk) {
    for (const auto* place : {"ok/bad", "ok/moved", "other/moved"}) disk.fail("opendir", place, EIO);
    const auto stream = watchRoot();
    ASSERT_TRUE(stream->waitFor(in("disk/ok/bad"), kMustScan)) << stream->describe();
    // Within its folder, and out of it.
    moveItem(in("disk/ok/bad"), in("disk/ok/moved"));
    stream->flush();
    EXPECT_TRUE(isLasting(*stream, in("disk/ok/moved"))) << stream->stream().status().description();
    moveItem(in("disk/ok/moved"), in("disk/other/moved"));
    stream->flush();
    EXPECT_TRUE(isLasting(*stream, in("disk/other/moved"))) << stream->stream().status().description();
    EXPECT_FALSE(isLasting(*stream, in("disk/ok"))) << stream->stream().status().description();
    stream->clear();
    disk.heal();
    EXPECT_TRUE(eventually([&] { return !isLasting(*stream, in("disk")); })) << stream->stream().status().description();
    stream->flush();
    EXPECT_EQ(told(*stream, in("disk/other/moved"), kMustScan), 1U) << stream->describe();
    stream->clear();
    EXPECT_TRUE(isWatched(*stream, in("disk/other/moved"), "file"));
    EXPECT_TRUE(isWatched(*stream, in("disk/other/moved/sub/deep"), "file"));
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldDisks, ThatFailAtTheirRootAreToldThere) {
  run({"ok"}, [this](TestFuse& disk) {
    disk.fail("opendir", "", EIO);
    const auto stream = watchRoot();
    EXPECT_TRUE(stream->waitFor(in("disk"), kMustScan)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("beside"), "file"));
    disk.heal();
    EXPECT_TRUE(eventually([&] { return !isLasting(*stream, in("disk")); })) << stream->stream().status().description();
    stream->flush();  // the walk is over then
    EXPECT_TRUE(isWatched(*stream, in("disk/ok"), "file"));
  });
}

TEST_P(WorldDisks, WhoseServerDiesAreToldAndWatchedAgainWhenItIsBack) {
  run({"ok/deep"}, [this](TestFuse& disk) {
    const auto stream = watchRoot();
    EXPECT_TRUE(isWatched(*stream, in("disk/ok/deep"), "before"));
    disk.die();
    EXPECT_TRUE(stream->waitUntil([&](const auto& events) {
      return std::any_of(events.begin(), events.end(),
                         [&](const FSEvent& event) { return (event.flags & kMustScan) != 0 && isAtOrBelow(event.path, in("disk")); });
    })) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("beside"), "file"));
    EXPECT_TRUE(isLasting(*stream, in("disk"))) << stream->stream().status().description();
    stream->clear();
    disk.leave();
    ASSERT_TRUE(stream->waitFor(in("disk"), kUnmount)) << stream->describe();
    disk.comeBack();
    EXPECT_TRUE(stream->waitFor(in("disk"), kMount)) << stream->describe();
    EXPECT_TRUE(eventually([&] { return !isLasting(*stream, in("disk")); })) << stream->stream().status().description();
    stream->flush();  // the walk is over then
    EXPECT_TRUE(isWatched(*stream, in("disk/ok/deep"), "after"));
  });
}

// Before Linux 6.8 nothing tells such a one from what took its place between two looks at the table of mounts: it may hang, so it has no
// witness. It is read again as one that failed for a while.
TEST_P(WorldDisks, WhoseServerIsReplacedAtOnceAreReadAgain) {
  run({"ok/deep"}, [this](TestFuse& disk) {
    const auto stream = watchRoot();
    EXPECT_TRUE(isWatched(*stream, in("disk/ok/deep"), "before"));
    stream->clear();
    disk.comeBack();
    writeFile(behind("ok/deep/after"), "text");
    EXPECT_TRUE(eventually([&] { return stream->covers(in("disk/ok/deep/after")); })) << stream->describe();
    EXPECT_TRUE(eventually([&] { return !isLasting(*stream, in("disk")); })) << stream->stream().status().description();
    stream->flush();
    EXPECT_TRUE(isPolled(*stream, in("disk/ok/deep"), "later", behind("ok/deep")));
    EXPECT_TRUE(isWatched(*stream, in("disk/ok/deep"), "at last"));
  });
}

TEST_P(WorldDisks, WithOtherWritersAreToldOf) {
  run({"ok/deep"}, [this](TestFuse&) {
    const auto stream = watchRoot();
    EXPECT_TRUE(isPolled(*stream, in("disk/ok/deep"), "file", behind("ok/deep")));
    makeFolders(behind("ok/new/deeper"));
    ASSERT_TRUE(stream->waitFor(in("disk/ok/new"), kCreated | kIsFolder)) << stream->describe();
    EXPECT_TRUE(isPolled(*stream, in("disk/ok/new/deeper"), "file", behind("ok/new/deeper")));
    moveItem(behind("ok/new"), behind("ok/newer"));
    ASSERT_TRUE(stream->waitFor(in("disk/ok/newer"), kIsFolder)) << stream->describe();
    EXPECT_TRUE(isPolled(*stream, in("disk/ok/newer/deeper"), "again", behind("ok/newer/deeper")));
    removeTree(behind("ok/newer"));
    EXPECT_TRUE(stream->waitFor(in("disk/ok/newer"), kRemoved)) << stream->describe();
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldDisks, AreNeverKeptBusy) {
  run({"ok/deep"}, [this](TestFuse& disk) {
    const auto stream = watchRoot();
    EXPECT_TRUE(isWatched(*stream, in("disk/ok/deep"), "file"));
    // A pass of the polling may be under way.
    EXPECT_TRUE(eventually([&] { return disk.unmount() == 0; }));
    EXPECT_TRUE(stream->waitFor(in("disk"), kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("disk"), "underneath"));
  });
}

}  // namespace
}  // namespace kestrine::test
