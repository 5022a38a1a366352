#include <sys/stat.h>

#include <atomic>

#include "tests/fsevents/support/StreamTest.h"

namespace kestrine::test {
namespace {

class StreamFlush : public StreamTest {
 protected:
  // Longer than any test may take, so that only a flush can deliver.
  static constexpr double kNever = 3600;
};
KESTRINE_PER_SOURCE(StreamFlush);

TEST_P(StreamFlush, FromAnotherThreadDeliversBeforeItReturns) {
  const auto stream = watch({.paths = {root_}, .latency = kNever});
  for (int i = 0; i < 50; ++i) {
    writeFile(in(std::to_string(i)), "text");
    stream->flush();
    ASSERT_NE(stream->flagsOf(in(std::to_string(i))) & kCreated, 0U) << i;
  }
}

TEST_P(StreamFlush, OnTheLoopsThreadDeliversInsideTheCall) {
  const auto stream = watch({.paths = {root_}, .latency = kNever});
  std::promise<FSEventStreamEventFlags> seen;
  stream->loop().perform([&] {
    writeFile(in("file"), "text");
    stream->flush();
    seen.set_value(stream->flagsOf(in("file")));
  });
  EXPECT_NE(seen.get_future().get() & kCreated, 0U);
}

TEST_P(StreamFlush, OnAThreadWhoseLoopDoesNotRunDeliversInsideTheCall) {
  std::vector<FSEvent> events;
  FSEventStream stream([&](FSEventStream&, std::span<const FSEvent> told) { events.insert(events.end(), told.begin(), told.end()); },
                       {root_}, platform::kFSEventStreamEventIdSinceNow, kNever, kFileEvents, GetParam());
  stream.scheduleWithRunLoop(platform::RunLoop::current());
  ASSERT_TRUE(stream.start());
  writeFile(in("file"), "text");
  stream.flushSync();
  EXPECT_TRUE(std::any_of(events.begin(), events.end(), [&](const FSEvent& event) { return event.path == in("file"); }));
}

TEST_P(StreamFlush, FromElsewhereReturnsWhenTheLoopDoesNotRun) {
  FSEventStream stream([](FSEventStream&, std::span<const FSEvent>) {}, {root_}, platform::kFSEventStreamEventIdSinceNow, kNever,
                       kFileEvents, GetParam());
  stream.scheduleWithRunLoop(platform::RunLoop::current());
  ASSERT_TRUE(stream.start());
  writeFile(in("file"), "text");
  auto flushed = std::async(std::launch::async, [&] { stream.flushSync(); });
  EXPECT_EQ(flushed.wait_for(std::chrono::seconds(60)), std::future_status::ready);
}

TEST_P(StreamFlush, WithinTheHandlerReturns) {
  std::atomic<int> depth = 0;
  const auto stream = watch({.paths = {root_}, .onDelivery = [&](FSEventStream& itself) {
                               if (depth++ == 0) {
                                 writeFile(in("second"), "text");
                                 itself.flushSync();
                               }
                             }});
  writeFile(in("first"), "text");
  EXPECT_TRUE(stream->waitFor(in("first"), kCreated)) << stream->describe();
  EXPECT_TRUE(stream->waitFor(in("second"), kCreated)) << stream->describe();
}

TEST_P(StreamFlush, WithoutWaitingDeliversSoon) {
  const auto stream = watch({.paths = {root_}, .latency = kNever});
  writeFile(in("a"), "text");
  stream->flush();
  const auto last = stream->events().back().id;
  EXPECT_EQ(stream->stream().flushAsync(), last);
  writeFile(in("b"), "text");
  EXPECT_GE(stream->stream().flushAsync(), last);
  EXPECT_TRUE(stream->waitFor(in("b"), kCreated)) << stream->describe();
}

TEST_P(StreamFlush, BySeveralThreadsAtOnceDeliversEverythingOnce) {
  const auto stream = watch({.paths = {root_}, .latency = kNever});
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < 25; ++i) {
        const auto path = in(std::to_string(thread) + "-" + std::to_string(i));
        touchFile(path);
        stream->flush();
        EXPECT_TRUE(stream->tells(path)) << path;
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

TEST_P(StreamFlush, WithNothingToDeliverCallsNobody) {
  const auto stream = watch({.paths = {root_}, .latency = kNever});
  stream->flush();
  stream->stream().flushAsync();
  stream->flush();
  EXPECT_EQ(stream->deliveries(), 0U);
}

TEST_P(StreamFlush, OfAStreamThatIsNotStartedDoesNothing) {
  FSEventStream stream([](FSEventStream&, std::span<const FSEvent>) { ADD_FAILURE(); }, {root_}, platform::kFSEventStreamEventIdSinceNow,
                       0.1, kFileEvents, GetParam());
  stream.flushSync();
  stream.flushAsync();
  stream.scheduleWithRunLoop(platform::RunLoop::current());
  stream.flushSync();
  stream.flushAsync();
}

TEST_P(StreamFlush, ChangesNothingInTheUsersFolders) {
  const auto stream = watch({.paths = {root_}});
  struct stat before {};
  ASSERT_EQ(::stat(root_.c_str(), &before), 0);
  for (int i = 0; i < 20; ++i) stream->flush();
  struct stat after {};
  ASSERT_EQ(::stat(root_.c_str(), &after), 0);
  EXPECT_EQ(before.st_ctim.tv_sec, after.st_ctim.tv_sec);
  EXPECT_EQ(before.st_ctim.tv_nsec, after.st_ctim.tv_nsec);
  EXPECT_TRUE(stream->events().empty()) << stream->describe();
}

}  // namespace
}  // namespace kestrine::test
