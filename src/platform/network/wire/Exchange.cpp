#include "platform/network/wire/Exchange.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <exception>
#include <new>
#include <string_view>
#include <utility>

#include "platform/foundation/text/ASCII.h"
#include "platform/network/message/HTTPText.h"

namespace platform::network {

namespace {

constexpr long kReceiveBuffer = 64L << 10;
/// A body up to this size is handed to libcurl as a whole: it then leaves together with the head, and the server wakes up once.
constexpr std::uint64_t kSmallBody = 16U << 10U;

/// A descriptor of ours is close-on-exec from birth; libcurl's own way of making one leaves a gap.
curl_socket_t openSocket(void* /*unused*/, curlsocktype /*purpose*/, curl_sockaddr* address) {
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

bool sentByUs(std::string_view name) {
  return equalIgnoringASCIICase(name, "Content-Length") || equalIgnoringASCIICase(name, "Transfer-Encoding");
}

}  // namespace

Exchange::Listener::~Listener() = default;

Exchange::Exchange(CurlMulti& multi, Request request, Listener& listener)
    : multi_(multi), request_(std::move(request)), listener_(listener), easy_(curl_easy_init()) {
  if (!easy_) throw std::bad_alloc();
  configure();
  multi_.add(easy_.get(), [this](CURLcode result) {
    if (result == CURLE_OK && !request_.connectOnly) tellHead();
    if (decodingFailed_ || (result == CURLE_OK && decoder_ && !decoder_->isAtEnd())) result = CURLE_BAD_CONTENT_ENCODING;
    listener_.exchangeEnded(end(result));
  });
}

Exchange::~Exchange() { multi_.remove(easy_.get()); }

void Exchange::goOn() { curl_easy_pause(easy_.get(), CURLPAUSE_CONT); }

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
  if (request_.authentication == 0) return;
  curl_easy_setopt(easy, CURLOPT_HTTPAUTH, request_.authentication);
  curl_easy_setopt(easy, CURLOPT_USERNAME, request_.user.c_str());
  curl_easy_setopt(easy, CURLOPT_PASSWORD, request_.password.c_str());
}

void Exchange::append(const std::string& line) {
  auto* const list = curl_slist_append(lines_.get(), line.c_str());
  if (list == nullptr) throw std::bad_alloc();
  static_cast<void>(lines_.release());
  lines_.reset(list);
}

// No exception may leave a callback: there is C code above it.

std::size_t Exchange::headerCallback(char* bytes, std::size_t size, std::size_t count, void* self) {
  try {
    static_cast<Exchange*>(self)->headerLine({bytes, size * count});
    return size * count;
  } catch (const std::exception&) {
    return 0;
  }
}

std::size_t Exchange::writeCallback(char* bytes, std::size_t size, std::size_t count, void* self) {
  try {
    auto& exchange = *static_cast<Exchange*>(self);
    exchange.tellHead();
    switch (exchange.bodyPiece({bytes, size * count})) {
      case Appetite::Take:
        return size * count;
      case Appetite::Pause:
        return CURL_WRITEFUNC_PAUSE;
      case Appetite::Refuse:
        break;
    }
  } catch (const std::exception&) {
    // As refused.
  }
  return CURL_WRITEFUNC_ERROR;
}

Exchange::Appetite Exchange::bodyPiece(std::span<const char> bytes) {
  if (!std::exchange(bodyBegan_, true)) decoder_ = ContentDecoder::make(replyHeaders_.value("Content-Encoding").value_or(""));
  if (!decoder_) return listener_.bodyArrived(bytes);
  // After a pause libcurl brings the same bytes again, also in other portions. Those that were decoded before are left out.
  const std::size_t known = std::min(decoded_, bytes.size());
  std::span<const char> rest = bytes.subspan(known);
  for (;;) {
    if (!held_) {
      const auto step = decoder_->next(rest);
      if (step == ContentDecoder::Step::Hungry) break;
      decodingFailed_ = step == ContentDecoder::Step::Broken;
      if (decodingFailed_) return Appetite::Refuse;
    }
    held_ = false;
    if (decoder_->piece().empty()) continue;
    const Appetite appetite = listener_.bodyArrived(decoder_->piece());
    if (appetite == Appetite::Take) continue;
    held_ = appetite == Appetite::Pause;
    decoded_ = std::max(decoded_, bytes.size() - rest.size());
    return appetite;
  }
  decoded_ -= known;
  return Appetite::Take;
}

std::size_t Exchange::readCallback(char* room, std::size_t size, std::size_t count, void* self) {
  auto& exchange = *static_cast<Exchange*>(self);
  if (!exchange.request_.body) return 0;
  try {
    const auto got = exchange.request_.body->read(exchange.bodyOffset_, {room, size * count});
    exchange.bodyOffset_ += got;
    return got;
  } catch (const std::exception& exception) {
    exchange.listener_.bodyFailed(exception.what());
    return CURL_READFUNC_ABORT;
  }
}

int Exchange::seekCallback(void* self, curl_off_t offset, int origin) {
  if (origin != SEEK_SET || offset < 0) return CURL_SEEKFUNC_CANTSEEK;
  static_cast<Exchange*>(self)->bodyOffset_ = static_cast<std::uint64_t>(offset);
  return CURL_SEEKFUNC_OK;
}

int Exchange::progressCallback(void* self, curl_off_t /*toReceive*/, curl_off_t received, curl_off_t /*toSend*/, curl_off_t sent) {
  auto& exchange = *static_cast<Exchange*>(self);
  if (std::exchange(exchange.moved_, sent + received) != sent + received) exchange.listener_.bytesMoved(sent, received);
  return 0;
}

void Exchange::headerLine(std::string_view line) {
  listener_.bytesMoved(-1, -1);
  if (line.starts_with("HTTP/") && !headTold_) {
    status_ = statusInLine(line);
    replyHeaders_ = {};
    lastField_.clear();
    headComplete_ = false;
    return;
  }
  if (headComplete_) return;  // a trailer
  const auto text = trimmed(line, kLineBlanks);
  if (text.empty()) {
    headComplete_ = status_ >= 200 || status_ == 101;
    // libcurl answers a Digest question itself and asks again: which reply stands is known with its body or its end only.
    if (headComplete_ && (request_.authentication == 0 || status_ != 401)) tellHead();
    return;
  }
  // A line that begins with a blank goes on with the former one (RFC 9112, section 5.2).
  if ((line.front() == ' ' || line.front() == '\t') && !lastField_.empty()) {
    replyHeaders_.set(lastField_, replyHeaders_.value(lastField_).value_or("") + " " + std::string(text));
    return;
  }
  const auto colon = text.find(':');
  if (colon == std::string_view::npos) return;
  lastField_ = trimmed(text.substr(0, colon), kLineBlanks);
  replyHeaders_.add(lastField_, trimmed(text.substr(colon + 1), kLineBlanks));
}

void Exchange::tellHead() {
  if (!headComplete_ || std::exchange(headTold_, true)) return;
  listener_.headArrived(status_, replyHeaders_);
}

TransferEnd Exchange::end(CURLcode result) const {
  TransferEnd end{.result = result, .systemError = 0, .replyBegan = status_ != 0};
  curl_easy_getinfo(easy_.get(), CURLINFO_OS_ERRNO, &end.systemError);
  curl_off_t firstByte = 0;
  if (curl_easy_getinfo(easy_.get(), CURLINFO_STARTTRANSFER_TIME_T, &firstByte) == CURLE_OK && firstByte > 0) end.replyBegan = true;
  return end;
}

}  // namespace platform::network
