#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Services/RestConnector.h"
#include "platform/foundation/base/Exception.h"
#include "platform/network/message/URLError.h"
#include "tests/foundation/CapturedStandardError.h"
#include "tests/services/RestNetwork.h"

namespace kestrine::test {
namespace {

using platform::CapturedStandardError;
using platform::Object;
using testing::HasSubstr;
using testing::Not;

const Object kParams = object({{"UserID", "7"}, {"MailID", "a@b.example"}});

struct Call {
  std::shared_ptr<RestConnector> connector = std::make_shared<RestConnector>();
  std::vector<Ending> endings;

  void start(const std::string& path = "A.svc/B", const Object& params = kParams) {
    connector->startAsyncTask_params_progress_finished(path, params, nullptr, into(endings));
  }
  bool finishes() {
    return served([this] { return !endings.empty(); });
  }
};

TEST(RestConnectorTask, PostsTheParametersAsJSONOverSeveralLinesWithTheirHeaders) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = R"({"ReturnStatus":"1"})"});
    Call call;
    call.start();
    ASSERT_TRUE(call.finishes());
    ASSERT_EQ(server->requests().size(), 1U);
    const ReceivedRequest request = server->requests()[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/KestrineRestService/A.svc/B");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(request.header("Content-Length"), std::to_string(request.body.size()));
    EXPECT_EQ(request.header("Accept"), std::nullopt) << "the data session's header, but this is a download session";
    EXPECT_EQ(request.header("Expect"), std::nullopt);
    EXPECT_EQ(platform::readJSON(request.body), kParams);
    EXPECT_THAT(request.body, HasSubstr("\n"));
    EXPECT_EQ(call.endings[0].status, 0);
    EXPECT_EQ(call.endings[0].object(), object({{"ReturnStatus", "1"}}));
    EXPECT_TRUE(call.endings[0].onMainLoop);
  });
}

TEST(RestConnectorTask, SendsAnArrayAsItIs) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "[]"});
    Call call;
    call.start("A.svc/B", Object(platform::Array{Object("1"), Object("2")}));
    ASSERT_TRUE(call.finishes());
    EXPECT_EQ(platform::readJSON(server->requests()[0].body), Object(platform::Array{Object("1"), Object("2")}));
    EXPECT_EQ(call.endings[0].object(), Object(platform::Array()));
  });
}

TEST(RestConnectorTask, TakesAnyStatusWithAJSONBodyForASuccess) {
  inRestNetwork([] {
    const auto server = restServer([](const ReceivedRequest& request) {
      return Answer{.status = std::stoi(request.target.substr(request.target.size() - 3)), .body = R"({"a":1})"};
    });
    for (const char* status : {"200", "404", "500"}) {
      Call call;
      call.start(std::string("Status/") + status);
      ASSERT_TRUE(call.finishes()) << status;
      EXPECT_EQ(call.endings[0].status, 0) << status;
      EXPECT_EQ(call.endings[0].object(), object({{"a", Object::numberWithLongLong(1)}})) << status;
    }
  });
}

TEST(RestConnectorTask, TakesABodyThatIsNoJSONForAParseErrorAndLogsNothingForIt) {
  inRestNetwork([] {
    const auto server = restServer(
        [](const ReceivedRequest& request) { return Answer{.body = request.target.find("empty") != std::string::npos ? "" : "<html>"}; });
    for (const char* path : {"empty", "html"}) {
      const CapturedStandardError captured;
      Call call;
      call.start(path);
      ASSERT_TRUE(call.finishes());
      EXPECT_EQ(call.endings[0].status, 5);
      EXPECT_EQ(call.endings[0].error().code, 3840);
      EXPECT_THAT(captured.text(), HasSubstr("response (null)"));
    }
  });
}

TEST(RestConnectorTask, JoinsAPathThatBeginsWithASlashWithTwo) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    Call call;
    EXPECT_EQ(call.connector->getAbsoluteURL("/A")->absoluteString(), restBaseURL() + "/A");
    call.start("/A");
    ASSERT_TRUE(call.finishes());
    EXPECT_EQ(server->requests()[0].target, "/KestrineRestService//A");
  });
}

TEST(RestConnectorTask, EndsAtOnceWithoutANetworkAndTouchesNothing) {
  inNetworkNamespace([] {
    ip("link set lo up");
    const auto server = restServerThatAnswers({.body = "{}"});
    const CapturedStandardError captured;
    Call call;
    call.start();
    ASSERT_EQ(call.endings.size(), 1U) << "told later than before the return";
    EXPECT_EQ(call.endings[0].status, 1);
    EXPECT_TRUE(call.endings[0].object().isNil());
    EXPECT_EQ(call.endings[0].thread, std::this_thread::get_id());
    EXPECT_FALSE(call.connector->session());
    EXPECT_FALSE(call.connector->sessionTask());
    serveFor(0.2);
    EXPECT_TRUE(server->requests().empty());
    EXPECT_EQ(captured.text(), "");
  });
}

