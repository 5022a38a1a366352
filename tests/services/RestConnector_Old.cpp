#include "Services/RestConnector_Old.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>

#include "Services/DownloadConnection.h"
#include "tests/foundation/CapturedStandardError.h"
#include "tests/services/RestNetwork.h"

namespace kestrine::test {
namespace {

using platform::CapturedStandardError;
using platform::Object;
using platform::OperationQueue;
using testing::HasSubstr;

/// One call, whose end comes on another thread.
class OldCall {
 public:
  void start(const Object& params = object({{"UserID", "7"}})) {
    connector->startAsyncTask_params_progress_finished("A.svc/B", params, nullptr, [this](const RestResult& result, RestTaskStatus status) {
      queue = OperationQueue::currentQueue();
      if (queue) operation = queue->operations().back();
      into(endings)(result, status);
      finished = true;
    });
  }
  bool finishes() {
    return eventually([this] { return finished.load(); });
  }

  const std::shared_ptr<RestConnector_Old> connector = std::make_shared<RestConnector_Old>();
  std::vector<Ending> endings;
  std::shared_ptr<OperationQueue> queue;
  std::shared_ptr<platform::Operation> operation;
  std::atomic<bool> finished = false;
};

TEST(RestConnectorOld, PostsTheSameRequestWithoutASessionsHeadersAndEndsOnItsOwnQueue) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.status = 404, .body = R"({"ReturnStatus":"1"})"});
    const CapturedStandardError captured;
    OldCall call;
    call.start();
    ASSERT_TRUE(call.finishes());
    const ReceivedRequest request = server->requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/KestrineRestService/A.svc/B");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(request.header("Content-Length"), std::to_string(request.body.size()));
    EXPECT_EQ(request.header("Accept"), std::nullopt);
    EXPECT_EQ(platform::readJSON(request.body), object({{"UserID", "7"}}));
    EXPECT_EQ(call.endings[0].status, 0);
    EXPECT_EQ(call.endings[0].object(), object({{"ReturnStatus", "1"}}));
    EXPECT_FALSE(call.endings[0].onMainLoop);
    EXPECT_EQ(call.queue, call.connector->operationQueue());
    EXPECT_NE(call.queue, OperationQueue::mainQueue());
    EXPECT_FALSE(call.connector->connection());
    EXPECT_THAT(captured.text(), HasSubstr("Json String " + request.body));
    EXPECT_THAT(captured.text(), HasSubstr("response "));
  });
}

TEST(RestConnectorOld, CancelsItsLastOperationWhenItIsDone) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    OldCall call;
    call.start();
    ASSERT_TRUE(call.finishes());
    ASSERT_TRUE(call.operation);
    EXPECT_TRUE(eventually([&call] { return call.operation->isCancelled() && call.operation->isFinished(); }));
  });
}

TEST(RestConnectorOld, TellsOfAnAnswerThatIsNoJSON) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = ""});
    OldCall call;
    call.start();
    ASSERT_TRUE(call.finishes());
    EXPECT_EQ(call.endings[0].status, 5);
    EXPECT_EQ(call.endings[0].error().code, 3840);
  });
}

TEST(RestConnectorOld, TellsOfATransportErrorAndLogsIt) {
  inRestNetwork([] {
    const CapturedStandardError captured;
    OldCall call;
    call.start();  // nobody listens
    ASSERT_TRUE(call.finishes());
    EXPECT_EQ(call.endings[0].status, 2);
    EXPECT_EQ(call.endings[0].error().code, -1004);
    EXPECT_TRUE(eventually([&captured] { return captured.text().find("network error\n") != std::string::npos; }));
    EXPECT_THAT(captured.text(), HasSubstr("error code ....Error Domain=NSURLErrorDomain Code=-1004 "));
  });
}

