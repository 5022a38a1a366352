#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/watcher/FedEvents.h"
#include "watcher/CDEventsDelegate.h"

namespace kestrine::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct RecordingDelegate : CDEventsDelegate {
  void URLWatcher_eventOccurred(CDEvents& URLWatcher, const std::shared_ptr<const CDEvent>& event) override {
    streams.push_back(&URLWatcher);
    paths.push_back(event->URL()->path());
    if (onEvent) onEvent(URLWatcher);
  }
  std::vector<CDEvents*> streams;
  std::vector<std::string> paths;
  std::function<void(CDEvents&)> onEvent;
};

void feed(CDEvents& events, const std::vector<std::string>& paths) {
  std::vector<platform::FSEvent> batch;
  batch.reserve(paths.size());
  for (const std::string& path : paths) batch.push_back({path, 0, 1});
  CDEventsCallback(events, batch);
}

class CDEventsDelegateForm : public WatcherTest {
 protected:
  std::unique_ptr<CDEvents> makeEvents() {
    return std::make_unique<CDEvents>(listOfPath(watchedFolder()), delegate_, platform::RunLoop::current(), kCDEventsSinceEventNow, 3600.0,
                                      false, listOfPath("/w/excluded"), kCDEventsDefaultEventStreamFlags);
  }

  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
};

TEST_F(CDEventsDelegateForm, CallsTheDelegateWithTheStreamAndEachEvent) {
  const auto events = makeEvents();
  feed(*events, {"/w/1", "/w/excluded/2", "/w/3"});
  EXPECT_THAT(delegate_->paths, ElementsAre("/w/1", "/w/3"));
  EXPECT_THAT(delegate_->streams, ElementsAre(events.get(), events.get()));
  EXPECT_EQ(events->lastEvent()->URL()->path(), "/w/3");
}

TEST_F(CDEventsDelegateForm, LooksTheDelegateUpForEachEvent) {
  const auto events = makeEvents();
  const auto second = std::make_shared<RecordingDelegate>();
  delegate_->onEvent = [&](CDEvents& stream) { stream.setDelegate(second); };
  feed(*events, {"/w/1", "/w/2"});
  EXPECT_THAT(delegate_->paths, ElementsAre("/w/1"));
  EXPECT_THAT(second->paths, ElementsAre("/w/2"));
}

TEST_F(CDEventsDelegateForm, DeliversToNobodyOnceTheDelegateIsCleared) {
  const auto events = makeEvents();
  events->setDelegate({});
  feed(*events, {"/w/1"});
  EXPECT_THAT(delegate_->paths, IsEmpty());
  EXPECT_NE(events->lastEvent(), nullptr) << "the event was delivered, to a block that had nobody to tell";
}

TEST_F(CDEventsDelegateForm, KeepsNoDelegateAlive) {
  const auto events = makeEvents();
  delegate_.reset();
  EXPECT_EQ(events->delegate(), nullptr);
  feed(*events, {"/w/1"});
}

TEST_F(CDEventsDelegateForm, IsCopiedWithoutItsDelegate) {
  const auto events = makeEvents();
  const auto copy = events->copyWithZone();
  EXPECT_EQ(copy->delegate(), nullptr);
  EXPECT_EQ(events->delegate(), delegate_);
  feed(*copy, {"/w/1"});
  EXPECT_THAT(delegate_->paths, IsEmpty());

  copy->setDelegate(delegate_);
  feed(*copy, {"/w/2"});
  EXPECT_THAT(delegate_->paths, ElementsAre("/w/2"));
  EXPECT_THAT(delegate_->streams, ElementsAre(copy.get())) << "the stream that delivers is the copy";
}

TEST_F(CDEventsDelegateForm, PlaysNoPartWhereABlockWasGiven) {
  int calls = 0;
  CDEvents events(listOfPath(watchedFolder()), [&](CDEvents&, const std::shared_ptr<const CDEvent>&) { ++calls; });
  events.setDelegate(delegate_);
  EXPECT_EQ(events.delegate(), delegate_);
  feed(events, {"/w/1"});
  EXPECT_EQ(calls, 1);
  EXPECT_THAT(delegate_->paths, IsEmpty()) << "a block of one's own is called instead of the delegate";
}

}  // namespace
}  // namespace kestrine::test
