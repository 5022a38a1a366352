// What an exchange sets at libcurl's handle before it begins.

#include <sys/socket.h>

#include <climits>
#include <new>
#include <string>

#include "platform/foundation/text/ASCII.h"
#include "platform/network/message/HTTPText.h"
#include "platform/network/wire/Exchange.h"

namespace platform::network {

namespace {

constexpr long kReceiveBuffer = 64L << 10;
/// A body up to this size is handed to libcurl as a whole: it then leaves together with the head, and the server wakes up once.
constexpr std::uint64_t kSmallBody = 16U << 10U;

/// A descriptor of ours is close-on-exec from birth; libcurl's own way of making one leaves a gap.
curl_socket_t openSocket(void* /*unused*/, curlsocktype /*purpose*/, curl_sockaddr* address) {
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

long curlNameOf(HTTPAuthentication authentication) {
  switch (authentication) {
    case HTTPAuthentication::Basic:
      return CURLAUTH_BASIC;
    case HTTPAuthentication::Digest:
      return CURLAUTH_DIGEST;
    case HTTPAuthentication::None:
      break;
  }
  return CURLAUTH_NONE;
}

bool sentByUs(std::string_view name) {
  return equalIgnoringASCIICase(name, "Content-Length") || equalIgnoringASCIICase(name, "Transfer-Encoding");
}

}  // namespace

void Exchange::configure() {
  CURL* const easy = easy_.get();
  curl_easy_setopt(easy, CURLOPT_URL, request_.url.c_str());
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(easy, CURLOPT_PROXY, "");
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  // Or the end of a transfer would wait for a resolver that does not answer, and every other transfer with it.
  curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
  // Time-outs are the task's; this one only takes libcurl's own, of five minutes, out of the way.
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(INT_MAX / 1000));
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReceiveBuffer);
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "gzip, deflate");
  curl_easy_setopt(easy, CURLOPT_HTTP_CONTENT_DECODING, 0L);
  curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, openSocket);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, headerCallback);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, writeCallback);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, progressCallback);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, this);
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  if (request_.connectOnly) curl_easy_setopt(easy, CURLOPT_CONNECT_ONLY, 1L);
  configureMethod();
  configureSecurity();
  // A name without a value takes a header out that libcurl would send of its own accord.
  for (const char* own : {"Accept", "Expect", "Content-Type"}) {
    if (!request_.headers.contains(own)) append(std::string(own) + ":");
  }
  for (const auto& [name, value] : request_.headers.fields()) {
    if (sentByUs(name)) continue;
    // A semicolon is how libcurl is told of a header with an empty value.
    append(trimmed(value, kLineBlanks).empty() ? name + ";" : name + ": " + value);
  }
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, lines_.get());
}

void Exchange::configureMethod() {
  CURL* const easy = easy_.get();
  const bool lengthExpected = request_.method == "POST" || request_.method == "PUT" || request_.method == "PATCH";
  if (request_.body || lengthExpected) {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request_.body ? request_.body->length() : 0));
    configureBody();
    if (request_.method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request_.method.c_str());
  } else if (request_.method == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (request_.method != "GET") {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request_.method.c_str());
  }
}

void Exchange::configureBody() {
  CURL* const easy = easy_.get();
  if (request_.body && request_.body->isInMemory() && request_.body->length() <= kSmallBody) {
    curl_easy_setopt(easy, CURLOPT_COPYPOSTFIELDS, request_.body->text().c_str());
    return;
  }
  curl_easy_setopt(easy, CURLOPT_READFUNCTION, readCallback);
  curl_easy_setopt(easy, CURLOPT_READDATA, this);
  curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, seekCallback);
  curl_easy_setopt(easy, CURLOPT_SEEKDATA, this);
}

void Exchange::configureSecurity() {
  CURL* const easy = easy_.get();
  if (request_.trustAnyCertificate) {
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
  }
  if (request_.authentication == HTTPAuthentication::None) return;
  curl_easy_setopt(easy, CURLOPT_HTTPAUTH, curlNameOf(request_.authentication));
  curl_easy_setopt(easy, CURLOPT_USERNAME, request_.user.c_str());
  curl_easy_setopt(easy, CURLOPT_PASSWORD, request_.password.c_str());
}

void Exchange::append(const std::string& line) {
  auto* const list = curl_slist_append(lines_.get(), line.c_str());
  if (list == nullptr) throw std::bad_alloc();
  static_cast<void>(lines_.release());
  lines_.reset(list);
}

}  // namespace platform::network
