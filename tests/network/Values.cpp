#include <gtest/gtest.h>

#include "platform/network/load/AuthenticateHeader.h"
#include "platform/network/message/HTTPText.h"
#include "platform/network/message/URLError.h"
#include "platform/network/message/URLRequest.h"
#include "platform/network/message/URLResponse.h"
#include "platform/network/wire/Origin.h"
#include "tests/network/Fetch.h"

namespace kestrine::test {
namespace {

using platform::HTTPHeaders;
using platform::URLResponse;
using platform::network::authenticationOffers;
using platform::network::originOf;
using platform::network::resolvedLocation;

TEST(HTTPHeaders, SetReplacesAddAppendsAndNamesHaveNoCase) {
  HTTPHeaders headers;
  headers.add("Accept", "a");
  headers.add("ACCEPT", "b");
  headers.set("Other", "x");
  headers.set("accept", "c");
  headers.add("Accept", "d");
  EXPECT_EQ(headers.value("aCCept"), "c,d");
  EXPECT_EQ(headers.fields(), (std::vector<HTTPHeaders::Field>{{"Accept", "c,d"}, {"Other", "x"}}));
  headers.remove("OTHER");
  EXPECT_FALSE(headers.contains("Other"));
  EXPECT_FALSE(headers.value("none"));
}

TEST(URLRequest, BeginsAsAPlainGetOfSixtySeconds) {
  const platform::URLRequest request(address("http://h/"));
  EXPECT_EQ(request.HTTPMethod(), "GET");
  EXPECT_EQ(request.timeoutInterval(), 60);
  EXPECT_TRUE(request.allHTTPHeaderFields().empty());
  EXPECT_FALSE(request.HTTPBody());
}

URLResponse responseWith(std::initializer_list<HTTPHeaders::Field> fields) {
  HTTPHeaders headers;
  for (const auto& [name, value] : fields) headers.add(name, value);
  return {address("http://h/p"), 200, headers};
}

TEST(URLResponse, ReadsTypeEncodingAndLength) {
  EXPECT_EQ(responseWith({}).MIMEType(), "");
  EXPECT_EQ(responseWith({{"Content-Type", " Text/HTML ; x=y; Charset=ISO-8859-1"}}).MIMEType(), "text/html");
  EXPECT_EQ(responseWith({{"Content-Type", "text/html; x=y; Charset=ISO-8859-1"}}).textEncodingName(), "iso-8859-1");
  EXPECT_EQ(responseWith({{"Content-Type", "text/html"}}).textEncodingName(), "");
  EXPECT_EQ(responseWith({{"Content-Length", " 12 "}}).expectedContentLength(), 12);
  for (const char* none : {"", "-1", "x", "1,1", "99999999999999999999"}) {
    EXPECT_EQ(responseWith({{"Content-Length", none}}).expectedContentLength(), -1) << none;
  }
  EXPECT_EQ(responseWith({{"Content-Length", "12"}, {"Content-Encoding", "gzip"}}).expectedContentLength(), -1);
}

TEST(URLResponse, DescribesItselfOnOneLine) {
  EXPECT_EQ(responseWith({{"A", "1"}, {"B", "2"}}).description(),
            "<HTTPURLResponse> { URL: http://h/p } { Status Code: 200, Headers { A = 1; B = 2 } }");
}

TEST(URLError, HasDomainCodeAndASentence) {
  const auto error = platform::URLError(-1001, "http://h/", "why");
  EXPECT_EQ(error.domain, "NSURLErrorDomain");
  EXPECT_EQ(error.code, -1001);
  EXPECT_EQ(error.failingURL, "http://h/");
  EXPECT_EQ(error.description(), "Error Domain=NSURLErrorDomain Code=-1001 \"The request timed out. (why)\"");
  EXPECT_EQ(platform::URLError(-4711).description(), "Error Domain=NSURLErrorDomain Code=-4711 \"The operation could not be completed.\"");
}

std::string offers(std::string_view field) {
  std::string text;
  for (const auto& offer : authenticationOffers(field)) text += offer.scheme + "[" + offer.realm + "]";
  return text;
}

TEST(AuthenticateHeader, ReadsOffersWithTheirRealms) {
  EXPECT_EQ(offers(""), "");
  EXPECT_EQ(offers("Basic"), "Basic[]");
  EXPECT_EQ(offers("Basic realm=\"a\""), "Basic[a]");
  EXPECT_EQ(offers("Basic realm = a"), "Basic[a]");
  EXPECT_EQ(offers("Digest nonce=\"1,2\", REALM=\"x, y\\\"z\", qop=\"auth\", Basic realm=\"b\""), "Digest[x, y\"z]Basic[b]");
  EXPECT_EQ(offers("Negotiate, NTLM,Basic realm=\"\""), "Negotiate[]NTLM[]Basic[]");
  EXPECT_EQ(offers("realm=\"lost\""), "");
  EXPECT_EQ(offers(",,, \t,"), "");
  EXPECT_EQ(offers("Basic realm=\"never ends, Digest"), "Basic[\"never ends, Digest]");
  EXPECT_EQ(offers("Basic realm=\"ends in \\"), "Basic[\"ends in \\]");
  EXPECT_EQ(offers("= Basic"), "");
}

TEST(HTTPText, KnowsWordsAndLines) {
  EXPECT_TRUE(platform::network::isHTTPToken("Content-Type!1"));
  for (const char* none : {"", "a b", "a:", "a\r", "\xc3\xa4"}) EXPECT_FALSE(platform::network::isHTTPToken(none)) << none;
  EXPECT_FALSE(platform::network::breaksHeaderLine("a value\t"));
  for (const std::string& breaking : {std::string("a\rb"), std::string("a\nb"), std::string("a\0b", 3)}) {
    EXPECT_TRUE(platform::network::breaksHeaderLine(breaking)) << breaking;
  }
  EXPECT_EQ(platform::network::statusInLine("HTTP/1.1 204 No Content\r\n"), 204);
  EXPECT_EQ(platform::network::statusInLine("HTTP/1.1 200\r\n"), 200);
  EXPECT_EQ(platform::network::statusInLine("HTTP/1.1"), 0);
}

TEST(HTTPText, TakesListsApart) {
  std::string_view list = " a ,\"b, c\",, d\t";
  for (const char* element : {"a", "\"b, c\"", "", "d"}) EXPECT_EQ(platform::network::takeListElement(list), element);
  EXPECT_EQ(list, "");
}

TEST(Origin, IsReadFromAnAddress) {
  const auto origin = originOf("HTTP://Host.Example/path");
  ASSERT_TRUE(origin);
  EXPECT_EQ(origin->scheme, "http");
  EXPECT_EQ(origin->host, "host.example");
  EXPECT_EQ(origin->port, 80);
  EXPECT_EQ(originOf("https://h/")->port, 443);
  EXPECT_EQ(originOf("http://h:8080/")->port, 8080);
  for (const char* none : {"", "h/", "ftp://h/", "http://", "http:///p", "http://h:99999/", "http://h:x/"})
    EXPECT_FALSE(originOf(none)) << none;
}

TEST(Origin, ResolvesLocations) {
  EXPECT_EQ(resolvedLocation("http://h/a/b?q", "c"), "http://h/a/c");
  EXPECT_EQ(resolvedLocation("http://h/a/b", "/c?x=y"), "http://h/c?x=y");
  EXPECT_EQ(resolvedLocation("http://h/a", "//other:81/c"), "http://other:81/c");
  EXPECT_EQ(resolvedLocation("http://h/a", "https://x/"), "https://x/");
  EXPECT_EQ(resolvedLocation("http://h/a", "/with blank"), "http://h/with%20blank");
}

}  // namespace
}  // namespace kestrine::test
