#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/fsevents/engine/StreamMailbox.h"
#include "platform/fsevents/status/StreamStatus.h"

// Engines work side by side; what is lost and found again has one order for the whole stream.

namespace kestrine::test {
namespace {

using platform::fsevents::EventClock;
using platform::fsevents::LossKind;
using platform::fsevents::StreamBatch;
using platform::fsevents::StreamMailbox;

/// A mailbox with two engines.
class StreamLossOrder : public testing::Test {
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
  std::shared_ptr<StreamMailbox> mailbox =
      std::make_shared<StreamMailbox>([] {}, [status = status] { return status->losses().takeNotices(); });
  std::shared_ptr<EventClock::Member> member = std::make_shared<EventClock::Member>([] {});
  StreamMailbox::EngineNumber first = mailbox->join(
      member, [] {}, false);
  StreamMailbox::EngineNumber second = mailbox->join(
      member, [] {}, false);
};

TEST_F(StreamLossOrder, IsThatOfWhatHappenedWhicheverEngineOffers) {
  status->losses().begin(LossKind::Rights, "/a", "no permission", "");
  mailbox->offer(second, batchOf("/b/1"));
  status->losses().end(LossKind::Rights, "/a");
  mailbox->offer(first, batchOf("/a/1"));
  EXPECT_THAT(takeNotices(), testing::ElementsAre("+/a"));
  EXPECT_THAT(takeNotices(), testing::ElementsAre("-/a"));
  mailbox->offer(first, batchOf("/a/2"));
  EXPECT_THAT(takeNotices(), testing::IsEmpty());
}

TEST_F(StreamLossOrder, IsKeptWhenAnEngineHasLeft) {
  mailbox->leave(first);
  status->losses().begin(LossKind::Hang, "/a", "no answer", "");
  mailbox->offer(first, batchOf("/a/1"));
  EXPECT_THAT(takeNotices(), testing::ElementsAre("no batch"));
  mailbox->offer(second, batchOf("/b/1"));
  EXPECT_THAT(takeNotices(), testing::ElementsAre("+/a"));
}

}  // namespace
}  // namespace kestrine::test
