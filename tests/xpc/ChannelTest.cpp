#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <stdexcept>
#include <string>

#include "platform/xpc/channel/Channel.h"
#include "platform/xpc/channel/IOThread.h"
#include "tests/xpc/RawSocket.h"

namespace {

using namespace kestrine::test;
using platform::FileHandle;
using platform::xpc::assertOnIOThread;
using platform::xpc::Channel;
using platform::xpc::onIOThread;
using platform::xpc::Value;

/// A service's channel to a client that the test plays.
class ServedChannel {
 public:
  explicit ServedChannel(Channel::StatusSource status) {
    auto [client, service] = socketPair();
    client_ = std::move(client);
    onIOThread([this, socket = std::move(service), status = std::move(status)]() mutable {
      assertOnIOThread();
      channel_ = Channel::create(std::move(socket), Channel::Side::Service, status);
      channel_->setHandlers([](const platform::xpc::Frame&) {}, [this](const std::string& reason) { end_.set_value(reason); });
      channel_->setReading(true);
    });
  }
  ~ServedChannel() {
    std::promise<void> closed;
    onIOThread([this, &closed] {
      assertOnIOThread();
      channel_->close();
      channel_ = nullptr;
      closed.set_value();
    });
    closed.get_future().wait();
  }
  ServedChannel(const ServedChannel&) = delete;
  ServedChannel& operator=(const ServedChannel&) = delete;

  [[nodiscard]] const FileHandle& client() const { return client_; }
  /// Why the channel ended; waits for it.
  std::string end() { return end_.get_future().get(); }

 private:
  FileHandle client_;
  std::promise<std::string> end_;
  std::shared_ptr<Channel> channel_;
};

TEST(Channel, AnswersAStatusRequestWithWhatItsSourceSays) {
  ServedChannel served([] { return Value::string("well"); });
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(sendBytes(served.client(), frame(kStatusRequest)));
    const auto reply = readFrame(served.client());
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->kind, kStatusReply);
    EXPECT_EQ(reply->payload, encodedText("well"));
  }
}

TEST(Channel, EndsWhenItsSourceOfTheStatusThrowsWhateverThatIs) {
  ServedChannel failing([]() -> Value { throw std::runtime_error("as asked"); });
  ASSERT_TRUE(sendBytes(failing.client(), frame(kStatusRequest)));
  EXPECT_EQ(failing.end(), "the status could not be told: as asked");
  ServedChannel odd([]() -> Value { throw 42; });
  ASSERT_TRUE(sendBytes(odd.client(), frame(kStatusRequest)));
  EXPECT_EQ(odd.end(), "the status could not be told: an exception of an unknown type");
}

TEST(Channel, WithoutASourceOfTheStatusTakesARequestForABrokenRule) {
  ServedChannel served(nullptr);
  ASSERT_TRUE(sendBytes(served.client(), frame(kStatusRequest)));
  EXPECT_EQ(served.end(), "it broke the protocol: that kind of frame is not for this end");
}

}  // namespace
