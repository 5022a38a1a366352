#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Services/RestConnector.h"
#include "Services/RestJSON.h"
#include "platform/network/message/URLError.h"
#include "tests/foundation/CapturedStandardError.h"
#include "tests/services/RestNetwork.h"
#include "tests/support/http/RawServer.h"

namespace kestrine::test {
namespace {

using platform::CapturedStandardError;
using platform::Object;
using testing::HasSubstr;

std::size_t countOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

TEST(RestTaskStatus, HasTheNumbersThatCallersRelyOn) {
  EXPECT_EQ(RestStatusSuccess, 0);
  EXPECT_EQ(RestStatusNotReachable, 1);
  EXPECT_EQ(RestStatusNetworkError, 2);
  EXPECT_EQ(RestStatusBodyEncodingError, 4);
  EXPECT_EQ(RestStatusResponseParseError, 5);
  EXPECT_EQ(RestStatusResumed, 6);
  EXPECT_EQ(RestStatusResumeNoTask, 7);
  EXPECT_EQ(RestStatusPaused, 8);
  EXPECT_EQ(RestStatusPauseNoTask, 9);
  EXPECT_EQ(RestStatusCloseNoTask, 10);
  EXPECT_EQ(RestStatusClosed, 11);
}

TEST(RestConnectorControl, AnswersEachWithItsOwnNumberWhenThereIsNoTask) {
  const auto connector = std::make_shared<RestConnector>();
  EXPECT_EQ(connector->resume(), 7);
  EXPECT_EQ(connector->pause(), 9);
  EXPECT_EQ(connector->close(), 10);
}

TEST(RestConnectorControl, PauseKeepsARunningTaskRunning) {
  inRestNetwork([] {
    std::atomic<bool> go = false;
    const auto server = restServer([&go](const ReceivedRequest&) {
      eventually([&go] { return go.load(); });
      return Answer{.body = "{}"};
    });
    const auto connector = std::make_shared<RestConnector>();
    std::vector<Ending> endings;
    connector->startAsyncTask_params_progress_finished("A", object({}), nullptr, into(endings));
    EXPECT_EQ(connector->pause(), 8);
    EXPECT_EQ(connector->sessionTask()->state(), platform::URLSessionTask::State::Running);
    EXPECT_EQ(connector->resume(), 6);
    go = true;
    ASSERT_TRUE(served([&endings] { return !endings.empty(); }));
    EXPECT_EQ(endings[0].status, 0);
    EXPECT_EQ(connector->pause(), 8) << "a task that has finished is a task";
  });
}

TEST(RestConnectorControl, PauseStartsATaskThatWasNeverResumed) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    const auto connector = std::make_shared<RestConnector>();
    connector->configSessionForDownload();
    connector->setSessionTask(connector->session()->dataTaskWithURL(connector->getAbsoluteURL("A").value()));
    EXPECT_EQ(connector->pause(), 8);
    EXPECT_TRUE(served([&server] { return !server->requests().empty(); }));
  });
}

TEST(RestConnectorControl, CloseCancelsTheTask) {
  inRestNetwork([] {
    std::atomic<bool> go = false;
    const auto server = restServer([&go](const ReceivedRequest&) {
      eventually([&go] { return go.load(); });
      return Answer{.body = "{}"};
    });
    const auto connector = std::make_shared<RestConnector>();
    std::vector<Ending> endings;
    connector->startAsyncTask_params_progress_finished("A", object({}), nullptr, into(endings));
    EXPECT_EQ(connector->close(), 11);
    ASSERT_TRUE(served([&endings] { return !endings.empty(); }));
    EXPECT_EQ(endings[0].status, 2);
    EXPECT_EQ(endings[0].error().code, -999);
    go = true;
  });
}

TEST(RestConnectorControl, ASilentServerIsWaitedForAndAChallengeStaysUnanswered) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.status = 401, .body = "{}", .headers = {{"WWW-Authenticate", "Basic realm=\"a\""}}});
    const auto connector = std::make_shared<RestConnector>();
    std::vector<Ending> endings;
    connector->startAsyncTask_params_progress_finished("A", object({}), nullptr, into(endings));
    ASSERT_TRUE(served([&server] { return !server->requests().empty(); }));
    serveFor(1);
    EXPECT_TRUE(endings.empty()) << "the challenge was answered by somebody";
    connector->close();
    EXPECT_TRUE(served([&endings] { return !endings.empty(); }));
  });
}

