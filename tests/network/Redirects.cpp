#include <gtest/gtest.h>

#include "tests/network/Fetch.h"
#include "tests/support/http/HTTPServer.h"

namespace kestrine::test {
namespace {

/// "/301", "/302?..." and so on redirect to "/end"; "/end" says what arrived.
class Redirect : public testing::Test {
 protected:
  static Answer answer(const ReceivedRequest& request) {
    const int status = std::atoi(request.target.c_str() + 1);
    if (status > 0) return {.status = status, .body = "moved", .headers = {{"Location", "/end?from=" + std::to_string(status)}}};
    return {.body = request.method + " " + request.target + " [" + request.body + "] " + request.header("Content-Type").value_or("-") +
                    " " + request.header("Authorization").value_or("-")};
  }
  std::string follow(const std::string& method, int status) {
    auto request = requestFor(server.url("/" + std::to_string(status)), method, method == "GET" ? "" : "body");
    if (method != "GET") request.setValue_forHTTPHeaderField("text/plain", "Content-Type");
    request.setValue_forHTTPHeaderField("mine", "Authorization");
    const auto got = fetch(request);
    EXPECT_EQ(got.code(), 0);
    EXPECT_EQ(got.response->URL().absoluteString(), server.url("/end?from=" + std::to_string(status)));
    return got.text();
  }
  HTTPServer server{answer};
};

TEST_F(Redirect, ChangesTheMethodAsThePlatformDoes) {
  EXPECT_EQ(follow("GET", 301), "GET /end?from=301 [] - mine");
  EXPECT_EQ(follow("POST", 301), "GET /end?from=301 [] - mine");
  EXPECT_EQ(follow("POST", 302), "GET /end?from=302 [] - mine");
  EXPECT_EQ(follow("POST", 303), "GET /end?from=303 [] - mine");
  EXPECT_EQ(follow("PUT", 303), "GET /end?from=303 [] - mine");
  EXPECT_EQ(follow("PUT", 302), "PUT /end?from=302 [body] text/plain mine");
  EXPECT_EQ(follow("POST", 307), "POST /end?from=307 [body] text/plain mine");
  EXPECT_EQ(follow("POST", 308), "POST /end?from=308 [body] text/plain mine");
}

TEST_F(Redirect, OtherStatusesAreRepliesEvenWithALocation) {
  for (const int status : {300, 304, 305, 306}) {
    const auto got = fetch(server.url("/" + std::to_string(status)));
    EXPECT_EQ(got.status(), status);
  }
}

TEST(Redirects, ACredentialIsNotCarriedToAnotherOrigin) {
  HTTPServer end([](const ReceivedRequest& request) {
    return Answer{.body = request.header("Authorization").value_or("-") + request.header("Cookie").value_or("-") +
                          request.header("X-Other").value_or("-")};
  });
  HTTPServer server([&](const ReceivedRequest&) { return Answer{.status = 302, .headers = {{"Location", end.url("/")}}}; });
  auto request = requestFor(server.url("/"));
  request.setValue_forHTTPHeaderField("secret", "Authorization");
  request.setValue_forHTTPHeaderField("c=d", "Cookie");
  request.setValue_forHTTPHeaderField("other", "X-Other");
  EXPECT_EQ(fetch(request).text(), "--other");
}

TEST(Redirects, LoopsEnd) {
  HTTPServer server([](const ReceivedRequest& request) {
    return Answer{.status = 302, .headers = {{"Location", request.target == "/a" ? "/b" : "/a"}}};
  });
  const auto got = fetch(server.url("/a"));
  EXPECT_EQ(got.code(), -1007);
  EXPECT_FALSE(got.data);
  EXPECT_EQ(server.requests().size(), 21U);
}

TEST(Redirects, AsManyAsThereMayBeAreFollowed) {
  HTTPServer server([](const ReceivedRequest& request) {
    const int left = std::stoi(request.target.substr(1));
    if (left == 0) return Answer{.body = "there"};
    return Answer{.status = 307, .headers = {{"Location", std::to_string(left - 1)}}};
  });
  EXPECT_EQ(fetch(server.url("/20")).text(), "there");
  EXPECT_EQ(fetch(server.url("/21")).code(), -1007);
}

TEST(Redirects, ThatLeadNowhereAreErrors) {
  HTTPServer server([](const ReceivedRequest& request) {
    return Answer{.status = 302, .headers = {{"Location", request.target == "/file" ? "file:///etc/hostname" : "http://[bad"}}};
  });
  EXPECT_EQ(fetch(server.url("/file")).code(), -1002);
  EXPECT_EQ(fetch(server.url("/bad")).code(), -1000);
}

TEST(Redirects, WithoutALocationAreReplies) {
  HTTPServer server([](const ReceivedRequest&) { return Answer{.status = 302, .body = "nowhere"}; });
  const auto got = fetch(server.url("/"));
  EXPECT_EQ(got.status(), 302);
  EXPECT_EQ(got.text(), "nowhere");
}

TEST(Redirects, ALargeBodyOnTheWayIsNotWaitedFor) {
  HTTPServer server([](const ReceivedRequest& request) {
    if (request.target == "/end") return Answer{.body = "end"};
    return Answer{.status = 301, .body = std::string(5U << 20U, 'r'), .headers = {{"Location", "/end"}}};
  });
  EXPECT_EQ(fetch(server.url("/")).text(), "end");
}

}  // namespace
}  // namespace kestrine::test
