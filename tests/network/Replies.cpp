#include <gtest/gtest.h>
#include <zlib.h>

#include "tests/network/Fetch.h"
#include "tests/support/Eventually.h"
#include "tests/support/http/HTTPServer.h"
#include "tests/support/http/RawServer.h"

namespace kestrine::test {
namespace {

std::string gzipped(const std::string& text) {
  z_stream stream{};
  deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
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
