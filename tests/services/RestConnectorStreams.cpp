// The raw answer, the plain download and the JSON upload that sends nothing.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Services/RestConnector.h"
#include "tests/foundation/CapturedStandardError.h"
#include "tests/services/RestNetwork.h"

namespace kestrine::test {
namespace {

using platform::Bytes;
using platform::CapturedStandardError;
using platform::Error;
using platform::Object;
using testing::HasSubstr;

const Object kNoJSON = object({{"when", Object(platform::Date{1})}});

struct RawEnding {
  std::shared_ptr<const platform::URLResponse> response;
  RestDataResult data;
  RestTaskStatus status;
};

std::vector<RawEnding> rawCall(const std::shared_ptr<RestConnector>& connector, const Object& params) {
  std::vector<RawEnding> endings;
  connector->startAsyncDownloadWithStreamRequest_params_progress_finished(
      "U.svc/Raw", params, nullptr, [&endings](const auto& response, const RestDataResult& data, RestTaskStatus status) {
        endings.push_back({response, data, status});
      });
  EXPECT_TRUE(served([&endings] { return !endings.empty(); }));
  return endings;
}

TEST(RestConnectorRaw, PostsOnADataSessionAndHandsTheAnswerOverUnread) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.status = 404, .body = "<not json>", .headers = {{"Content-Type", "text/html"}}});
    const auto connector = std::make_shared<RestConnector>();
    const CapturedStandardError captured;
    const auto endings = rawCall(connector, object({{"ToComputerID", "3"}}));
    ASSERT_EQ(endings.size(), 1U);
    EXPECT_EQ(endings[0].status, 0);
    ASSERT_TRUE(endings[0].response);
    EXPECT_EQ(endings[0].response->statusCode(), 404);
    EXPECT_EQ(std::get<Bytes>(endings[0].data).text(), "<not json>");
    const ReceivedRequest request = server->requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/KestrineRestService/U.svc/Raw");
    EXPECT_EQ(request.header("Accept"), "application/json");
    EXPECT_EQ(request.header("Content-Type"), "application/json") << "the session's own is not added to the request's";
    EXPECT_EQ(platform::readJSON(request.body), object({{"ToComputerID", "3"}}));
    EXPECT_THAT(captured.text(), HasSubstr("] " + request.body)) << "the body is logged as it is";
    EXPECT_TRUE(connector->sessionTask());
  });
}

TEST(RestConnectorRaw, HandsOverAnEmptyBodyAsAnEmptyBody) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = ""});
    const auto endings = rawCall(std::make_shared<RestConnector>(), object({}));
    EXPECT_EQ(endings.at(0).status, 0);
    EXPECT_TRUE(std::get<Bytes>(endings.at(0).data).empty());
  });
}

TEST(RestConnectorRaw, PutsItsErrorsIntoTheSecondPlace) {
  inRestNetwork([] {
    const auto refused = rawCall(std::make_shared<RestConnector>(), object({}));
    EXPECT_EQ(refused.at(0).status, 2);
    EXPECT_FALSE(refused.at(0).response);
    EXPECT_EQ(std::get<Error>(refused.at(0).data).code, -1004);
    const auto noJSON = rawCall(std::make_shared<RestConnector>(), kNoJSON);
    EXPECT_EQ(noJSON.at(0).status, 4);
    EXPECT_FALSE(noJSON.at(0).response);
    EXPECT_EQ(std::get<Error>(noJSON.at(0).data).domain, "NSCocoaErrorDomain");
  });
}

TEST(RestConnectorRaw, WithoutANetworkHasNothingInEitherPlace) {
  inNetworkNamespace([] {
    const auto connector = std::make_shared<RestConnector>();
    const auto endings = rawCall(connector, object({}));
    EXPECT_EQ(endings.at(0).status, 1);
    EXPECT_FALSE(endings.at(0).response);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(endings.at(0).data));
    EXPECT_FALSE(connector->session());
  });
}

