#include <gtest/gtest.h>

#include "tests/network/Fetch.h"
#include "tests/support/http/RawServer.h"

namespace kestrine::test {
namespace {

using platform::URLRequest;

/// A server that answers "ok" to everything, and the requests byte by byte as they came.
class OnTheWire : public testing::Test {
 protected:
  std::string sent(const URLRequest& request, const platform::URLSessionConfiguration& configuration = {}) {
    const auto got = fetch(*makeSession(configuration), request);
    EXPECT_EQ(got.code(), 0);
    EXPECT_EQ(got.text(), "ok");
    const std::lock_guard lock(mutex_);
    return last_;
  }
  [[nodiscard]] std::string host() const { return "127.0.0.1:" + std::to_string(server.port()); }

  std::mutex mutex_;
  std::string last_;
  RawServer server{[this](RawConnection& connection) {
    auto request = connection.readRequest();
    {
      const std::lock_guard lock(mutex_);
      last_ = std::move(request);
    }
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
  }};
};

TEST_F(OnTheWire, APlainRequestHasNoHeaderThatNobodyAskedFor) {
  EXPECT_EQ(sent(requestFor(server.url("/a/b?c=d%20e"))),
            "GET /a/b?c=d%20e HTTP/1.1\r\nHost: " + host() + "\r\nAccept-Encoding: gzip, deflate\r\n\r\n");
}

TEST_F(OnTheWire, ABodyGoesWithItsLengthAndNothingElse) {
  EXPECT_EQ(sent(requestFor(server.url("/"), "POST", "{}")),
            "POST / HTTP/1.1\r\nHost: " + host() + "\r\nAccept-Encoding: gzip, deflate\r\nContent-Length: 2\r\n\r\n{}");
}

TEST_F(OnTheWire, ALargeBodyIsSentWithoutAskingFirst) {
  const std::string body(3U << 20U, 'b');
  const auto request = sent(requestFor(server.url("/"), "POST", body));
  EXPECT_EQ(request.find("Expect"), std::string::npos);
  EXPECT_TRUE(request.ends_with("Content-Length: 3145728\r\n\r\n" + body));
}

TEST_F(OnTheWire, TheLengthIsTheBodysWhateverTheFieldSays) {
  auto request = requestFor(server.url("/"), "POST", "12345");
  request.setValue_forHTTPHeaderField("77", "content-length");
  EXPECT_EQ(sent(request), "POST / HTTP/1.1\r\nHost: " + host() + "\r\nAccept-Encoding: gzip, deflate\r\nContent-Length: 5\r\n\r\n12345");
}

TEST_F(OnTheWire, APostWithoutABodySaysThatItIsEmpty) {
  EXPECT_EQ(sent(requestFor(server.url("/"), "POST")),
            "POST / HTTP/1.1\r\nHost: " + host() + "\r\nAccept-Encoding: gzip, deflate\r\nContent-Length: 0\r\n\r\n");
}

TEST_F(OnTheWire, OtherMethodsAreSentAsWritten) {
  EXPECT_TRUE(sent(requestFor(server.url("/"), "DELETE")).starts_with("DELETE / HTTP/1.1\r\n"));
  EXPECT_TRUE(sent(requestFor(server.url("/"), "REPORT", "x")).starts_with("REPORT / HTTP/1.1\r\n"));
  EXPECT_TRUE(sent(requestFor(server.url("/"), "PUT", "x")).ends_with("Content-Length: 1\r\n\r\nx"));
}

TEST_F(OnTheWire, ASetFieldReplacesAndAnAddedOneAppends) {
  auto request = requestFor(server.url("/"));
  request.setValue_forHTTPHeaderField("1", "X-One");
  request.setValue_forHTTPHeaderField("2", "x-one");
  request.addValue_forHTTPHeaderField("a", "X-Two");
  request.addValue_forHTTPHeaderField("b", "X-TWO");
  EXPECT_EQ(sent(request), "GET / HTTP/1.1\r\nHost: " + host() + "\r\nAccept-Encoding: gzip, deflate\r\nX-One: 2\r\nX-Two: a,b\r\n\r\n");
}

TEST_F(OnTheWire, TheSessionsFieldsGoWithRequestsThatDoNotHaveThem) {
  platform::URLSessionConfiguration configuration;
  configuration.HTTPAdditionalHeaders.set("Accept", "application/json");
  configuration.HTTPAdditionalHeaders.set("Content-Type", "application/json");
  auto request = requestFor(server.url("/"));
  request.addValue_forHTTPHeaderField("text/plain", "content-type");
  EXPECT_EQ(sent(request, configuration),
            "GET / HTTP/1.1\r\nHost: " + host() +
                "\r\nAccept-Encoding: gzip, deflate\r\nAccept: application/json\r\nContent-Type: text/plain\r\n\r\n");
}

TEST_F(OnTheWire, AnEmptyValueAndOneBeyondASCIIAreSent) {
  auto request = requestFor(server.url("/"));
  request.setValue_forHTTPHeaderField("", "X-Empty");
  request.setValue_forHTTPHeaderField("/Bücher", "X-Path");
  const auto wire = sent(request);
  EXPECT_NE(wire.find("\r\nX-Empty:\r\n"), std::string::npos) << wire;
  EXPECT_NE(wire.find("\r\nX-Path: /Bücher\r\n"), std::string::npos) << wire;
}

TEST_F(OnTheWire, ThePathIsSentAsItIsWritten) {
  EXPECT_TRUE(sent(requestFor(server.url("/Service//a/../b/%EF%BF%BC"))).starts_with("GET /Service//a/../b/%EF%BF%BC HTTP/1.1\r\n"));
  EXPECT_TRUE(sent(requestFor(server.url("/Transfer\xEF\xBF\xBC"))).starts_with("GET /Transfer%EF%BF%BC HTTP/1.1\r\n"));
  EXPECT_TRUE(sent(requestFor(server.url("/a#b"))).starts_with("GET /a HTTP/1.1\r\n"));
}

TEST_F(OnTheWire, WhatWouldBeAnotherHeaderInDisguiseIsRefusedAndNothingSent) {
  const std::vector<std::pair<std::string, std::string>> fields = {
      {"X", "a\r\nEvil: 1"}, {"X", "a\nb"}, {"X", "a\rb"}, {"X", std::string("a\0b", 3)}, {"X Y", "a"}, {"X:", "a"}, {"", "a"}};
  for (const auto& [name, value] : fields) {
    auto request = requestFor(server.url("/"));
    request.setValue_forHTTPHeaderField(value, name);
    const auto got = fetch(request);
    EXPECT_EQ(got.code(), -1000) << name << ": " << value;
    EXPECT_FALSE(got.data);
  }
  EXPECT_EQ(fetch(requestFor(server.url("/"), "GET /evil HTTP/1.1\r\nX:")).code(), -1000);
  EXPECT_EQ(server.accepted(), 0);
}

TEST_F(OnTheWire, TheSessionsFieldsAreRefusedLikeTheRequests) {
  platform::URLSessionConfiguration configuration;
  configuration.HTTPAdditionalHeaders.set("X", "a\nb");
  EXPECT_EQ(fetch(*makeSession(configuration), requestFor(server.url("/"))).code(), -1000);
  EXPECT_EQ(server.accepted(), 0);
}

TEST(Address, WhatIsNoHTTPAddressIsAnErrorOfItsOwn) {
  EXPECT_EQ(fetch(URLRequest(std::nullopt)).code(), -1002);
  EXPECT_EQ(fetch("relative/path").code(), -1002);
  EXPECT_EQ(fetch("ftp://127.0.0.1/file").code(), -1002);
  EXPECT_EQ(fetch("file:///etc/hostname").code(), -1002);
  EXPECT_EQ(fetch("http://").code(), -1000);
  EXPECT_EQ(fetch("http://127.0.0.1:99999/").code(), -1000);
  const auto got = fetch("ftp://127.0.0.1/file");
  EXPECT_EQ(got.error->domain, "NSURLErrorDomain");
  EXPECT_EQ(got.error->failingURL, "ftp://127.0.0.1/file");
  EXPECT_FALSE(got.data);
  EXPECT_EQ(got.response, nullptr);
}

}  // namespace
}  // namespace kestrine::test
