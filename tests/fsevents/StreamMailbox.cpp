#include "platform/fsevents/StreamMailbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kestrine::test {
namespace {

using platform::fsevents::EventClock;
using platform::fsevents::LossKind;
using platform::fsevents::StreamBatch;
using platform::fsevents::StreamMailbox;

/// A mailbox with two engines.
class StreamMailboxTest : public testing::Test {
 protected:
  StreamBatch batchOf(const std::string& path) {
    StreamBatch batch;
    batch.events.push_back({path, 0x100, 0});
    batch.knownEmpty = EventClock::now();
    return batch;
  }
  /// The paths of the notices of the next batch, "+" for those that begin.
  std::vector<std::string> takeNotices() {
    const auto batch = mailbox->take();
    std::vector<std::string> texts;
    if (!batch) return {"no batch"};
    mailbox->handled();
    for (const auto& notice : batch->losses) texts.push_back((notice.begins ? "+" : "-") + notice.path);
    return texts;
  }

  std::shared_ptr<platform::fsevents::StreamStatus> status = std::make_shared<platform::fsevents::StreamStatus>();
  std::shared_ptr<StreamMailbox> mailbox = std::make_shared<StreamMailbox>(status, [] {});
  std::shared_ptr<EventClock::Member> member = std::make_shared<EventClock::Member>([] {});
  StreamMailbox::EngineNumber first = mailbox->join(
      member, [] {}, false);
  StreamMailbox::EngineNumber second = mailbox->join(
      member, [] {}, false);
};

TEST_F(StreamMailboxTest, TellsNoticesInTheOrderOfWhatHappenedWhicheverEngineOffers) {
  status->losses().begin(LossKind::Rights, "/a", "no permission", "");
  mailbox->offer(second, batchOf("/b/1"));
  status->losses().end(LossKind::Rights, "/a");
  mailbox->offer(first, batchOf("/a/1"));
  EXPECT_THAT(takeNotices(), testing::ElementsAre("+/a"));
  EXPECT_THAT(takeNotices(), testing::ElementsAre("-/a"));
  mailbox->offer(first, batchOf("/a/2"));
  EXPECT_THAT(takeNotices(), testing::IsEmpty());
}

TEST_F(StreamMailboxTest, DropsWhatAnEngineOffersThatHasLeftButNoNotice) {
  mailbox->leave(first);
  status->losses().begin(LossKind::Hang, "/a", "no answer", "");
  mailbox->offer(first, batchOf("/a/1"));
  EXPECT_THAT(takeNotices(), testing::ElementsAre("no batch"));
  mailbox->offer(second, batchOf("/b/1"));
  EXPECT_THAT(takeNotices(), testing::ElementsAre("+/a"));
}

TEST_F(StreamMailboxTest, GivesIdentifiersThatGrowInTheOrderOfDelivery) {
  mailbox->offer(second, batchOf("/b/1"));
  mailbox->offer(first, batchOf("/a/1"));
  const auto one = mailbox->take();
  ASSERT_TRUE(one);
  EXPECT_FALSE(mailbox->take());  // one at a time
  EXPECT_FALSE(mailbox->isFree(second));
  mailbox->handled();
  EXPECT_TRUE(mailbox->isFree(second));
  const auto two = mailbox->take();
  ASSERT_TRUE(two);
  mailbox->handled();
  EXPECT_EQ(one->events.front().path, "/b/1");
  EXPECT_LT(one->events.front().id, two->events.front().id);
  EXPECT_EQ(mailbox->latestId(), two->events.front().id);
}

}  // namespace
}  // namespace kestrine::test