TEST(RestConnectorTask, EndsAtOnceWhenTheParametersAreNoJSON) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    Call call;
    call.start("A", object({{"when", Object(platform::Date{1})}}));
    ASSERT_EQ(call.endings.size(), 1U);
    EXPECT_EQ(call.endings[0].status, 4);
    EXPECT_EQ(call.endings[0].error().domain, "NSCocoaErrorDomain");
    EXPECT_TRUE(call.connector->session()) << "the session is made before the body";
    EXPECT_FALSE(call.connector->sessionTask());
    EXPECT_TRUE(server->requests().empty());
  });
}

TEST(RestConnectorTask, TellsOfATransportErrorAndLogsIt) {
  inRestNetwork([] {
    const CapturedStandardError captured;
    Call call;
    call.start();  // nobody listens
    ASSERT_TRUE(call.finishes());
    EXPECT_EQ(call.endings[0].status, 2);
    EXPECT_EQ(call.endings[0].error().domain, "NSURLErrorDomain");
    EXPECT_EQ(call.endings[0].error().code, -1004);
    EXPECT_TRUE(call.endings[0].onMainLoop);
    const std::string log = captured.text();
    EXPECT_THAT(log, HasSubstr("Json String {\n"));
    EXPECT_THAT(log, HasSubstr("error code ....Error Domain=NSURLErrorDomain Code=-1004 "));
    EXPECT_THAT(log, HasSubstr("network error\n"));
    EXPECT_THAT(log, Not(HasSubstr("error code at rest connector")));
  });
}

TEST(RestConnectorTask, LogsTheBodyAndTheAnswer) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = R"({"ReturnStatus":"1"})"});
    const CapturedStandardError captured;
    Call call;
    call.start("A", object({{"UserID", "7"}}));
    ASSERT_TRUE(call.finishes());
    EXPECT_THAT(captured.text(), HasSubstr("Json String " + server->requests()[0].body));
    EXPECT_THAT(captured.text(), HasSubstr("response " + object({{"ReturnStatus", "1"}}).description()));
  });
}

TEST(RestConnectorTask, AHandlerThatThrowsIsLoggedAndTheNextRequestWorks) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = R"({"FileToTransfer":null})"});
    const CapturedStandardError captured;
    const auto connector = std::make_shared<RestConnector>();
    bool called = false;
    connector->startAsyncTask_params_progress_finished("A", kParams, nullptr, [&called](const RestResult&, RestTaskStatus) {
      called = true;
      throw platform::Exception(platform::NSInvalidArgumentException, "what a parser says of it");
    });
    ASSERT_TRUE(served([&called] { return called; }));
    Call next;
    next.start();
    ASSERT_TRUE(next.finishes());
    EXPECT_EQ(next.endings[0].status, 0);
    EXPECT_THAT(captured.text(), HasSubstr("what a parser says of it"));
  });
}

TEST(RestConnectorTask, KeepsItsConnectorUntilItHasFinishedAndNoLonger) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    Call call;
    call.start();
    const std::weak_ptr<RestConnector> observer = call.connector;
    call.connector.reset();
    EXPECT_FALSE(observer.expired());
    ASSERT_TRUE(call.finishes());
    EXPECT_TRUE(served([&observer] { return observer.expired(); }));
  });
}

TEST(RestConnectorTask, ASecondStartReplacesTheTaskAndLeavesTheFirstToFinish) {
  inRestNetwork([] {
    const auto server = restServer([](const ReceivedRequest& request) { return Answer{.body = R"([")" + request.target + R"("])"}; });
    Call call;
    call.start("first");
    const auto session = call.connector->session();
    const auto task = call.connector->sessionTask();
    call.start("second");
    EXPECT_NE(call.connector->session(), session);
    EXPECT_NE(call.connector->sessionTask(), task);
    ASSERT_TRUE(served([&call] { return call.endings.size() == 2; }));
    std::vector<std::string> answers;
    for (const Ending& ending : call.endings) answers.push_back(ending.object().objectAtIndex(0).stringValue());
    EXPECT_THAT(answers, testing::UnorderedElementsAre("/KestrineRestService/first", "/KestrineRestService/second"));
  });
}

}  // namespace
}  // namespace kestrine::test