TEST(RestConnectorOld, EndsAtOnceWhenTheParametersAreNoJSON) {
  inRestNetwork([] {
    OldCall call;
    call.start(object({{"when", Object(platform::Date{1})}}));
    ASSERT_EQ(call.endings.size(), 1U);
    EXPECT_EQ(call.endings[0].status, 4);
    EXPECT_EQ(call.endings[0].thread, std::this_thread::get_id());
    EXPECT_FALSE(call.connector->operationQueue());
  });
}

TEST(RestConnectorOld, EndsAtOnceWithoutANetworkAndMakesNoQueue) {
  inNetworkNamespace([] {
    const CapturedStandardError captured;
    OldCall call;
    call.start();
    ASSERT_EQ(call.endings.size(), 1U);
    EXPECT_EQ(call.endings[0].status, 1);
    EXPECT_TRUE(call.endings[0].object().isNil());
    EXPECT_EQ(call.endings[0].thread, std::this_thread::get_id());
    EXPECT_FALSE(call.connector->operationQueue());
    EXPECT_EQ(captured.text(), "");
  });
}

TEST(RestConnectorOld, MakesANewQueueForEachRequestAndIsGoneAfterTheLast) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    auto connector = std::make_shared<RestConnector_Old>();
    const std::weak_ptr<RestConnector_Old> observer = connector;
    std::atomic<int> finished = 0;
    std::vector<std::shared_ptr<OperationQueue>> queues;
    for (int i = 0; i < 2; ++i) {
      connector->startAsyncTask_params_progress_finished("A", object({}), nullptr,
                                                         [&finished](const RestResult&, RestTaskStatus) { ++finished; });
      queues.push_back(connector->operationQueue());
    }
    EXPECT_NE(queues[0], queues[1]);
    connector.reset();
    EXPECT_TRUE(eventually([&] { return finished == 2 && observer.expired(); }));
  });
}

TEST(RestConnectorOld, AHandlerThatThrowsIsLoggedAndTheNextRequestWorks) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    const CapturedStandardError captured;
    std::make_shared<RestConnector_Old>()->startAsyncTask_params_progress_finished(
        "A", object({}), nullptr, [](const RestResult&, RestTaskStatus) { throw std::runtime_error("what a parser says of it"); });
    EXPECT_TRUE(eventually([&captured] { return captured.text().find("what a parser says of it") != std::string::npos; }));
    OldCall next;
    next.start();
    ASSERT_TRUE(next.finishes());
    EXPECT_EQ(next.endings[0].status, 0);
  });
}

class CountingDelegate : public platform::URLConnectionDelegate {
 public:
  void connectionDidFinishLoading(const Connection& connection) override {
    tag = static_cast<const DownloadConnection&>(*connection).tag();
  }
  std::string tag;
};

TEST(DownloadConnection, StartsWhenItIsMadeUnlessAskedNotTo) {
  const HTTPServer server([](const ReceivedRequest&) { return Answer{.body = "x"}; });
  const platform::URLRequest request(platform::URL::URLWithString(server.url("/a")));
  const auto delegate = std::make_shared<CountingDelegate>();
  const auto connection = platform::URLConnection::make<DownloadConnection>(request, delegate, "tag one");
  EXPECT_EQ(connection->tag(), "tag one");
  EXPECT_TRUE(served([&delegate] { return delegate->tag == "tag one"; }));

  const auto waiting = platform::URLConnection::make<DownloadConnection>(request, delegate, false, "tag two");
  serveFor(0.3);
  EXPECT_EQ(server.requests().size(), 1U) << "started by itself";
  EXPECT_EQ(waiting->tag(), "tag two");
  waiting->start();
  EXPECT_TRUE(served([&delegate] { return delegate->tag == "tag two"; }));

  const auto asked = platform::URLConnection::make<DownloadConnection>(request, delegate, true, "tag three");
  asked->setTag("tag four");
  EXPECT_TRUE(served([&delegate] { return delegate->tag == "tag four"; }));
}

}  // namespace
}  // namespace kestrine::test
