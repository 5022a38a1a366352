#include "platform/fsevents/engine/StreamMailbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kestrine::test {
namespace {

using platform::FSEvent;
using platform::fsevents::EventClock;
using platform::fsevents::StreamBatch;
using platform::fsevents::StreamMailbox;

constexpr platform::FSEventStreamEventFlags kHistoryDoneFlag = 0x10;

class StreamMailboxTest : public testing::Test {
 protected:
  StreamMailbox::EngineNumber join(bool owesHistory = false) {
    return mailbox.join(
        member, [this] { ++freed; }, owesHistory);
  }
  static StreamBatch batchOf(const std::vector<std::string>& paths, bool endsHistory = false) {
    StreamBatch batch;
    for (const auto& path : paths) batch.events.push_back({path, 0x100, 0});
    batch.knownEmpty = EventClock::now();
    batch.endsHistory = endsHistory;
    return batch;
  }
  /// The paths of the next batch, handled; "-" for HistoryDone.
  std::vector<std::string> handleNext() {
    const auto batch = mailbox.take();
    if (!batch) return {"nothing"};
    std::vector<std::string> paths;
    for (const FSEvent& event : batch->events) {
      EXPECT_GT(event.id, last) << event.path;
      last = event.id;
      paths.push_back((event.flags & kHistoryDoneFlag) != 0 ? "-" : event.path);
    }
    mailbox.handled();
    return paths;
  }

