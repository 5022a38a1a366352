// What an operation passes on when there is no answer, and the two stream calls.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/services/ExpectedCalls.h"
#include "tests/services/ExpectedKeys.h"
#include "tests/services/ProductServer.h"
#include "tests/services/SystemVersionForTest.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::HasSubstr;

constexpr auto kAsk = RestInterface::asyncIsFileExistsInCloud_withCompiletionHandler;
constexpr const char* kAskTarget = "MAC/SharedFiles.svc/IsFileExistsInCloud";

TEST(RestCallFailures, WithoutANetworkItIsToldBeforeTheCallReturns) {
  inNetworkNamespace([] {
    for (const char* system : {"14.0", "10.9.5"}) {
      const SystemVersionForTest version(system);
      int calls = 0;
      LogOfCall log;
      kAsk({.strFullPath = "/a"}, [&](const RestAnswer<IsFileExistsInCloudResponseData>& answer, RestTaskStatus status) {
        ++calls;
        EXPECT_EQ(status, RestStatusNotReachable);
        EXPECT_FALSE(answer.result);
        EXPECT_FALSE(answer.error);
      });
      EXPECT_EQ(calls, 1);
      const std::string text = log.end();
      EXPECT_THAT(text, HasSubstr("] rest connector at cloud ....(null)\n"));
      EXPECT_THAT(text, HasSubstr("] trace code error...........\n"));
    }
    int calls = 0;
    RestInterface::asyncGetTopFileUploadWithStream_withCompletionHandler(
        {}, [&](const auto& response, const auto& data, RestTaskStatus status) {
          ++calls;
          EXPECT_EQ(status, RestStatusNotReachable);
          EXPECT_FALSE(response);
          EXPECT_FALSE(data);
        });
    RestInterface::asyncUpdateFileRequestWithStream_withCompletionHandler({}, [&](const auto& answer, RestTaskStatus status) {
      ++calls;
      EXPECT_EQ(status, RestStatusNotReachable);
      EXPECT_FALSE(answer.result);
    });
    EXPECT_EQ(calls, 2);
  });
}

TEST(RestCallFailures, ATransportErrorIsPassedOnAsItIs) {
  inRestNetwork([] {
    for (const char* system : {"14.0", "10.9.5"}) {
      const SystemVersionForTest version(system);
      LogOfCall log;
      const auto received = callToTheEnd(kAsk, IsFileExistsInCloudQuery{.strFullPath = "/a"});
      const std::string text = log.end();
      ASSERT_EQ(received->calls, 1);
      EXPECT_EQ(received->status, RestStatusNetworkError) << "nobody listens";
      EXPECT_FALSE(received->answer.result);
      ASSERT_TRUE(received->answer.error);
      EXPECT_EQ(received->answer.error->domain, "NSURLErrorDomain");
      EXPECT_EQ(received->answer.error->code, -1004);
      EXPECT_THAT(text, HasSubstr("] rest connector at cloud ....Error Domain=NSURLErrorDomain Code=-1004 "));
      EXPECT_THAT(text, HasSubstr("] trace code error...........\n"));
    }
  });
}

TEST(RestCallFailures, OnlyTheBodyDecidesWhatIsAnAnswer) {
  inRestNetwork([] {
    ProductServer server;
    for (const char* system : {"14.0", "10.9.5"}) {
      const SystemVersionForTest version(system);
      server.setAnswer(kAskTarget, Answer{.status = 404, .body = R"({"IsExists":"0"})"});
      const auto missing = callToTheEnd(kAsk, IsFileExistsInCloudQuery{.strFullPath = "/a"});
      EXPECT_EQ(missing->status, RestStatusSuccess);
      ASSERT_TRUE(missing->answer.result);
      EXPECT_EQ(missing->answer.result->isExists, Object("0"));
      for (const char* body : {"", "<html>", "\"text\"", "{}x", "[\"\\uDE00\"]"}) {
        server.setAnswer(kAskTarget, body);
        const auto received = callToTheEnd(kAsk, IsFileExistsInCloudQuery{.strFullPath = "/a"});
        EXPECT_EQ(received->status, RestStatusResponseParseError) << body;
        EXPECT_FALSE(received->answer.result);
        EXPECT_TRUE(received->answer.error);
      }
    }
  });
}

TEST(RestCallFailures, ABodyThatIsNoJSONIsToldBeforeTheCallReturns) {
  inRestNetwork([] {
    for (const char* system : {"14.0", "10.9.5"}) {
      const SystemVersionForTest version(system);
      int calls = 0;
      kAsk({.strFullPath = "not UTF-8: \xFF"}, [&](const RestAnswer<IsFileExistsInCloudResponseData>& answer, RestTaskStatus status) {
        ++calls;
        EXPECT_EQ(status, RestStatusBodyEncodingError);
        EXPECT_TRUE(answer.error);
        EXPECT_FALSE(answer.result);
      });
      EXPECT_EQ(calls, 1);
    }
  });
}

