#include <gtest/gtest.h>
#include <zlib.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <thread>
#include <utility>
#include <vector>

#include "tests/network/Fetch.h"
#include "tests/network/Recorder.h"
#include "tests/support/Eventually.h"
#include "tests/support/http/HTTPServer.h"
#include "tests/support/http/RawServer.h"

namespace kestrine::test {
namespace {

/// `window`: zlib's, 16 more for gzip, below zero for a stream without a wrapper.
std::string deflated(const std::string& text, int window) {
  z_stream stream{};
  deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, window, 8, Z_DEFAULT_STRATEGY);
  std::string packed(deflateBound(&stream, text.size()) + 64, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  packed.resize(stream.total_out);
  deflateEnd(&stream);
  return packed;
}

std::string gzipped(const std::string& text) { return deflated(text, 15 + 16); }

/// The bytes of a whole reply, sent to whoever asks.
RawServer::Script replying(const std::string& bytes) {
  return [bytes](RawConnection& connection) {
    connection.readRequest();
    connection.send(bytes);
  };
}

TEST(Reply, IsDeliveredWithItsHead) {
  HTTPServer server([](const ReceivedRequest&) {
    return Answer{.body = "{\"a\":1}", .headers = {{"Content-Type", "Application/JSON; charset=\"UTF-8\""}, {"X-Own", "value"}}};
  });
  const auto got = fetch(server.url("/x"));
  EXPECT_EQ(got.code(), 0);
  EXPECT_EQ(got.status(), 200);
  EXPECT_EQ(got.text(), "{\"a\":1}");
  EXPECT_EQ(got.response->MIMEType(), "application/json");
  EXPECT_EQ(got.response->textEncodingName(), "utf-8");
  EXPECT_EQ(got.response->expectedContentLength(), 7);
  EXPECT_EQ(got.response->valueForHTTPHeaderField("x-own"), "value");
  EXPECT_EQ(got.response->URL().absoluteString(), server.url("/x"));
}

TEST(Reply, ErrorStatusesAreNoErrors) {
  HTTPServer server([](const ReceivedRequest& request) { return Answer{.status = std::stoi(request.target.substr(1)), .body = "{}"}; });
  for (const int status : {400, 403, 404, 410, 500, 503}) {
    const auto got = fetch(server.url("/" + std::to_string(status)));
    EXPECT_EQ(got.code(), 0);
    EXPECT_EQ(got.status(), status);
    EXPECT_EQ(got.text(), "{}");
  }
}

TEST(Reply, WithoutABodyIsEmptyDataAndNotNone) {
  RawServer nothing(replying("HTTP/1.1 204 No Content\r\n\r\n"));
  const auto got = fetch(nothing.url("/"));
  EXPECT_EQ(got.status(), 204);
  ASSERT_TRUE(got.data);
  EXPECT_EQ(got.data->length(), 0U);
  RawServer empty(replying("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
  EXPECT_EQ(fetch(empty.url("/")).text(), "");
  RawServer unchanged(replying("HTTP/1.1 304 Not Modified\r\nContent-Length: 12\r\n\r\n"));
  EXPECT_EQ(fetch(unchanged.url("/")).status(), 304);
}

TEST(Reply, OfAHeadRequestHasALengthAndNoBody) {
  RawServer server(replying("HTTP/1.1 200 OK\r\nContent-Length: 1234\r\n\r\n"));
  const auto got = fetch(requestFor(server.url("/"), "HEAD"));
  EXPECT_EQ(got.code(), 0);
  EXPECT_EQ(got.text(), "");
  EXPECT_EQ(got.response->expectedContentLength(), 1234);
}

TEST(Reply, InChunksIsPutTogetherAndItsLengthUnknown) {
  const std::string body(100000, 'c');
  HTTPServer server([&](const ReceivedRequest&) { return Answer{.body = body, .chunked = true}; });
  const auto got = fetch(server.url("/"));
  EXPECT_EQ(got.text(), body);
  EXPECT_EQ(got.response->expectedContentLength(), -1);
  RawServer trailing(replying("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3;x=y\r\nabc\r\n0\r\nX-Late: 1\r\n\r\n"));
  const auto late = fetch(trailing.url("/"));
  EXPECT_EQ(late.text(), "abc");
  EXPECT_FALSE(late.response->valueForHTTPHeaderField("X-Late"));
}

TEST(Reply, ThatIsGzippedIsDecoded) {
  const std::string body(200000, 'z');
  const auto packed = gzipped(body);
  RawServer server(
      replying("HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: " + std::to_string(packed.size()) + "\r\n\r\n" + packed));
  const auto got = fetch(server.url("/"));
  EXPECT_EQ(got.code(), 0);
  EXPECT_EQ(got.text(), body);
  EXPECT_EQ(got.response->expectedContentLength(), -1);
}

/// The reply's error for a body of this coding.
std::int64_t errorOf(const std::string& coding, const std::string& body, const std::string& framing = "length") {
  std::string head = "HTTP/1.1 200 OK\r\nContent-Encoding: " + coding + "\r\n";
  if (framing == "length") head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  if (framing == "chunked") head += "Transfer-Encoding: chunked\r\n";
  std::array<char, 32> size{};
  std::snprintf(size.data(), size.size(), "%zx\r\n", body.size());
  RawServer server(replying(head + "\r\n" + (framing == "chunked" ? size.data() + body + "\r\n0\r\n\r\n" : body)));
  const auto got = fetch(server.url("/"));
  EXPECT_EQ(got.error.has_value(), !got.data.has_value());
  return got.code();
}

// The framing is whole each time: only the stream inside it can tell.
TEST(Reply, ThatIsGzippedAndEndsEarlyIsAnError) {
  std::string text;
  for (int i = 0; i < 5000; ++i) text += std::to_string(i * i);
  const auto packed = gzipped(text);
  for (const char* framing : {"length", "chunked", "until the connection closes"}) {
    EXPECT_EQ(errorOf("gzip", packed, framing), 0) << framing;
    // In the header, behind it, in the middle, before and in the checksum, and in the length.
    for (const std::size_t length :
         {std::size_t{1}, std::size_t{5}, std::size_t{10}, packed.size() / 2, packed.size() - 8, packed.size() - 5, packed.size() - 1}) {
      EXPECT_EQ(errorOf("gzip", packed.substr(0, length), framing), -1016) << framing << ", cut to " << length;
    }
  }
  EXPECT_EQ(errorOf("gzip", ""), 0) << "no body is no broken one";
}

TEST(Reply, ThatIsGzippedAndCarriesAWrongChecksumOrMoreIsAnError) {
  auto packed = gzipped("text");
  EXPECT_EQ(errorOf("gzip", packed + "more"), -1016);
  packed[packed.size() - 6] = static_cast<char>(packed[packed.size() - 6] ^ 1);
  EXPECT_EQ(errorOf("gzip", packed), -1016);
  EXPECT_EQ(errorOf("unheard-of", "text"), -1016);
}

TEST(Reply, InAnyOfTheCodingsThatAreAskedForIsDecoded) {
  const std::string text = "some text, some text, some text";
  const std::vector<std::pair<std::string, std::string>> cases = {{"gzip", gzipped(text)},
                                                                  {"GZIP", gzipped(text)},
                                                                  {"x-gzip", gzipped(text)},
                                                                  {"identity, gzip", gzipped(text)},
                                                                  {"gzip", gzipped(text.substr(0, 7)) + gzipped(text.substr(7))},
                                                                  {"deflate", deflated(text, 15)},
                                                                  {"deflate", deflated(text, -15)},
                                                                  {"identity", text}};
  for (const auto& [coding, body] : cases) {
    RawServer server(replying("HTTP/1.1 200 OK\r\nContent-Encoding: " + coding + "\r\nContent-Length: " + std::to_string(body.size()) +
                              "\r\n\r\n" + body));
    const auto got = fetch(server.url("/"));
    EXPECT_EQ(got.text(), text) << coding;
    EXPECT_EQ(got.code(), 0) << coding;
  }
}

/// Takes its time for the first piece, so that the transfer halts in the middle of what a few bytes on the wire have become.
class Slow : public Recorder {
 public:
  void URLSession_dataTask_didReceiveData(const Session& session, const Task& task, const platform::Bytes& data) override {
    // Not before the transfer has come to a halt, as far as that can be seen from here.
    if (!std::exchange(begun_, true)) std::this_thread::sleep_for(std::chrono::milliseconds(300));
    Recorder::URLSession_dataTask_didReceiveData(session, task, data);
  }

 private:
  bool begun_ = false;
};

TEST(Reply, ThatIsGzippedIsWholeAlsoWhenItsReaderIsSlow) {
  std::string text;
  for (int i = 0; text.size() < (12U << 20U); ++i) text += std::to_string(i) + std::string(200, 'z');
  const auto packed = gzipped(text);
  RawServer server(
      replying("HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: " + std::to_string(packed.size()) + "\r\n\r\n" + packed));
  const auto slow = std::make_shared<Slow>();
  makeSession({}, slow)->dataTaskWithRequest(requestFor(server.url("/")))->resume();
  ASSERT_TRUE(slow->waitForEnd());
  EXPECT_EQ(slow->told(), (std::vector<std::string>{"response 200", "complete 0"}));
  EXPECT_TRUE(slow->body() == text);
}

TEST(Reply, WithoutALengthEndsWithTheConnection) {
  RawServer server(replying("HTTP/1.0 200 OK\r\n\r\nuntil the end"));
  EXPECT_EQ(fetch(server.url("/")).text(), "until the end");
}

TEST(Reply, MoreThanItsLengthIsNotDelivered) {
  RawServer server(replying("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nfour and more"));
  EXPECT_EQ(fetch(server.url("/")).text(), "four");
}

TEST(Reply, InterimHeadsAreLeftOut) {
  RawServer server(replying(
      "HTTP/1.1 102 Processing\r\nX-Early: 1\r\n\r\nHTTP/1.1 103 Early Hints\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"));
  const auto got = fetch(server.url("/"));
  EXPECT_EQ(got.status(), 200);
  EXPECT_EQ(got.text(), "ok");
  EXPECT_FALSE(got.response->valueForHTTPHeaderField("X-Early"));
}

TEST(Reply, EqualFieldsAreJoinedAndFoldedOnesPutTogether) {
  RawServer server(replying("HTTP/1.1 200 OK\r\nX-A: 1\r\nx-a: 2\r\nX-Fold: one\r\n  two\r\nContent-Length: 0\r\n\r\n"));
  const auto got = fetch(server.url("/"));
  EXPECT_EQ(got.response->valueForHTTPHeaderField("X-A"), "1,2");
  EXPECT_EQ(got.response->valueForHTTPHeaderField("X-Fold"), "one two");
}

TEST(Reply, OfAHundredMebibytesIsWholeAndNotInMemory) {
  const auto size = static_cast<std::size_t>(longOrShort(100, 20)) << 20U;
  std::string body(size, '\0');
  for (std::size_t i = 0; i < size; i += 4096) body[i] = static_cast<char>('a' + (i / 4096) % 26);
  HTTPServer server([&](const ReceivedRequest&) { return Answer{.body = body}; });
  const auto got = fetch(server.url("/"));
  ASSERT_EQ(got.code(), 0) << got.error->description();
  EXPECT_FALSE(got.data->isInMemory());
  EXPECT_TRUE(*got.data == platform::Bytes(body));
}

TEST(Reply, ConnectionsAreUsedAgainWithinASession) {
  RawServer server([](RawConnection& connection) {
    while (!connection.readRequest().empty()) connection.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
  });
  const auto session = makeSession();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(fetch(*session, requestFor(server.url("/"))).text(), "ok");
  EXPECT_EQ(server.accepted(), 1);
}

TEST(Reply, AConnectionThatTheServerClosedMeanwhileIsMadeAgain) {
  RawServer server(replying("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"));
  const auto session = makeSession();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(fetch(*session, requestFor(server.url("/"), "POST", "body")).text(), "ok");
  EXPECT_EQ(server.accepted(), 3);
}

}  // namespace
}  // namespace kestrine::test
