#include <gtest/gtest.h>

#include <future>

#include "tests/network/Fetch.h"
#include "tests/network/Recorder.h"
#include "tests/support/http/HTTPServer.h"
#include "tests/support/http/RawServer.h"

namespace kestrine::test {
namespace {

using Disposition = platform::URLSessionAuthChallengeDisposition;
using platform::URLAuthenticationChallenge;
using platform::URLChallengeHandler;
using platform::URLCredential;
using Told = std::vector<std::string>;

/// Lets "user" with "pass" in (RFC 7617) and says who asked.
Answer guarded(const ReceivedRequest& request) {
  if (request.header("Authorization") == "Basic dXNlcjpwYXNz") return {.body = "in: " + request.method + " " + request.body};
  return {.status = 401, .body = "who are you?", .headers = {{"WWW-Authenticate", "Negotiate, Basic realm=\"the \\\"area\\\", closed\""}}};
}

Recorder::Answer with(const std::string& user, const std::string& password) {
  return [=](const URLAuthenticationChallenge&, const URLChallengeHandler& answer) {
    answer(Disposition::UseCredential, URLCredential::credentialWithUser_password(user, password));
  };
}
Recorder::Answer with(Disposition disposition) {
  return [=](const URLAuthenticationChallenge&, const URLChallengeHandler& answer) { answer(disposition, std::nullopt); };
}

TEST(Challenge, WithoutADelegateTheRefusalIsTheReply) {
  HTTPServer server(guarded);
  const auto got = fetch(server.url("/"));
  EXPECT_EQ(got.code(), 0);
  EXPECT_EQ(got.status(), 401);
  EXPECT_EQ(got.text(), "who are you?");
}

TEST(Challenge, OfATaskWithAHandlerIsAllThatTheDelegateHears) {
  HTTPServer server(guarded);
  const auto delegate = std::make_shared<Recorder>(with("user", "pass"));
  const auto got = fetch(*makeSession({}, delegate), requestFor(server.url("/"), "POST", "b"));
  EXPECT_EQ(got.status(), 200);
  EXPECT_EQ(got.text(), "in: POST b");
  EXPECT_EQ(delegate->told(), Told({"challenge NSURLAuthenticationMethodHTTPBasic the \"area\", closed 0"}));
}

TEST(Challenge, AWrongCredentialIsAskedForAgain) {
  HTTPServer server(guarded);
  int asked = 0;
  const auto delegate = std::make_shared<Recorder>([&](const URLAuthenticationChallenge& challenge, const URLChallengeHandler& answer) {
    EXPECT_EQ(challenge.previousFailureCount, asked++);
    EXPECT_EQ(challenge.failureResponse->statusCode(), 401);
    answer(Disposition::UseCredential, URLCredential::credentialWithUser_password("user", asked == 3 ? "pass" : "guess"));
  });
  EXPECT_EQ(fetch(*makeSession({}, delegate), requestFor(server.url("/"))).text(), "in: GET ");
  EXPECT_EQ(asked, 3);
}

TEST(Challenge, DefaultHandlingAndARejectedSpaceGiveTheRefusal) {
  HTTPServer server(guarded);
  for (const auto disposition : {Disposition::PerformDefaultHandling, Disposition::RejectProtectionSpace, Disposition::UseCredential}) {
    const auto delegate = std::make_shared<Recorder>(with(disposition));
    const auto got = fetch(*makeSession({}, delegate), requestFor(server.url("/")));
    EXPECT_EQ(got.status(), 401);
    EXPECT_EQ(got.text(), "who are you?");
  }
}

TEST(Challenge, ThatIsCancelledCancelsTheTask) {
  HTTPServer server(guarded);
  const auto delegate = std::make_shared<Recorder>(with(Disposition::CancelAuthenticationChallenge));
  EXPECT_EQ(fetch(*makeSession({}, delegate), requestFor(server.url("/"))).code(), -999);
}

TEST(Challenge, ThatNobodyAnswersWaitsUntilTheTimeOut) {
  HTTPServer server(guarded);
  const auto delegate = std::make_shared<Recorder>();
  const auto session = makeSession(patience(0.5), delegate);
  EXPECT_EQ(fetch(*session, requestFor(server.url("/"))).code(), -1001);
  EXPECT_EQ(delegate->told().size(), 1U);
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST(Challenge, MayBeAnsweredLateTwiceAndAfterTheEnd) {
  HTTPServer server(guarded);
  std::promise<URLChallengeHandler> asked;
  const auto delegate =
      std::make_shared<Recorder>([&](const URLAuthenticationChallenge&, const URLChallengeHandler& answer) { asked.set_value(answer); });
  const auto session = makeSession({}, delegate);
  std::promise<Fetched> ended;
  session
      ->dataTaskWithRequest(requestFor(server.url("/")),
                            [&](const auto& data, const auto& response, const auto& error) {
                              ended.set_value({data, response, error});
                            })
      ->resume();
  const auto answer = asked.get_future().get();
  answer(Disposition::UseCredential, URLCredential::credentialWithUser_password("user", "pass"));
  answer(Disposition::CancelAuthenticationChallenge, std::nullopt);
  EXPECT_EQ(ended.get_future().get().text(), "in: GET ");
  answer(Disposition::CancelAuthenticationChallenge, std::nullopt);
}

TEST(Challenge, DigestIsAnswered) {
  std::mutex mutex;
  std::vector<std::string> requests;
  RawServer server([&](RawConnection& connection) {
    for (auto request = connection.readRequest(); !request.empty(); request = connection.readRequest()) {
      const bool known = request.find("Authorization: Digest username=\"user\"") != std::string::npos &&
                         request.find("realm=\"area\"") != std::string::npos && request.find("response=\"") != std::string::npos;
      {
        const std::lock_guard lock(mutex);
        requests.push_back(request);
      }
      connection.send(known ? "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nin"
                            : "HTTP/1.1 401 No\r\nWWW-Authenticate: Digest realm=\"area\", nonce=\"abc\", qop=\"auth\", algorithm=MD5\r\n"
                              "Content-Length: 3\r\n\r\nout");
    }
  });
  const auto delegate = std::make_shared<Recorder>(with("user", "pass"));
  const auto got = fetch(*makeSession({}, delegate), requestFor(server.url("/"), "POST", "body"));
  EXPECT_EQ(got.text(), "in");
  EXPECT_EQ(delegate->told(), Told({"challenge NSURLAuthenticationMethodHTTPDigest area 0"}));
  const std::lock_guard lock(mutex);
  EXPECT_TRUE(requests.back().ends_with("\r\n\r\nbody"));
}

TEST(Challenge, ARefusedBodyOfManyPiecesIsDeliveredWhole) {
  const std::string body(3U << 20U, 'n');
  HTTPServer server([&](const ReceivedRequest&) {
    return Answer{.status = 401, .body = body, .headers = {{"WWW-Authenticate", "Basic realm=\"r\""}}};
  });
  const auto delegate = std::make_shared<Recorder>(with(Disposition::PerformDefaultHandling));
  const auto got = fetch(*makeSession({}, delegate), requestFor(server.url("/")));
  EXPECT_EQ(got.status(), 401);
  EXPECT_TRUE(got.text() == body);
}

TEST(Trust, AServerThatNobodyVouchesForIsAnError) {
  const auto server = HTTPServer::overTLS([](const ReceivedRequest&) { return Answer{.body = "secret"}; });
  EXPECT_EQ(fetch(server->url("/")).code(), -1202);
  EXPECT_TRUE(server->requests().empty());
}

TEST(Trust, TheDelegateDecides) {
  const auto server = HTTPServer::overTLS([](const ReceivedRequest&) { return Answer{.body = "secret"}; });
  const auto trusting = std::make_shared<Recorder>([](const URLAuthenticationChallenge& challenge, const URLChallengeHandler& answer) {
    EXPECT_FALSE(challenge.serverIsTrustedBySystem);
    EXPECT_EQ(challenge.protectionSpace.host, "localhost");
    EXPECT_EQ(challenge.protectionSpace.protocol, "https");
    answer(Disposition::UseCredential, URLCredential::credentialForTrust());
  });
  const auto session = makeSession({}, trusting);
  EXPECT_EQ(fetch(*session, requestFor(server->url("/"))).text(), "secret");
  EXPECT_EQ(fetch(*session, requestFor(server->url("/"))).text(), "secret");
  EXPECT_EQ(trusting->told(), Told({"session challenge NSURLAuthenticationMethodServerTrust"}));
  const auto usual = std::make_shared<Recorder>(with(Disposition::PerformDefaultHandling));
  EXPECT_EQ(fetch(*makeSession({}, usual), requestFor(server->url("/"))).code(), -1202);
  const auto refusing = std::make_shared<Recorder>(with(Disposition::CancelAuthenticationChallenge));
  EXPECT_EQ(fetch(*makeSession({}, refusing), requestFor(server->url("/"))).code(), -999);
}

TEST(Trust, ThatNobodyDecidesWaitsUntilTheTimeOut) {
  const auto server = HTTPServer::overTLS([](const ReceivedRequest&) { return Answer{.body = "secret"}; });
  const auto silent = std::make_shared<Recorder>();
  EXPECT_EQ(fetch(*makeSession(patience(2), silent), requestFor(server->url("/"))).code(), -1001);
  EXPECT_TRUE(server->requests().empty());
}

TEST(Trust, AServerWithoutTLSIsAnError) {
  RawServer server([](RawConnection& connection) { connection.send("220 hello\r\n"), connection.waitForClose(); });
  EXPECT_EQ(fetch("https://localhost:" + std::to_string(server.port()) + "/").code(), -1200);
}

}  // namespace
}  // namespace kestrine::test