  std::shared_ptr<const EventClock::Member> member = std::make_shared<EventClock::Member>([] {});
  std::atomic<int> signals{0};
  std::atomic<int> freed{0};
  platform::FSEventStreamEventId last = 0;
  StreamMailbox mailbox{[this] { ++signals; }};
};

TEST_F(StreamMailboxTest, HandsOverOneBatchAtATimeInTheOrderOfComing) {
  const auto one = join();
  const auto other = join();
  mailbox.offer(other, batchOf({"/a", "/b"}));
  mailbox.offer(one, batchOf({"/c"}));
  const auto first = mailbox.take();
  ASSERT_TRUE(first);
  EXPECT_FALSE(mailbox.take()) << "while one is handled";
  mailbox.handled();
  EXPECT_THAT(handleNext(), testing::ElementsAre("/c"));
  EXPECT_THAT(handleNext(), testing::ElementsAre("nothing"));
  EXPECT_EQ(mailbox.latestId(), last);
}

TEST_F(StreamMailboxTest, GivesIdentifiersInTheOrderOfComing) {
  const auto one = join();
  const auto other = join();
  StreamBatch early = batchOf({"/early"});
  early.knownEmpty = EventClock::now() - 5000;
  mailbox.offer(one, batchOf({"/late"}));
  // Offered later with the older time: it is delivered later, and so is its identifier.
  mailbox.offer(other, std::move(early));
  EXPECT_THAT(handleNext(), testing::ElementsAre("/late"));
  EXPECT_THAT(handleNext(), testing::ElementsAre("/early"));
}

TEST_F(StreamMailboxTest, HasRoomForOneBatchOfEachEngine) {
  const auto one = join();
  const auto other = join();
  mailbox.offer(one, batchOf({"/a"}));
  EXPECT_FALSE(mailbox.isFree(one));
  EXPECT_TRUE(mailbox.isFree(other));
  ASSERT_TRUE(mailbox.take());
  EXPECT_FALSE(mailbox.isFree(one)) << "while it is handled";
  EXPECT_EQ(freed, 0);
  mailbox.handled();
  EXPECT_TRUE(mailbox.isFree(one));
  EXPECT_EQ(freed, 1);
}

TEST_F(StreamMailboxTest, SignalsAgainForWhatCameWhileAnotherWasHandled) {
  const auto one = join();
  const auto other = join();
  mailbox.offer(one, batchOf({"/a"}));
  ASSERT_TRUE(mailbox.take());
  mailbox.offer(other, batchOf({"/b"}));
  const int before = signals;
  mailbox.handled();
  EXPECT_GT(signals, before);
}

TEST_F(StreamMailboxTest, DropsWhatAnEngineOffersThatHasLeft) {
  const auto one = join();
  mailbox.offer(one, batchOf({"/before"}));
  mailbox.leave(one);
  mailbox.offer(one, batchOf({"/after"}));
  mailbox.tell(one, batchOf({"/after"}));
  EXPECT_FALSE(mailbox.isFree(one));
  EXPECT_THAT(handleNext(), testing::ElementsAre("/before"));
  EXPECT_EQ(freed, 0);
  EXPECT_THAT(handleNext(), testing::ElementsAre("nothing"));
}

TEST_F(StreamMailboxTest, DropsEverythingWhenItIsClosed) {
  const auto one = join();
  mailbox.offer(one, batchOf({"/a"}));
  mailbox.close();
  EXPECT_TRUE(mailbox.isIdle());
  mailbox.offer(one, batchOf({"/b"}));
  EXPECT_THAT(handleNext(), testing::ElementsAre("nothing"));
  const auto later = join();
  mailbox.offer(later, batchOf({"/c"}));
  EXPECT_THAT(handleNext(), testing::ElementsAre("/c"));
}

TEST_F(StreamMailboxTest, TellsHistoryDoneOnceAfterTheLastWhoOwesIt) {
  mailbox.expectHistory("/path");
  const auto one = join(true);
  const auto other = join(true);
  join(false);
  mailbox.offer(one, batchOf({"/a"}, true));
  EXPECT_THAT(handleNext(), testing::ElementsAre("/a"));
  mailbox.offer(one, batchOf({"/live"}));
  EXPECT_THAT(handleNext(), testing::ElementsAre("/live"));
  mailbox.offer(other, batchOf({"/b"}, true));
  EXPECT_THAT(handleNext(), testing::ElementsAre("/b", "-"));
  mailbox.offer(other, batchOf({"/c"}, true));
  EXPECT_THAT(handleNext(), testing::ElementsAre("/c"));
}

TEST_F(StreamMailboxTest, DoesNotHoldHistoryUpForOneWhoIsExcusedOrLeaves) {
  for (const bool leaves : {false, true}) {
    mailbox.expectHistory("/path");
    const auto one = join(true);
    const auto other = join(true);
    mailbox.offer(one, batchOf({"/a"}, true));
    EXPECT_THAT(handleNext(), testing::ElementsAre("/a"));
    leaves ? mailbox.leave(other) : mailbox.excuse(other);
    EXPECT_THAT(handleNext(), testing::ElementsAre("-"));
    mailbox.close();
  }
}

TEST_F(StreamMailboxTest, TakesInWhatIsToldBesideAnEnginesOwn) {
  const auto one = join();
  mailbox.offer(one, batchOf({"/own"}));
  mailbox.tell(one, batchOf({"/beside"}));
  EXPECT_THAT(handleNext(), testing::ElementsAre("/own"));
  EXPECT_EQ(freed, 1);
  EXPECT_THAT(handleNext(), testing::ElementsAre("/beside"));
  EXPECT_EQ(freed, 1) << "that had no place of the engine's";
}

TEST_F(StreamMailboxTest, WaitsForOneWhoHandlesButNotForItself) {
  mailbox.offer(join(), batchOf({"/a"}));
  std::promise<void> taken;
  std::promise<void> leave;
  std::thread handler([&] {
    EXPECT_TRUE(mailbox.take());
    EXPECT_TRUE(mailbox.isHandling());
    mailbox.waitHandled();
    taken.set_value();
    leave.get_future().wait();
    mailbox.handled();
  });
  taken.get_future().wait();
  EXPECT_FALSE(mailbox.isHandling());
  auto waits = std::async(std::launch::async, [&] { mailbox.waitHandled(); });
  EXPECT_EQ(waits.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  leave.set_value();
  waits.get();
  handler.join();
  EXPECT_TRUE(mailbox.isIdle());
}

}  // namespace
}  // namespace kestrine::test