struct DataEnding {
  RestDataResult data;
  RestTaskStatus status;
};

std::vector<DataEnding> download(const std::shared_ptr<RestConnector>& connector, const std::string& url) {
  std::vector<DataEnding> endings;
  connector->startAsyncDownload_progress_finished(url, nullptr, [&endings](const RestDataResult& data, RestTaskStatus status) {
    endings.push_back({data, status});
  });
  EXPECT_TRUE(served([&endings] { return !endings.empty(); }));
  return endings;
}

TEST(RestConnectorDownload, FetchesAnAbsoluteAddressAndHandsOverTheFile) {
  inRestNetwork([] {
    const std::string body(300000, 'x');
    const HTTPServer server([&body](const ReceivedRequest&) { return Answer{.body = body}; });
    const auto connector = std::make_shared<RestConnector>();
    const auto endings = download(connector, server.url("/files/a"));
    EXPECT_EQ(endings.at(0).status, 0);
    EXPECT_EQ(std::get<Bytes>(endings.at(0).data).text(), body) << "readable after the session has removed its file";
    EXPECT_EQ(server.requests().at(0).method, "GET");
    EXPECT_EQ(server.requests().at(0).target, "/files/a");
    EXPECT_TRUE(connector->sessionTask());
    EXPECT_EQ(connector->close(), 11);
  });
}

TEST(RestConnectorDownload, LogsAnErrorInItsOwnSpellingAfterItWasTold) {
  inRestNetwork([] {
    for (const auto& [url, code] : {std::pair{"http://127.0.0.1:1/", -1004}, std::pair{"http://a b/", -1002}}) {
      const CapturedStandardError captured;
      const auto endings = download(std::make_shared<RestConnector>(), url);
      EXPECT_EQ(endings.at(0).status, 2);
      EXPECT_EQ(std::get<Error>(endings.at(0).data).code, code) << url;
      EXPECT_THAT(captured.text(), HasSubstr("nework error.......Error Domain=NSURLErrorDomain Code=" + std::to_string(code)));
    }
  });
}

TEST(RestConnectorDownload, WithoutANetworkHasNothing) {
  inNetworkNamespace([] {
    const auto endings = download(std::make_shared<RestConnector>(), "http://127.0.0.1/");
    EXPECT_EQ(endings.at(0).status, 1);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(endings.at(0).data));
  });
}

TEST(RestConnectorJSONUpload, MakesTheRequestAndSendsNothing) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    const CapturedStandardError captured;
    const auto connector = std::make_shared<RestConnector>();
    std::vector<Ending> endings;
    connector->startAsyncUpload_params_progress_finished("A.svc/B", object({{"secret", "word"}}), nullptr, into(endings));
    serveFor(0.3);
    EXPECT_TRUE(endings.empty());
    EXPECT_TRUE(server->requests().empty());
    EXPECT_TRUE(connector->session());
    EXPECT_EQ(connector->resume(), 7);
    EXPECT_THAT(captured.text(), testing::EndsWith("] url is........" + restBaseURL() + "A.svc/B\n"));
    EXPECT_THAT(captured.text(), testing::Not(HasSubstr("secret"))) << "this entry does not log its body";
    connector->startAsyncUpload_params_progress_finished("A", kNoJSON, nullptr, into(endings));
    ASSERT_EQ(endings.size(), 1U);
    EXPECT_EQ(endings[0].status, 4);
  });
}

TEST(RestConnectorJSONUpload, TellsOfAMissingNetwork) {
  inNetworkNamespace([] {
    std::vector<Ending> endings;
    std::make_shared<RestConnector>()->startAsyncUpload_params_progress_finished("A", object({}), nullptr, into(endings));
    ASSERT_EQ(endings.size(), 1U);
    EXPECT_EQ(endings[0].status, 1);
    EXPECT_TRUE(endings[0].object().isNil());
  });
}

}  // namespace
}  // namespace kestrine::test
