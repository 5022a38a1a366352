#include "platform/network/wire/Exchange.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "platform/network/wire/NetworkThread.h"
#include "tests/network/Fetch.h"
#include "tests/support/http/HTTPServer.h"

namespace kestrine::test {
namespace {

using platform::network::assertOnNetworkThread;
using platform::network::CurlMulti;
using platform::network::Exchange;
using platform::network::onNetworkThread;
using platform::network::TransferEnd;

/// What no handler of std::exception sees.
struct Oddity {};

/// Lets an oddity out of one of its calls.
class Thrower final : public Exchange::Listener {
 public:
  enum class At { Head, Body, Progress, End };
  explicit Thrower(At at) : at_(at) {}

  std::future<int> ended() { return ended_.get_future(); }

  void headArrived(int /*status*/, const platform::HTTPHeaders& /*headers*/) override { throwAt(At::Head); }
  Exchange::Appetite bodyArrived(std::span<const char> /*piece*/) override {
    throwAt(At::Body);
    return Exchange::Appetite::Take;
  }
  void bytesMoved(std::int64_t sent, std::int64_t /*received*/) override {
    if (sent >= 0) throwAt(At::Progress);
  }
  void bodyFailed(const std::string& /*why*/) override {}
  void exchangeEnded(const TransferEnd& end) override {
    ended_.set_value(static_cast<int>(end.result));
    throwAt(At::End);
  }

 private:
  void throwAt(At here) const {
    if (at_ == here) throw Oddity();
  }

  const At at_;
  std::promise<int> ended_;
};

/// Runs an exchange with a listener to its end; libcurl's number for that.
int runExchange(const std::string& url, Thrower::At at) {
  Thrower listener(at);
  auto ended = listener.ended();
  std::unique_ptr<CurlMulti> multi;
  std::unique_ptr<Exchange> exchange;
  onNetworkThread([&] {
    assertOnNetworkThread();
    multi = std::make_unique<CurlMulti>(0);
    Exchange::Request request;
    request.url = url;
    request.method = "GET";
    exchange = std::make_unique<Exchange>(*multi, std::move(request), listener);
  });
  const int result = ended.get();
  std::promise<void> gone;
  onNetworkThread([&] {
    exchange.reset();
    multi.reset();
    gone.set_value();
  });
  gone.get_future().wait();
  return result;
}

TEST(Exchange, EndsWhenItsListenerThrowsWhateverThatIs) {
  HTTPServer server([](const ReceivedRequest&) { return Answer{.body = "body"}; });
  EXPECT_EQ(runExchange(server.url("/"), Thrower::At::Head), CURLE_WRITE_ERROR);
  EXPECT_EQ(runExchange(server.url("/"), Thrower::At::Body), CURLE_WRITE_ERROR);
  EXPECT_EQ(runExchange(server.url("/"), Thrower::At::Progress), CURLE_ABORTED_BY_CALLBACK);
}

TEST(Exchange, LeavesTheThreadToOthersWhenItsListenerThrowsAtTheEnd) {
  HTTPServer server([](const ReceivedRequest&) { return Answer{.body = "body"}; });
  EXPECT_EQ(runExchange(server.url("/"), Thrower::At::End), CURLE_OK);
  EXPECT_EQ(fetch(server.url("/")).text(), "body");
}

}  // namespace
}  // namespace kestrine::test
