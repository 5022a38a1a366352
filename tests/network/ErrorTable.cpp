#include <gtest/gtest.h>

#include <cerrno>
#include <map>

#include "platform/network/wire/URLErrorTable.h"

namespace kestrine::test {
namespace {

using platform::network::TransferEnd;
using platform::network::URLErrorCode;

// By libcurl's numbers (libcurl-errors(3)) and the platform's, typed anew. What can be caused for real is also in the tests of faults.
const std::map<int, std::int64_t> kExpected = {
    {1, -1017},   // a reply that is no HTTP
    {2, -1008},   // libcurl cannot start
    {3, -1000},   // malformed address
    {4, -1002},   // built without it
    {5, -1003},   // proxy not found
    {6, -1003},   // host not found
    {7, -1004},   // cannot connect
    {8, -1017},   // a reply that cannot be understood
    {18, -1005},  // fewer bytes than announced
    {23, -3003},  // cannot write
    {26, -1021},  // cannot read the body
    {27, -1008},  // no memory
    {28, -1001},  // timed out
    {35, -1200},  // TLS handshake
    {42, -999},   // aborted by a callback
    {43, -1017},  // a header line that is none
    {45, -1004},  // network interface
    {47, -1007},  // too many redirects
    {52, -1005},  // nothing came back
    {55, -1005},  // cannot send
    {56, -1005},  // cannot receive
    {58, -1205},  // the client's certificate
    {59, -1200},  // cipher
    {60, -1202},  // the server's certificate
    {61, -1016},  // content encoding
    {65, -1021},  // the body cannot be sent again
    {77, -1200},  // certificates of authorities
    {80, -1005},  // TLS shutdown
    {81, -1005},  // not ready
    {83, -1202},  // issuer
    {91, -1202},  // certificate status
    {94, -1013},  // authentication
    {98, -1205},  // client certificate required
    {99, -1008},  // poll
};

TEST(ErrorTable, EveryCodeOfLibcurlHasItsMeaningAndOnlyOthersAreUnknown) {
  for (int code = 1; code < CURL_LAST; ++code) {
    const auto row = kExpected.find(code);
    EXPECT_EQ(URLErrorCode({.result = static_cast<CURLcode>(code)}), row == kExpected.end() ? -1 : row->second) << code;
  }
}

TEST(ErrorTable, AConnectionThatNoNetworkLeadsToIsNoNetwork) {
  for (const auto& [number, code] : std::map<int, std::int64_t>{
           {ENETUNREACH, -1009}, {ENETDOWN, -1009}, {EHOSTUNREACH, -1004}, {ECONNREFUSED, -1004}, {ETIMEDOUT, -1004}}) {
    EXPECT_EQ(URLErrorCode({.result = CURLE_COULDNT_CONNECT, .systemError = number}), code) << number;
  }
  EXPECT_EQ(URLErrorCode({.result = CURLE_RECV_ERROR, .systemError = ENETUNREACH}), -1005);
}

TEST(ErrorTable, MemoryThatAReplyUsesUpIsAReplyThatCannotBeUnderstood) {
  EXPECT_EQ(URLErrorCode({.result = CURLE_OUT_OF_MEMORY, .replyBegan = true}), -1017);
}

}  // namespace
}  // namespace kestrine::test
