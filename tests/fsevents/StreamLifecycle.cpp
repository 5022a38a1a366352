#include <atomic>

#include "tests/fsevents/support/StreamTest.h"

// The states of a stream and what each operation makes of them.

namespace kestrine::test {
namespace {

class StreamLifecycle : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    stream_ = std::make_unique<FSEventStream>([this](FSEventStream&, std::span<const FSEvent> events) { told_ += events.size(); },
                                              std::vector{root_}, platform::kFSEventStreamEventIdSinceNow, 0.05, kFileEvents, GetParam());
  }
  void schedule() { stream_->scheduleWithRunLoop(platform::RunLoop::current()); }
  [[nodiscard]] std::string state() const { return stream_->status().objectForKey("state").stringValue(); }
  bool tellsAChange() {
    const auto before = told_;
    writeFile(in("file" + std::to_string(turn_++)), "text");
    stream_->flushSync();
    return told_ > before;
  }
  std::size_t told_ = 0;
  int turn_ = 0;
  std::unique_ptr<FSEventStream> stream_;
};
KESTRINE_PER_SOURCE(StreamLifecycle);

TEST_P(StreamLifecycle, CreatedDoesNotWatch) {
  schedule();
  EXPECT_EQ(state(), "created");
  EXPECT_FALSE(tellsAChange());
  stream_->stop();
  EXPECT_EQ(state(), "created");
  EXPECT_TRUE(kernelMarks().empty());
}

TEST_P(StreamLifecycle, CreatedCannotStartBeforeItIsScheduled) {
  EXPECT_FALSE(stream_->start());
  EXPECT_EQ(state(), "created");
  EXPECT_NE(stream_->status().objectForKey("error").stringValue(), "");
  schedule();
  EXPECT_TRUE(stream_->start());
  EXPECT_TRUE(tellsAChange());
}

TEST_P(StreamLifecycle, CreatedWithoutPathsCannotStart) {
  FSEventStream stream([](FSEventStream&, std::span<const FSEvent>) {}, {}, platform::kFSEventStreamEventIdSinceNow, 0.05, kFileEvents,
                       GetParam());
  stream.scheduleWithRunLoop(platform::RunLoop::current());
  EXPECT_FALSE(stream.start());
  EXPECT_NE(stream.status().objectForKey("error").stringValue(), "");
}

TEST_P(StreamLifecycle, StartedStartsOnce) {
  schedule();
  EXPECT_TRUE(stream_->start());
  EXPECT_EQ(state(), "started");
  const auto marks = kernelMarks().size();
  const auto descriptors = openDescriptors();
  EXPECT_TRUE(stream_->start());
  EXPECT_EQ(kernelMarks().size(), marks);
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_TRUE(tellsAChange());
}

TEST_P(StreamLifecycle, StoppedForgetsAndWatchesNothing) {
  schedule();
  ASSERT_TRUE(stream_->start());
  writeFile(in("undelivered"), "text");
  stream_->stop();
  EXPECT_EQ(state(), "stopped");
  EXPECT_FALSE(tellsAChange());
  EXPECT_EQ(told_, 0U);
  EXPECT_TRUE(kernelMarks().empty());
  stream_->stop();
  EXPECT_EQ(state(), "stopped");
}

TEST_P(StreamLifecycle, StoppedStartsAgain) {
  schedule();
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(stream_->start());
    EXPECT_EQ(state(), "started");
    EXPECT_TRUE(tellsAChange()) << i;
    stream_->stop();
    EXPECT_FALSE(tellsAChange()) << i;
  }
}

TEST_P(StreamLifecycle, StoppedDoesNotLearnOfFoldersUntilItStarts) {
  schedule();
  ASSERT_TRUE(stream_->start());
  stream_->stop();
  makeFolders(in("a/b"));
  ASSERT_TRUE(stream_->start());
  stream_->flushSync();
  told_ = 0;
  writeFile(in("a/b/file"), "text");
  stream_->flushSync();
  EXPECT_GT(told_, 0U);
}

TEST_P(StreamLifecycle, InvalidIsInvalidForGood) {
  schedule();
  ASSERT_TRUE(stream_->start());
  stream_->invalidate();
  EXPECT_EQ(state(), "invalid");
  EXPECT_FALSE(stream_->start());
  schedule();
  EXPECT_FALSE(stream_->start());
  EXPECT_FALSE(tellsAChange());
  stream_->stop();
  stream_->invalidate();
  stream_->flushAsync();
  EXPECT_EQ(state(), "invalid");
  EXPECT_TRUE(kernelMarks().empty());
}

TEST_P(StreamLifecycle, InvalidBeforeStartNeverStarts) {
  stream_->invalidate();
  schedule();
  EXPECT_FALSE(stream_->start());
  EXPECT_EQ(state(), "invalid");
}

TEST_P(StreamLifecycle, InvalidLetsTheRunLoopEnd) {
  schedule();
  ASSERT_TRUE(stream_->start());
  std::thread other([this] { stream_->invalidate(); });
  platform::RunLoop::current()->run();
  other.join();
  EXPECT_EQ(state(), "invalid");
}

TEST_P(StreamLifecycle, StoppedKeepsTheRunLoopUntilInvalid) {
  const auto stream = watchRoot();
  stream->stream().stop();
  EXPECT_FALSE(stream->loopEnds(std::chrono::milliseconds(200)));
  EXPECT_TRUE(stream->stream().start());
  writeFile(in("file"), "text");
  EXPECT_TRUE(stream->waitFor(in("file"), kCreated));
  stream->stream().invalidate();
  EXPECT_TRUE(stream->loopEnds());
}

TEST_P(StreamLifecycle, ScheduledElsewhereMoves) {
  const auto first = watchRoot();
  std::promise<std::shared_ptr<platform::RunLoop>> made;
  std::promise<void> go;
  std::thread second([&] {
    auto loop = platform::RunLoop::current();
    made.set_value(loop);
    go.get_future().wait();
    loop->run();
  });
  const auto loop = made.get_future().get();
  std::atomic<bool> onSecond = false;
  {
    FSEventStream stream([&](FSEventStream&, std::span<const FSEvent>) { onSecond = loop->isCurrent(); }, {root_},
                         platform::kFSEventStreamEventIdSinceNow, 0.03, kFileEvents, GetParam());
    stream.scheduleWithRunLoop(platform::RunLoop::current());
    EXPECT_TRUE(stream.start());
    stream.scheduleWithRunLoop(loop);
    go.set_value();
    writeFile(in("file"), "text");
    EXPECT_TRUE(eventually([&] { return onSecond.load(); }));
  }
  second.join();
}

TEST_P(StreamLifecycle, DestroyedBeforeStartLeavesNothing) {
  schedule();
  stream_.reset();
  platform::RunLoop::current()->run();
  EXPECT_TRUE(kernelMarks().empty());
}

}  // namespace
}  // namespace kestrine::test
