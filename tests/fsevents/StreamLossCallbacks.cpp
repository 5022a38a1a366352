#include "tests/fsevents/support/StreamTest.h"

// What a stream tells of losses, beside the events.

namespace kestrine::test {
namespace {

class StreamLossCallbacks : public StreamTest {
 protected:
  std::unique_ptr<FSEventStream> startFrom(platform::FSEventStreamEventId since) {
    auto stream = std::make_unique<FSEventStream>(
        [this](FSEventStream&, std::span<const FSEvent> events) {
          for (const auto& event : events) {
            if ((event.flags & kMustScan) != 0) told.push_back("scan " + event.path);
          }
        },
        std::vector{root_}, since, 0.01, kFileEvents, GetParam());
    stream->setLossCallback([this](FSEventStream&, std::span<const FSEventStream::LossNotice> notices) {
      isOnTheLoop = isOnTheLoop && platform::RunLoop::current()->isCurrent();
      for (const auto& notice : notices) {
        told.push_back((notice.begins ? "loss " : "recovered ") + notice.path);
        reasons.push_back(notice.reason);
      }
    });
    stream->scheduleWithRunLoop(platform::RunLoop::current());
    EXPECT_TRUE(stream->start());
    return stream;
  }
  // The clock was set back since: nobody can say what changed.
  static platform::FSEventStreamEventId future() { return platform::FSEventsGetCurrentEventId() + (std::uint64_t{3'600'000} << 22U); }

  std::vector<std::string> told;
  std::vector<std::string> reasons;
  bool isOnTheLoop = true;
};
KESTRINE_PER_SOURCE(StreamLossCallbacks);

TEST_P(StreamLossCallbacks, ComeAfterTheEventsThatTheyBelongTo) {
  const auto stream = startFrom(future());
  stream->flushSync();
  EXPECT_THAT(told, testing::ElementsAre("scan " + root_, "loss " + root_, "recovered " + root_));
  EXPECT_THAT(reasons, testing::Each(testing::HasSubstr("clock")));
  EXPECT_TRUE(isOnTheLoop);
}

TEST_P(StreamLossCallbacks, NameAnIdentifierThatWasNeverGivenOut) {
  const auto stream = startFrom(12345);
  stream->flushSync();
  EXPECT_THAT(told, testing::ElementsAre("scan " + root_, "loss " + root_, "recovered " + root_));
  EXPECT_THAT(reasons, testing::Each(testing::HasSubstr("never given out")));
}

TEST_P(StreamLossCallbacks, AreNoneWhereNothingIsLost) {
  const auto stream = startFrom(platform::FSEventsGetCurrentEventId());
  writeFile(in("file"), "text");
  stream->flushSync();
  EXPECT_THAT(told, testing::IsEmpty());
}

TEST_P(StreamLossCallbacks, AreNotAskedForAfterTheStart) {
  const auto stream = startFrom(platform::kFSEventStreamEventIdSinceNow);
  bool called = false;
  stream->setLossCallback([&](FSEventStream&, std::span<const FSEventStream::LossNotice>) { called = true; });
  stream->flushSync();
  EXPECT_FALSE(called);
}

}  // namespace
}  // namespace kestrine::test
