#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "tests/support/Process.h"
#include "tests/watcher/WatcherFixture.h"
#include "watcher/CDEvent.h"
#include "watcher/CDEvents.h"

namespace kestrine::test {
namespace {

using platform::RunLoop;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

/// Changes in a real folder, told by the kernel.
class CDEventsStream : public WatcherTest {
 protected:
  std::unique_ptr<CDEvents> watch(const std::string& path, double latency = 0.05, platform::FSEventStreamCreateFlags flags = kFileEvents,
                                  std::optional<std::vector<platform::URL>> excluded = std::nullopt) {
    return std::make_unique<CDEvents>(listOfPath(path), recordTo(paths_), RunLoop::current(), kCDEventsSinceEventNow, latency, false,
                                      std::move(excluded), flags);
  }

  static CDEventsEventBlock recordTo(std::set<std::string>& paths) {
    return [&paths](CDEvents&, const std::shared_ptr<const CDEvent>& event) { paths.insert(event->URL()->path()); };
  }

  [[nodiscard]] std::string in(const std::string& name) const { return watchedFolder() + "/" + name; }

  std::set<std::string> paths_;
};

TEST_F(CDEventsStream, TellsAChangedFileOnTheRunLoop) {
  const auto events = watch(watchedFolder());
  writeFile(in("file"), "text");
  EXPECT_TRUE(runLoopUntil([&] { return paths_.contains(in("file")); }));
  EXPECT_TRUE(runLoopUntil([&] { return events->lastEvent() != nullptr; }));
  EXPECT_TRUE(events->lastEvent()->isFile());
}

TEST_F(CDEventsStream, LeavesOutChangesBelowAnExcludedFolder) {
  makeFolder(in("Downloads"));
  makeFolder(in("Downloads2"));
  const auto events = watch(watchedFolder(), 3600.0, kFileEvents, listOfPath(in("Downloads")));
  writeFile(in("Downloads/a"), "text");
  writeFile(in("Downloads2/b"), "text");
  writeFile(in("c"), "text");
  events->flushSynchronously();
  EXPECT_THAT(paths_, Contains(in("c")));
  EXPECT_THAT(paths_, Not(Contains(in("Downloads/a"))));
  EXPECT_THAT(paths_, Not(Contains(in("Downloads2/b"))));
}

TEST_F(CDEventsStream, DeliversWhatIsPendingBeforeASynchronousFlushReturns) {
  const auto events = watch(watchedFolder(), 3600.0);
  writeFile(in("file"), "text");
  events->flushSynchronously();
  EXPECT_THAT(paths_, Contains(in("file")));
}

TEST_F(CDEventsStream, DeliversWhatIsPendingSoonAfterAnAsynchronousFlush) {
  const auto events = watch(watchedFolder(), 3600.0);
  writeFile(in("file"), "text");
  EXPECT_TRUE(runLoopUntil([&] {
    events->flushAsynchronously();
    return paths_.contains(in("file"));
  }));
}

TEST_F(CDEventsStream, KeepsReportingThePathsItWasMadeWith) {
  const TemporaryDirectory other;
  const auto events = watch(watchedFolder(), 3600.0);
  events->setWatchedURLs(listOfPath(other.path()));
  EXPECT_EQ(events->watchedURLs(), listOfPath(other.path()));
  writeFile(in("file"), "text");
  writeFile(other / "file", "text");
  events->flushSynchronously();
  EXPECT_THAT(paths_, Contains(in("file")));
  EXPECT_THAT(paths_, Not(Contains(other / "file")));
}

TEST_F(CDEventsStream, RunsOnTheRunLoopItIsGiven) {
  std::atomic<bool> delivered = false;
  std::thread::id deliveredOn;
  std::atomic<bool> started = false;
  std::shared_ptr<RunLoop> loop;
  std::thread thread([&] {
    loop = RunLoop::current();
    started = true;
    EXPECT_TRUE(runLoopUntil([&] { return delivered.load(); }));
  });
  ASSERT_TRUE(eventually([&] { return started.load(); }));
  CDEvents events(
      listOfPath(watchedFolder()),
      [&](CDEvents&, const std::shared_ptr<const CDEvent>&) {
        deliveredOn = std::this_thread::get_id();
        delivered = true;
      },
      loop, kCDEventsSinceEventNow, 0.05, false, std::nullopt, kFileEvents);
  const auto expected = thread.get_id();
  writeFile(in("file"), "text");
  thread.join();
  EXPECT_EQ(deliveredOn, expected);
}

TEST_F(CDEventsStream, IsCopiedIntoASecondRunningOneOnTheCopyingThread) {
  const auto since = CDEvents::currentEventIdentifier();
  std::atomic<int> delivered = 0;
  std::mutex mutex;
  std::set<std::thread::id> threads;
  const CDEvents original(
      listOfPath(watchedFolder()),
      [&](CDEvents&, const std::shared_ptr<const CDEvent>& event) {
        if (event->isHistoryDone()) return;
        const std::lock_guard lock(mutex);
        threads.insert(std::this_thread::get_id());
        ++delivered;
      },
      RunLoop::current(), since, 0.05, false, listOfPath("/w/excluded"), kFileEvents);
  std::thread thread([&] {
    const auto copy = original.copyWithZone();
    EXPECT_EQ(copy->watchedURLs(), original.watchedURLs());
    EXPECT_EQ(copy->excludedURLs(), listOfPath("/w/excluded"));
    EXPECT_EQ(copy->sinceEventIdentifier(), since);
    EXPECT_EQ(copy->notificationLatency(), 0.05);
    EXPECT_FALSE(copy->ignoreEventsFromSubDirectories());
    EXPECT_EQ(copy->lastEvent(), nullptr);
    writeFile(in("file"), "text");
    EXPECT_TRUE(runLoopUntil([&] { return copy->lastEvent() != nullptr && delivered > 0; }));
  });
  const auto copying = thread.get_id();
  thread.join();
  EXPECT_EQ(threads, std::set{copying}) << "the original's run loop was not run";
}

TEST_F(CDEventsStream, TellsTheCurrentEventIdentifier) {
  const auto first = CDEvents::currentEventIdentifier();
  const auto events = watch(watchedFolder(), 3600.0);
  writeFile(in("file"), "text");
  events->flushSynchronously();
  ASSERT_TRUE(runLoopUntil([&] { return events->lastEvent() != nullptr; }));
  EXPECT_GT(first, 0U);
  EXPECT_GE(events->lastEvent()->identifier(), first);
  EXPECT_GE(CDEvents::currentEventIdentifier(), first);
}

TEST_F(CDEventsStream, HandsOnThePlatformsDescription) {
  const auto events = watch(watchedFolder());
  EXPECT_THAT(events->streamDescription(), HasSubstr(watchedFolder()));
}

TEST_F(CDEventsStream, ReportsAFileOfAnotherProcess) {
  const auto events = watch(watchedFolder(), 0.05, kFileEvents | platform::kFSEventStreamCreateFlagIgnoreSelf);
  ASSERT_EQ(runToEnd({"touch", in("file")}).status, 0);
  EXPECT_TRUE(runLoopUntil([&] { return paths_.contains(in("file")); }));
}

}  // namespace
}  // namespace kestrine::test