TEST(RestStreamCalls, TheDownloadHandsTheAnswerOverAsItCame) {
  inRestNetwork([] {
    ProductServer server;
    server.setAnswer(kStreamTarget, Answer{.status = 206, .body = std::string("\0\xFF{", 3), .headers = {{"Content-Type", "image/png"}}});
    auto life = std::make_shared<int>();
    const std::weak_ptr<int> watched = life;
    int calls = 0;
    RestInterface::asyncGetTopFileUploadWithStream_withCompletionHandler(
        {.toComputerId = "7"}, [&calls, life = std::move(life)](const auto& response, const auto& data, RestTaskStatus status) {
          ++calls;
          EXPECT_EQ(status, RestStatusSuccess);
          ASSERT_TRUE(response);
          EXPECT_EQ(response->statusCode(), 206);
          ASSERT_TRUE(data);
          EXPECT_EQ(data->text(), std::string("\0\xFF{", 3));
        });
    ASSERT_TRUE(served([&] { return watched.expired(); }));
    EXPECT_EQ(calls, 1);
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].target, std::string(kBasePath) + kStreamTarget);
    EXPECT_EQ(requests[0].header("Accept"), "application/json");
    EXPECT_THAT(requests[0].header("Content-Type").value_or(""), HasSubstr("application/json"));
    EXPECT_EQ(platform::readJSON(requests[0].body), Object(platform::Dictionary{{"ToComputerID", "7"}}));
  });
}

TEST(RestStreamCalls, TheDownloadDropsTheError) {
  inRestNetwork([] {
    auto life = std::make_shared<int>();
    const std::weak_ptr<int> watched = life;
    int calls = 0;
    RestInterface::asyncGetTopFileUploadWithStream_withCompletionHandler(
        {.toComputerId = "7"}, [&calls, life = std::move(life)](const auto& response, const auto& data, RestTaskStatus status) {
          ++calls;
          EXPECT_EQ(status, RestStatusNetworkError);
          EXPECT_FALSE(response);
          EXPECT_FALSE(data);
        });
    ASSERT_TRUE(served([&] { return watched.expired(); }));
    EXPECT_EQ(calls, 1);
  });
}

TEST(RestStreamCalls, TheUploadSendsTheFileWithItsIdentityInTheHeader) {
  inRestNetwork([] {
    const TemporaryDirectory home;
    setenv("HOME", home.path().c_str(), 1);
    const TemporaryDirectory folder;
    writeFile(folder / "a.txt", "the content");
    std::string serverPath = folder / "a.txt";
    serverPath.erase(0, 1);
    for (char& c : serverPath) {
      if (c == '/') c = '\\';
    }
    ProductServer server;
    server.setAnswer(kUploadCall.target, R"({"ReturnStatus":"1","error":{}})");
    const UpdateFileRequestQuery query = {
        .filePath = serverPath, .fileRequestId = "r1", .transitDownloadPath = "t\\1", .attachment = "not sent"};
    LogOfCall log;
    const auto received = callToTheEnd(kUploadCall.method, query);
    EXPECT_THAT(log.end(), HasSubstr("] strem dictionary {\n    Attachment = \"not sent\";\n"));
    ASSERT_EQ(received->calls, 1);
    EXPECT_EQ(received->status, RestStatusSuccess);
    ASSERT_TRUE(received->answer.result);
    EXPECT_EQ(received->answer.result->ReturnStatus, Object("1"));
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].target, kBasePath + kUploadCall.target);
    EXPECT_EQ(requests[0].body, "the content");
    EXPECT_EQ(requests[0].header("Content-Type"), "application/octet-stream");
    EXPECT_EQ(requests[0].header("FilePath"), serverPath);
    EXPECT_EQ(requests[0].header("TransitDownloadPath"), "t\\1");
    EXPECT_EQ(requests[0].header("FileRequestID"), "r1");
    EXPECT_EQ(requests[0].header("Attachment"), std::nullopt);

    // An answer that is no JSON is a record with everything unset.
    server.setAnswer(kUploadCall.target, "thanks");
    const auto unread = callToTheEnd(kUploadCall.method, query);
    EXPECT_EQ(unread->status, RestStatusSuccess);
    ASSERT_TRUE(unread->answer.result);
    EXPECT_TRUE(unread->answer.result->ReturnStatus.isNil());
    EXPECT_TRUE(unread->answer.result->error.isNil());
  });
}

}  // namespace
}  // namespace kestrine::test
