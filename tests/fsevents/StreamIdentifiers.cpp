#include "tests/fsevents/support/StreamTest.h"

namespace kestrine::test {
namespace {

using platform::FSEventsGetCurrentEventId;

class StreamIdentifiers : public StreamTest {
 protected:
  static void expectGrowing(const std::vector<FSEvent>& events) {
    for (std::size_t i = 1; i < events.size(); ++i) {
      ASSERT_GT(events[i].id, events[i - 1].id) << describeEvent(events[i - 1]) << " then " << describeEvent(events[i]);
    }
  }
};
KESTRINE_PER_SOURCE(StreamIdentifiers);

TEST_P(StreamIdentifiers, GrowFromEventToEvent) {
  const auto stream = watchRoot();
  for (int i = 0; i < 300; ++i) {
    writeFile(in(std::to_string(i % 50)), "text");
    if (i % 30 == 0) stream->flush();
  }
  stream->flush();
  expectGrowing(stream->events());
  EXPECT_EQ(stream->stream().getLatestEventId(), stream->events().back().id);
}

TEST_P(StreamIdentifiers, AreUniqueAmongAllStreamsOfAProcess) {
  const auto one = watchRoot();
  const auto two = watchRoot();
  for (int i = 0; i < 200; ++i) writeFile(in(std::to_string(i)), "text");
  one->flush();
  two->flush();
  std::set<platform::FSEventStreamEventId> seen;
  for (const auto* stream : {one.get(), two.get()}) {
    for (const auto& event : stream->events()) EXPECT_TRUE(seen.insert(event.id).second) << describeEvent(event);
  }
  EXPECT_GE(seen.size(), 400U);
}

TEST_P(StreamIdentifiers, AreNotEarlierThanTheMomentBeforeTheChange) {
  const auto stream = watch({.paths = {root_}, .latency = 0.01});
  for (int i = 0; i < 50; ++i) {
    const auto before = FSEventsGetCurrentEventId();
    writeFile(in("file"), std::to_string(i));
    stream->flush();
    const auto told = stream->eventsOf(in("file"));
    ASSERT_FALSE(told.empty());
    EXPECT_GE(told.back().id, before) << i;
  }
}

TEST_P(StreamIdentifiers, OfTheMomentAreNotLaterThanAnUndeliveredChange) {
  const auto stream = watch({.paths = {root_}, .latency = 3600});
  for (int i = 0; i < 20; ++i) {
    writeFile(in(std::to_string(i)), "text");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto now = FSEventsGetCurrentEventId();
    stream->flush();
    const auto told = stream->eventsOf(in(std::to_string(i)));
    ASSERT_EQ(told.size(), 1U) << stream->describe();
    // Who stores `now` and asks for what changed since must be told of the file.
    EXPECT_GE(told[0].id, now) << i;
  }
}

TEST_P(StreamIdentifiers, OfTheMomentNeverGoBack) {
  auto last = FSEventsGetCurrentEventId();
  EXPECT_GT(last, 0U);
  EXPECT_NE(last, platform::kFSEventStreamEventIdSinceNow);
  const auto stream = watchRoot();
  for (int i = 0; i < 100; ++i) {
    writeFile(in("file"), "text");
    const auto now = FSEventsGetCurrentEventId();
    EXPECT_GE(now, last);
    last = now;
  }
}

TEST_P(StreamIdentifiers, GrowFromStreamToStream) {
  platform::FSEventStreamEventId last = 0;
  for (int i = 0; i < 5; ++i) {
    const auto stream = watchRoot();
    writeFile(in("file"), "text");
    stream->flush();
    ASSERT_FALSE(stream->events().empty());
    EXPECT_GT(stream->events().front().id, last);
    last = stream->stream().getLatestEventId();
  }
}

TEST_P(StreamIdentifiers, OfThePastTellWhatChangedSinceAndThatHistoryIsDone) {
  makeFolders(in("a/b"));
  makeFolder(outside("second"));
  const auto since = FSEventsGetCurrentEventId();
  writeFile(in("a/b/file"), "text");
  writeFile(outside("second/file"), "text");
  const auto stream = watch({.paths = {root_, outside("second")}, .since = since});
  stream->flush();
  EXPECT_TRUE(stream->waitUntil([](const std::vector<FSEvent>& events) {
    return !events.empty() && (events.back().flags & kHistoryDone) != 0;
  })) << stream->describe();
  EXPECT_TRUE(stream->covers(in("a/b/file"))) << stream->describe();
  EXPECT_TRUE(stream->covers(outside("second/file"))) << stream->describe();
  const auto history = stream->events();
  EXPECT_EQ(std::count_if(history.begin(), history.end(), [](const FSEvent& event) { return (event.flags & kHistoryDone) != 0; }), 1);
  stream->clear();
  writeFile(in("a/b/live"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("a/b/live")) & kCreated, 0U) << stream->describe();
  EXPECT_EQ(stream->allFlags() & kHistoryDone, 0U);
}

TEST_P(StreamIdentifiers, FromAnEventMissNothingThatFollowedIt) {
  platform::FSEventStreamEventId since = 0;
  {
    const auto stream = watchRoot();
    writeFile(in("before"), "text");
    stream->flush();
    since = stream->stream().getLatestEventId();
  }
  writeFile(in("between"), "text");
  const auto stream = watch({.paths = {root_}, .since = since});
  EXPECT_TRUE(stream->waitUntil([](const std::vector<FSEvent>& events) {
    return !events.empty() && (events.back().flags & kHistoryDone) != 0;
  })) << stream->describe();
  EXPECT_TRUE(stream->covers(in("between"))) << stream->describe();
}

TEST_P(StreamIdentifiers, OfTheFutureAskForARescan) {
  // The clock was set back since: nobody can say what changed.
  const auto since = FSEventsGetCurrentEventId() + (FSEventsGetCurrentEventId() >> 4U);
  const auto stream = watch({.paths = {root_}, .since = since});
  EXPECT_TRUE(stream->waitFor(root_, kMustScan)) << stream->describe();
}

TEST_P(StreamIdentifiers, OfNowTellNoHistory) {
  writeFile(in("before"), "text");
  const auto stream = watchRoot();
  stream->flush();
  EXPECT_TRUE(stream->events().empty()) << stream->describe();
}

TEST_P(StreamIdentifiers, KeepTheOrderOfEachPath) {
  // Only the flushes deliver, so that each turn is two events.
  const auto stream = watch({.paths = {root_}, .latency = 3600});
  constexpr int kTurns = 100;
  for (int i = 0; i < kTurns; ++i) {
    touchFile(in("file"));
    stream->flush();
    removeItem(in("file"));
    stream->flush();
  }
  const auto told = stream->eventsOf(in("file"));
  ASSERT_EQ(told.size(), 2U * kTurns) << stream->describe();
  for (std::size_t i = 0; i < told.size(); ++i) {
    EXPECT_EQ(told[i].flags & (kCreated | kRemoved), i % 2 == 0 ? kCreated : kRemoved) << i;
  }
  expectGrowing(told);
}

}  // namespace
}  // namespace kestrine::test
