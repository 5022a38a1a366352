#include <atomic>
#include <random>

#include "tests/fsevents/support/StreamTest.h"

// Ending a stream: from another thread, from inside its handler, beside another stream, and with everything else going on.

namespace kestrine::test {
namespace {

class StreamEnding : public StreamTest {};
KESTRINE_PER_SOURCE(StreamEnding);

TEST_P(StreamEnding, FromAnotherThreadWaitsForTheHandlerAndEndsTheLoop) {
  std::promise<void> entered;
  std::promise<void> leave;
  std::atomic<bool> inside = false;
  std::atomic<bool> first = true;
  const auto stream = watch({.paths = {root_}, .onDelivery = [&, go = leave.get_future().share()](FSEventStream&) {
                               if (!first.exchange(false)) return;
                               inside = true;
                               entered.set_value();
                               go.wait();
                               inside = false;
                             }});
  writeFile(in("file"), "text");
  entered.get_future().wait();
  std::atomic<bool> insideAfterwards = false;
  auto destroyed = std::async(std::launch::async, [&] {
    stream->destroyStream();
    insideAfterwards = inside.load();
  });
  EXPECT_EQ(destroyed.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  leave.set_value();
  destroyed.get();
  EXPECT_FALSE(insideAfterwards);
  EXPECT_TRUE(stream->loopEnds());
}

TEST_P(StreamEnding, ByStopAndInvalidateWaitsForTheHandler) {
  for (const bool invalidate : {false, true}) {
    std::promise<void> entered;
    std::promise<void> leave;
    std::atomic<bool> inside = false;
    std::atomic<bool> first = true;
    const auto stream = watch({.paths = {root_}, .onDelivery = [&, go = leave.get_future().share()](FSEventStream&) {
                                 if (!first.exchange(false)) return;
                                 inside = true;
                                 entered.set_value();
                                 go.wait();
                                 inside = false;
                               }});
    writeFile(in("file"), "text" + std::to_string(invalidate));
    entered.get_future().wait();
    auto ended = std::async(std::launch::async, [&] {
      invalidate ? stream->stream().invalidate() : stream->stream().stop();
      return inside.load();
    });
    EXPECT_EQ(ended.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    leave.set_value();
    EXPECT_FALSE(ended.get());
    const auto deliveries = stream->deliveries();
    writeFile(in("late"), "text");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(stream->deliveries(), deliveries);
  }
}

TEST_P(StreamEnding, InsideTheHandlerReturnsAndEndsTheLoop) {
  std::atomic<WatchedStream*> self = nullptr;
  std::atomic<int> calls = 0;
  const auto stream = watch({.paths = {root_}, .latency = 0.01, .onDelivery = [&](FSEventStream&) {
                               ++calls;
                               self.load()->destroyStream();
                               // What happens while the handler still runs is nobody's any more.
                               touchFile(in("inside"));
                             }});
  self = stream.get();
  writeFile(in("file"), "text");
  EXPECT_TRUE(stream->loopEnds());
  writeFile(in("late"), "text");
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(eventually([] { return kernelMarks().empty(); }));
}

TEST_P(StreamEnding, ByInvalidateInsideTheHandlerEndsTheLoop) {
  const auto stream = watch({.paths = {root_}, .latency = 0.01, .onDelivery = [](FSEventStream& itself) { itself.invalidate(); }});
  writeFile(in("file"), "text");
  EXPECT_TRUE(stream->loopEnds());
  EXPECT_EQ(stream->deliveries(), 1U);
}

TEST_P(StreamEnding, ByStopInsideTheHandlerAllowsAnotherStart) {
  std::atomic<bool> stopNext = true;
  const auto stream = watch({.paths = {root_}, .latency = 0.01, .onDelivery = [&](FSEventStream& itself) {
                               if (stopNext.exchange(false)) itself.stop();
                             }});
  writeFile(in("file"), "text");
  ASSERT_TRUE(eventually([&] { return stream->stream().status().objectForKey("state").stringValue() == "stopped"; }));
  ASSERT_TRUE(stream->stream().start());
  writeFile(in("again"), "text");
  EXPECT_TRUE(stream->waitFor(in("again"), kCreated)) << stream->describe();
}

TEST_P(StreamEnding, OfOneStreamLeavesTheOtherOverTheSameFolder) {
  makeFolders(in("a/b"));
  auto one = watchRoot();
  const auto two = watchRoot();
  writeFile(in("a/b/first"), "text");
  one->flush();
  two->flush();
  EXPECT_TRUE(one->tells(in("a/b/first")));
  EXPECT_TRUE(two->tells(in("a/b/first")));
  one.reset();
  writeFile(in("a/b/second"), "text");
  two->flush();
  EXPECT_TRUE(two->tells(in("a/b/second")));
}

TEST_P(StreamEnding, OfOneStreamLeavesTheOtherOnTheSameRunLoop) {
  makeFolder(in("one"));
  const auto stream = watchRoot();
  std::atomic<int> told = 0;
  {
    FSEventStream second([&](FSEventStream&, std::span<const FSEvent>) { ++told; }, {in("one")}, platform::kFSEventStreamEventIdSinceNow,
                         0.01, kFileEvents, GetParam());
    second.scheduleWithRunLoop(stream->loop().shared_from_this());
    ASSERT_TRUE(second.start());
    writeFile(in("one/file"), "text");
    second.flushSync();
    EXPECT_GE(told, 1);
  }
  EXPECT_FALSE(stream->loopEnds(std::chrono::milliseconds(50)));
  writeFile(in("one/later"), "text");
  EXPECT_TRUE(stream->waitFor(in("one/later"), kCreated));
}

TEST_P(StreamEnding, WhileChangesPourInIsClean) {
  const int turns = longOrShort(60, 15);
  std::atomic<bool> enough = false;
  std::thread writer([&] {
    for (int i = 0; !enough; ++i) {
      const auto folder = in("d" + std::to_string(i % 20));
      makeFolders(folder + "/a/b");
      writeFile(folder + "/a/b/file", "text");
      removeTree(folder);
    }
  });
  for (int turn = 0; turn < turns; ++turn) {
    const auto stream = watch({.paths = {root_}, .latency = 0.001});
    if (turn % 3 == 0) stream->flush();
    if (turn % 3 == 1) stream->stream().stop();
  }
  enough = true;
  writer.join();
}

TEST_P(StreamEnding, AnyThreadMayCallAnythingAtAnyTime) {
  const int calls = longOrShort(150, 40);
  const auto stream = watch({.paths = {root_}, .latency = 0.001});
  std::vector<std::thread> threads;
  for (unsigned seed = 1; seed <= 4; ++seed) {
    threads.emplace_back([&, seed] {
      std::mt19937 random(seed);
      for (int i = 0; i < calls; ++i) {
        switch (random() % 8) {
          case 0:
            stream->stream().stop();
            break;
          case 1:
            stream->stream().flushAsync();
            break;
          case 2:
            stream->stream().flushSync();
            break;
          case 3:
            static_cast<void>(stream->stream().status());
            break;
          case 4:
            static_cast<void>(stream->stream().copyDescription());
            break;
          case 5:
            static_cast<void>(stream->stream().getLatestEventId());
            break;
          default:
            static_cast<void>(stream->stream().start());
            makeFolders(in(std::to_string(random() % 50)) + "/sub");
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(stream->stream().start());
  writeFile(in("last"), "text");
  stream->flush();
  EXPECT_TRUE(stream->tells(in("last"))) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

}  // namespace
}  // namespace kestrine::test
