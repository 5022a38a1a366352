#include <gtest/gtest.h>

#include "platform/foundation/base/Exception.h"
#include "tests/watcher/WatcherFixture.h"
#include "watcher/CDEvent.h"
#include "watcher/CDEvents.h"
#include "watcher/CDEventsDelegate.h"

namespace kestrine::test {
namespace {

using platform::RunLoop;

struct IgnoringDelegate : CDEventsDelegate {
  void URLWatcher_eventOccurred(CDEvents&, const std::shared_ptr<const CDEvent>&) override {}
};

void ignoreEvent(CDEvents&, const std::shared_ptr<const CDEvent>&) {}

class CDEventsInitializers : public WatcherTest {
 protected:
  // Whatever an initializer is not given has its default.
  static void expectDefaults(const CDEvents& events) {
    EXPECT_EQ(events.sinceEventIdentifier(), 0xFFFFFFFFFFFFFFFFU);
    EXPECT_EQ(events.notificationLatency(), 3.0);
    EXPECT_FALSE(events.ignoreEventsFromSubDirectories());
    EXPECT_FALSE(events.excludedURLs().has_value());
    EXPECT_EQ(events.lastEvent(), nullptr);
    EXPECT_TRUE(events.eventBlock());
  }

  // The flags show in what is reported: the folder instead of the file, without details, and changes of this very process too.
  void expectDefaultFlagsOnThisThread(CDEvents& events) {
    writeFile(watchedFolder() + "/file", "text");
    events.flushSynchronously();
    ASSERT_TRUE(runLoopUntil([&] { return events.lastEvent() != nullptr; }));
    EXPECT_EQ(events.lastEvent()->URL()->path(), watchedFolder());
    EXPECT_TRUE(events.lastEvent()->isGenericChange());
    // Watching the root is told apart from the folder by its own event.
    ASSERT_EQ(rename(watchedFolder().c_str(), (base_ / "moved").c_str()), 0);
    EXPECT_TRUE(runLoopUntil([&] {
      events.flushSynchronously();
      return events.lastEvent()->isRootChanged();
    }));
  }

  std::vector<platform::URL> watched() { return listOfPath(watchedFolder()); }

  const std::shared_ptr<IgnoringDelegate> delegate_ = std::make_shared<IgnoringDelegate>();
};

TEST_F(CDEventsInitializers, UseTheseConstants) {
  EXPECT_EQ(kCDEventsDefaultEventStreamFlags, 5U);
  EXPECT_EQ(kCDEventsSinceEventNow, 18446744073709551615U);
  EXPECT_STREQ(CDEventsEventStreamCreationFailureException, "CDEventsEventStreamCreationFailureException");
}

TEST_F(CDEventsInitializers, WithURLsAndBlockFillInTheRest) {
  CDEvents events(watched(), ignoreEvent);
  EXPECT_EQ(events.watchedURLs(), watched());
  EXPECT_EQ(events.delegate(), nullptr);
  expectDefaults(events);
  expectDefaultFlagsOnThisThread(events);
}

TEST_F(CDEventsInitializers, WithURLsAndDelegateFillInTheRest) {
  CDEvents events(watched(), delegate_);
  EXPECT_EQ(events.watchedURLs(), watched());
  EXPECT_EQ(events.delegate(), delegate_);
  expectDefaults(events);
  expectDefaultFlagsOnThisThread(events);
}

TEST_F(CDEventsInitializers, WithBlockAndRunLoopFillInTheRest) {
  CDEvents events(watched(), ignoreEvent, RunLoop::current());
  EXPECT_EQ(events.delegate(), nullptr);
  expectDefaults(events);
  expectDefaultFlagsOnThisThread(events);
}

TEST_F(CDEventsInitializers, WithDelegateAndRunLoopFillInTheRest) {
  CDEvents events(watched(), delegate_, RunLoop::current());
  EXPECT_EQ(events.delegate(), delegate_);
  expectDefaults(events);
  expectDefaultFlagsOnThisThread(events);
}

TEST_F(CDEventsInitializers, KeepEverythingThatTheFullFormsAreGiven) {
  const auto excluded = listOfPath(base_ / "excluded");
  const auto since = CDEvents::currentEventIdentifier();
  const CDEvents withBlock(watched(), ignoreEvent, RunLoop::current(), since, 0.25, true, excluded, 21);
  const CDEvents withDelegate(watched(), delegate_, RunLoop::current(), since, 0.25, true, excluded, 21);
  for (const CDEvents* events : {&withBlock, &withDelegate}) {
    EXPECT_EQ(events->watchedURLs(), watched());
    EXPECT_EQ(events->sinceEventIdentifier(), since);
    EXPECT_EQ(events->notificationLatency(), 0.25);
    EXPECT_TRUE(events->ignoreEventsFromSubDirectories());
    EXPECT_EQ(events->excludedURLs(), excluded);
    EXPECT_TRUE(events->eventBlock());
    EXPECT_EQ(events->lastEvent(), nullptr);
  }
  EXPECT_EQ(withBlock.delegate(), nullptr);
  EXPECT_EQ(withDelegate.delegate(), delegate_);
}

template <class... Arguments>
void expectInvalidArguments(Arguments&&... arguments) {
  const std::size_t streams = statusSection("streams").size();
  try {
    const CDEvents events(std::forward<Arguments>(arguments)...);
    FAIL() << "nothing was thrown";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
    EXPECT_EQ(exception.reason(), "Invalid arguments passed to CDEvents init-method.");
  }
  EXPECT_EQ(statusSection("streams").size(), streams) << "a stream was made all the same";
}

TEST_F(CDEventsInitializers, RefuseAMissingBlock) {
  const CDEventsEventBlock none;
  expectInvalidArguments(watched(), none);
  expectInvalidArguments(watched(), none, RunLoop::current());
  expectInvalidArguments(watched(), none, RunLoop::current(), kCDEventsSinceEventNow, 3.0, false, std::nullopt, 5U);
}

TEST_F(CDEventsInitializers, RefuseAMissingDelegate) {
  const std::weak_ptr<CDEventsDelegate> none;
  expectInvalidArguments(watched(), none);
  expectInvalidArguments(watched(), none, RunLoop::current());
  expectInvalidArguments(watched(), none, RunLoop::current(), kCDEventsSinceEventNow, 3.0, false, std::nullopt, 5U);
}

TEST_F(CDEventsInitializers, RefuseAnEmptyList) {
  const std::vector<platform::URL> none;
  expectInvalidArguments(none, ignoreEvent);
  expectInvalidArguments(none, ignoreEvent, RunLoop::current());
  expectInvalidArguments(none, ignoreEvent, RunLoop::current(), kCDEventsSinceEventNow, 3.0, false, std::nullopt, 5U);
  expectInvalidArguments(none, delegate_);
  expectInvalidArguments(none, delegate_, RunLoop::current());
  expectInvalidArguments(none, delegate_, RunLoop::current(), kCDEventsSinceEventNow, 3.0, false, std::nullopt, 5U);
}

TEST_F(CDEventsInitializers, ThrowWhenTheStreamDoesNotStart) {
  try {
    // A stream that nobody can deliver cannot start.
    const CDEvents events(watched(), ignoreEvent, nullptr);
    FAIL() << "nothing was thrown";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "CDEventsEventStreamCreationFailureException");
    EXPECT_EQ(exception.reason(), "Failed to create event stream.");
  }
}

}  // namespace
}  // namespace kestrine::test
