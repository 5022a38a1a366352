#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "tests/watcher/WatcherFixture.h"
#include "watcher/CDEvent.h"
#include "watcher/CDEvents.h"
#include "watcher/CDEventsDelegate.h"

namespace kestrine::test {
namespace {

using platform::RunLoop;

/// The end of a stream, which may come from its handler, from its thread or from another one.
class CDEventsLifetime : public WatcherTest {
 protected:
  std::unique_ptr<CDEvents> watch(CDEventsEventBlock block) {
    return std::make_unique<CDEvents>(listOfPath(watchedFolder()), std::move(block), RunLoop::current(), kCDEventsSinceEventNow, 0.02,
                                      false, std::nullopt, kFileEvents);
  }
};

TEST_F(CDEventsLifetime, KeepsTheRunLoopRunningUntilDestroyed) {
  std::promise<CDEvents*> made;
  std::unique_ptr<CDEvents> events;
  std::atomic<bool> returned = false;
  std::thread thread([&] {
    events = watch([](CDEvents&, const std::shared_ptr<const CDEvent>&) {});
    made.set_value(events.get());
    RunLoop::current()->run();
    returned = true;
  });
  made.get_future().wait();
  EXPECT_FALSE(returned);
  events.reset();
  thread.join();
  EXPECT_TRUE(returned);
}

TEST_F(CDEventsLifetime, MayEndInItsOwnHandler) {
  std::unique_ptr<CDEvents> events;
  int calls = 0;
  events = watch([&](CDEvents&, const std::shared_ptr<const CDEvent>&) {
    ++calls;
    events.reset();
  });
  writeFile(watchedFolder() + "/1", "text");
  writeFile(watchedFolder() + "/2", "text");
  RunLoop::current()->run();
  EXPECT_EQ(calls, 1);
}

TEST_F(CDEventsLifetime, WaitsForARunningHandlerWhenDestroyedOnAnotherThread) {
  std::unique_ptr<CDEvents> events;
  std::promise<void> made;
  std::promise<void> entered;
  std::atomic<bool> mayLeave = false;
  std::atomic<bool> left = false;
  std::thread thread([&] {
    events = watch([&](CDEvents&, const std::shared_ptr<const CDEvent>&) {
      if (left) return;
      entered.set_value();
      eventually([&] { return mayLeave.load(); });
      left = true;
    });
    made.set_value();
    RunLoop::current()->run();
  });
  made.get_future().wait();
  writeFile(watchedFolder() + "/file", "text");
  entered.get_future().wait();
  std::atomic<bool> destroying = false;
  std::thread leaver([&] {
    eventually([&] { return destroying.load(); });
    // Long enough for a destructor that does not wait to be through.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    mayLeave = true;
  });
  destroying = true;
  events.reset();
  EXPECT_TRUE(left);
  leaver.join();
  thread.join();
}

TEST_F(CDEventsLifetime, ReleasesItsBlock) {
  const auto token = std::make_shared<int>(0);
  auto events = watch([token](CDEvents&, const std::shared_ptr<const CDEvent>&) {});
  EXPECT_GT(token.use_count(), 1);
  events.reset();
  EXPECT_EQ(token.use_count(), 1);
}

TEST_F(CDEventsLifetime, LeavesNoStreamBehind) {
  const std::size_t before = statusSection("streams").size();
  auto events = watch([](CDEvents&, const std::shared_ptr<const CDEvent>&) {});
  EXPECT_EQ(statusSection("streams").size(), before + 1);
  events.reset();
  EXPECT_EQ(statusSection("streams").size(), before);
}

struct CountingDelegate : CDEventsDelegate {
  void URLWatcher_eventOccurred(CDEvents&, const std::shared_ptr<const CDEvent>&) override { ++count; }
  std::atomic<int> count = 0;
};

TEST_F(CDEventsLifetime, LetsOtherThreadsReadAndSetItsPropertiesDuringDeliveries) {
  const auto delegate = std::make_shared<CountingDelegate>();
  CDEvents events(listOfPath(watchedFolder()), delegate, RunLoop::current(), kCDEventsSinceEventNow, 0.001, false, std::nullopt,
                  kFileEvents);
  std::atomic<bool> done = false;
  std::thread other([&] {
    while (!done) {
      events.setExcludedURLs(listOfPath("/w/excluded"));
      events.setExcludedURLs(std::nullopt);
      events.setWatchedURLs(events.watchedURLs());
      events.setIgnoreEventsFromSubDirectories(events.ignoreEventsFromSubDirectories());
      events.setDelegate(events.delegate());
      events.setLastEvent(events.lastEvent());
    }
  });
  const int rounds = longOrShort(50, 10);
  for (int round = 0; round < rounds; ++round) {
    writeFile(watchedFolder() + "/file" + std::to_string(round), "text");
    EXPECT_TRUE(runLoopUntil([&] { return delegate->count > round; }));
  }
  done = true;
  other.join();
}

TEST_F(CDEventsLifetime, MayEndOnAnotherThreadAtAnyMoment) {
  const int rounds = longOrShort(50, 10);
  for (int round = 0; round < rounds; ++round) {
    std::unique_ptr<CDEvents> events;
    std::promise<void> made;
    std::thread thread([&] {
      events = watch([](CDEvents& stream, const std::shared_ptr<const CDEvent>&) { EXPECT_FALSE(stream.description().empty()); });
      made.set_value();
      RunLoop::current()->run();
    });
    made.get_future().wait();
    std::thread writer([&] {
      for (int file = 0; file < 20; ++file) writeFile(watchedFolder() + "/" + std::to_string(file), "text");
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(round % 30));
    events.reset();
    thread.join();
    writer.join();
  }
}

}  // namespace
}  // namespace kestrine::test
