#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/network/session/URLConnection.h"
#include "tests/network/Fetch.h"
#include "tests/support/Eventually.h"
#include "tests/support/http/HTTPServer.h"
#include "tests/support/http/RawServer.h"

namespace kestrine::test {
namespace {

using platform::OperationQueue;
using platform::URLConnection;
using Told = std::vector<std::string>;

Answer hello(const ReceivedRequest& request) {
  return {.status = request.target == "/missing" ? 404 : 200, .body = "hello", .headers = {{"Content-Type", "text/plain"}}};
}

class Listener : public platform::URLConnectionDelegate {
 public:
  [[nodiscard]] Told told() const {
    const std::lock_guard lock(mutex_);
    return told_;
  }
  void connection_didReceiveResponse(const Connection& /*connection*/,
                                     const std::shared_ptr<const platform::URLResponse>& response) override {
    tell("response " + std::to_string(response->statusCode()));
  }
  void connection_didReceiveData(const Connection& /*connection*/, const platform::Bytes& data) override { tell("data " + data.text()); }
  void connectionDidFinishLoading(const Connection& /*connection*/) override { tell("finished"); }
  void connection_didFailWithError(const Connection& /*connection*/, const platform::Error& error) override {
    tell("failed " + std::to_string(error.code));
  }

 private:
  void tell(const std::string& what) {
    const std::lock_guard lock(mutex_);
    told_.push_back(what);
  }
  mutable std::mutex mutex_;
  Told told_;
};

TEST(Connection, SendsAndCallsItsHandlerOnTheQueueAsOneOfItsOperations) {
  HTTPServer server(hello);
  const auto queue = OperationQueue::create("mine");
  std::promise<Fetched> ended;
  URLConnection::sendAsynchronousRequest(requestFor(server.url("/missing"), "POST", "b"), queue,
                                         [&, queue](const auto& response, const auto& data, const auto& error) {
                                           EXPECT_EQ(OperationQueue::currentQueue(), queue);
                                           const auto operations = queue->operations();
                                           ASSERT_EQ(operations.size(), 1U);
                                           EXPECT_TRUE(operations.back()->isExecuting());
                                           operations.back()->cancel();
                                           ended.set_value({data, response, error});
                                         });
  const auto got = ended.get_future().get();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(got.status(), 404);
  EXPECT_EQ(got.text(), "hello");
  EXPECT_EQ(server.requests().front().body, "b");
  EXPECT_FALSE(server.requests().front().header("Accept"));
}

TEST(Connection, AFailureReachesTheHandler) {
  const RefusingPort port;
  const auto queue = OperationQueue::create();
  std::promise<std::int64_t> code;
  URLConnection::sendAsynchronousRequest(requestFor(port.url("/")), queue, [&](const auto& response, const auto& data, const auto& error) {
    EXPECT_EQ(response, nullptr);
    EXPECT_FALSE(data);
    code.set_value(error->code);
  });
  EXPECT_EQ(code.get_future().get(), -1004);
  queue->waitUntilAllOperationsAreFinished();
}

TEST(Connection, OnlyTheRequestsTimeOutHolds) {
  RawServer server([](RawConnection& connection) { connection.waitForClose(); });
  auto request = requestFor(server.url("/"));
  request.setTimeoutInterval(0.2);
  const auto queue = OperationQueue::create();
  std::promise<std::int64_t> code;
  URLConnection::sendAsynchronousRequest(request, queue, [&](const auto&, const auto&, const auto& error) { code.set_value(error->code); });
  EXPECT_EQ(code.get_future().get(), -1001);
  queue->waitUntilAllOperationsAreFinished();
}

TEST(Connection, TellsItsDelegateOnTheRunLoopThatStartedIt) {
  HTTPServer server(hello);
  std::thread other([&] {
    const auto listener = std::make_shared<Listener>();
    const auto connection = URLConnection::make(requestFor(server.url("/")), listener);
    EXPECT_TRUE(listener->told().empty());
    // The connection keeps the loop running until its end.
    platform::RunLoop::current()->run();
    EXPECT_EQ(listener->told(), Told({"response 200", "data hello", "finished"}));
  });
  other.join();
}

TEST(Connection, TellsItsDelegateOnTheQueueThatWasSet) {
  const RefusingPort port;
  const auto listener = std::make_shared<Listener>();
  const auto connection = URLConnection::make(requestFor(port.url("/")), listener, false);
  connection->setDelegateQueue(OperationQueue::create());
  connection->start();
  EXPECT_TRUE(eventually([&] { return listener->told() == Told({"failed -1004"}); }));
}

TEST(Connection, ThatIsNotToStartWaitsUntilItIsTold) {
  HTTPServer server(hello);
  class Tagged : public URLConnection {
   public:
    Tagged(const platform::URLRequest& request, const std::shared_ptr<platform::URLConnectionDelegate>& delegate, bool startImmediately,
           std::string tag)
        : URLConnection(request, delegate, startImmediately), tag_(std::move(tag)) {}
    const std::string tag_;
  };
  const auto listener = std::make_shared<Listener>();
  const auto connection = URLConnection::make<Tagged>(requestFor(server.url("/")), listener, false, "tag");
  connection->setDelegateQueue(OperationQueue::create());
  EXPECT_EQ(connection->tag_, "tag");
  EXPECT_FALSE(platform::RunLoop::current()->runFor(0.1));
  EXPECT_TRUE(server.requests().empty());
  connection->start();
  connection->start();
  EXPECT_TRUE(eventually([&] { return !listener->told().empty() && listener->told().back() == "finished"; }));
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST(Connection, ThatIsCancelledTellsNothingMoreAndLetsGo) {
  std::promise<void> asked;
  RawServer server([&](RawConnection& connection) {
    connection.readRequest();
    asked.set_value();
    connection.waitForClose();
  });
  auto listener = std::make_shared<Listener>();
  const std::weak_ptr<Listener> weakListener = listener;
  auto connection = URLConnection::make(requestFor(server.url("/")), listener, false);
  connection->setDelegateQueue(OperationQueue::create());
  connection->start();
  asked.get_future().wait();
  connection->cancel();
  EXPECT_TRUE(listener->told().empty());
  const std::weak_ptr<URLConnection> weakConnection = connection;
  listener.reset();
  connection.reset();
  EXPECT_TRUE(eventually([&] { return weakListener.expired() && weakConnection.expired(); }));
}

TEST(Connection, LivesUntilItsEndThoughNobodyHoldsIt) {
  HTTPServer server(hello);
  const auto listener = std::make_shared<Listener>();
  {
    const auto connection = URLConnection::make(requestFor(server.url("/")), listener, false);
    connection->setDelegateQueue(OperationQueue::create());
    connection->start();
  }
  EXPECT_TRUE(eventually([&] { return !listener->told().empty() && listener->told().back() == "finished"; }));
  EXPECT_TRUE(eventually([&] { return listener.use_count() == 1; }));
}

}  // namespace
}  // namespace kestrine::test