TEST(RestConnectorControl, ItsDelegateMethodsNeitherAnswerNorReportAnything) {
  const auto connector = std::make_shared<RestConnector>();
  connector->configSessionForData();
  bool called = false;
  connector->setProgressHandler([&called](double) { called = true; });
  const auto answer = [&called](platform::URLSessionAuthChallengeDisposition, const std::optional<platform::URLCredential>&) {
    called = true;
  };
  const auto url = platform::URL::URLWithString("http://localhost/").value();
  const auto task = connector->session()->dataTaskWithURL(url);
  platform::URLSessionDelegate& delegate = *connector;
  delegate.URLSession_didReceiveChallenge_completionHandler(connector->session(), {}, answer);
  delegate.URLSession_task_didReceiveChallenge_completionHandler(connector->session(), task, {}, answer);
  delegate.URLSession_downloadTask_didWriteData_totalBytesWritten_totalBytesExpectedToWrite(connector->session(), task, 1, 1, 2);
  delegate.URLSession_downloadTask_didFinishDownloadingToURL(connector->session(), task, url);
  delegate.URLSession_downloadTask_didResumeAtOffset_expectedTotalBytes(connector->session(), task, 1, 2);
  EXPECT_FALSE(called);
}

TEST(RestConnectorControl, ItsDelegateLogsTheEndOfATask) {
  const auto connector = std::make_shared<RestConnector>();
  connector->configSessionForData();
  const auto task = connector->session()->dataTaskWithURL(platform::URL::URLWithString("http://localhost/").value());
  const CapturedStandardError captured;
  connector->URLSession_task_didCompleteWithError(connector->session(), task, std::nullopt);
  connector->URLSession_task_didCompleteWithError(connector->session(), task, platform::Error{"D", 5, "words"});
  EXPECT_EQ(countOf(captured.text(), " .........(null)\n"), 2U) << captured.text();
  EXPECT_THAT(captured.text(), HasSubstr(" error ............(null)\n"));
  EXPECT_THAT(captured.text(), HasSubstr(" error ............Error Domain=D Code=5 \"words\"\n"));
}

TEST(RestConnectorControl, AnErrorOfTheUnknownCodeIsTwoLinesOfTheLogAndNothingElse) {
  const CapturedStandardError captured;
  std::vector<Ending> endings;
  restTaskCompleted(std::nullopt, platform::Error{"NSURLErrorDomain", -1, "unknown"}, into(endings));
  EXPECT_TRUE(endings.empty());
  EXPECT_EQ(countOf(captured.text(), "\n"), 2U) << captured.text();
  EXPECT_THAT(captured.text(), HasSubstr("error code ....Error Domain=NSURLErrorDomain Code=-1 \"unknown\"\n"));
  EXPECT_THAT(captured.text(), HasSubstr(" error code at rest connector strt async task......\n"));
}

TEST(RestConnectorControl, ConfiguresEachKindOfSessionAsItsTableSays) {
  struct Row {
    void (RestConnector::*configure)();
    std::optional<std::string> accept, contentType;
    double request, resource;
    int connections;
  };
  const Row rows[] = {
      {&RestConnector::configSessionForData, "application/json", "application/json", 60, 60, 1},
      {&RestConnector::configSessionForUpload, std::nullopt, std::nullopt, 60, 604800, 1},
      {&RestConnector::configSessionForDownload, std::nullopt, std::nullopt, 60, 60, 6},
  };
  const auto connector = std::make_shared<RestConnector>();
  for (const Row& row : rows) {
    const auto former = connector->session();
    (connector.get()->*row.configure)();
    ASSERT_TRUE(connector->session());
    EXPECT_NE(connector->session(), former);
    const platform::URLSessionConfiguration& configuration = connector->session()->configuration();
    EXPECT_EQ(configuration.HTTPAdditionalHeaders.value("Accept"), row.accept);
    EXPECT_EQ(configuration.HTTPAdditionalHeaders.value("Content-Type"), row.contentType);
    EXPECT_EQ(configuration.HTTPAdditionalHeaders.fields().size(), row.accept ? 2U : 0U);
    EXPECT_EQ(configuration.timeoutIntervalForRequest, row.request);
    EXPECT_EQ(configuration.timeoutIntervalForResource, row.resource);
    EXPECT_EQ(configuration.HTTPMaximumConnectionsPerHost, row.connections);
    EXPECT_TRUE(configuration.allowsCellularAccess);
    EXPECT_EQ(connector->session()->delegate(), connector);
    EXPECT_EQ(connector->session()->delegateQueue(), platform::OperationQueue::mainQueue());
  }
}

TEST(RestBaseURL, IsPlainHTTPAndEndsWithASlash) {
  EXPECT_EQ(restBaseURL().substr(0, 7), "http://");
  EXPECT_THAT(restBaseURL(), testing::EndsWith("/KestrineRestService/"));
  EXPECT_EQ(restAbsoluteURL("A b"), std::nullopt) << "nothing is escaped";
  EXPECT_EQ(restAbsoluteURL("A\xEF\xBF\xBC")->absoluteString(), restBaseURL() + "A%EF%BF%BC");
}

}  // namespace
}  // namespace kestrine::test
