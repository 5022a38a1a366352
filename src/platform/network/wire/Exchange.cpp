#include "platform/network/wire/Exchange.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <new>
#include <string_view>
#include <utility>

#include "platform/foundation/log/Contained.h"
#include "platform/foundation/text/ASCII.h"
#include "platform/network/message/HTTPText.h"

namespace platform::network {

namespace {

/// What a callback of progress says to libcurl.
constexpr int kEndTheTransfer = 1;

/// No exception may leave a callback: there is C code above it. False when one wanted to.
template <class Block>
bool contained(const Block& block) {
  return runContained(kNetworkFailure, std::cref(block));
}

}  // namespace

Exchange::Listener::~Listener() = default;

Exchange::Exchange(CurlMulti& multi, Request request, Listener& listener)
    : multi_(multi), request_(std::move(request)), listener_(listener), easy_(curl_easy_init()) {
  if (!easy_) throw std::bad_alloc();
  configure();
  multi_.add(easy_.get(), [this](CURLcode result) {
    assertOnNetworkThread();
    ended(result);
  });
}

Exchange::~Exchange() { multi_.remove(easy_.get()); }

void Exchange::ended(CURLcode result) {
  const auto tellLate = [this] {
    assertOnNetworkThread();
    tellHead();
  };
  if (result == CURLE_OK && !request_.connectOnly && !contained(tellLate)) result = CURLE_WRITE_ERROR;
  if (decodingFailed_ || (result == CURLE_OK && decoder_ && !decoder_->isAtEnd())) result = CURLE_BAD_CONTENT_ENCODING;
  listener_.exchangeEnded(end(result));
}

void Exchange::goOn() { curl_easy_pause(easy_.get(), CURLPAUSE_CONT); }

std::size_t Exchange::headerCallback(char* bytes, std::size_t size, std::size_t count, void* self) {
  const std::string_view line(bytes, size * count);
  const bool taken = contained([self, line] {
    assertOnNetworkThread();
    static_cast<Exchange*>(self)->headerLine(line);
  });
  return taken ? line.size() : 0;
}

std::size_t Exchange::writeCallback(char* bytes, std::size_t size, std::size_t count, void* self) {
  const std::span<const char> piece(bytes, size * count);
  auto appetite = Appetite::Refuse;
  const bool heard = contained([self, piece, &appetite] {
    assertOnNetworkThread();
    auto& exchange = *static_cast<Exchange*>(self);
    exchange.tellHead();
    appetite = exchange.bodyPiece(piece);
  });
  if (!heard || appetite == Appetite::Refuse) return CURL_WRITEFUNC_ERROR;
  return appetite == Appetite::Pause ? CURL_WRITEFUNC_PAUSE : piece.size();
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
  std::size_t got = CURL_READFUNC_ABORT;
  contained([self, bytes = std::span(room, size * count), &got] {
    assertOnNetworkThread();
    got = static_cast<Exchange*>(self)->readBody(bytes);
  });
  return got;
}

std::size_t Exchange::readBody(std::span<char> room) {
  if (!request_.body) return 0;
  try {
    const auto got = request_.body->read(bodyOffset_, room);
    bodyOffset_ += got;
    return got;
  } catch (const std::exception& exception) {
    listener_.bodyFailed(exception.what());
    return CURL_READFUNC_ABORT;
  }
}

int Exchange::seekCallback(void* self, curl_off_t offset, int origin) {
  assertOnNetworkThread();
  if (origin != SEEK_SET || offset < 0) return CURL_SEEKFUNC_CANTSEEK;
  static_cast<Exchange*>(self)->bodyOffset_ = static_cast<std::uint64_t>(offset);
  return CURL_SEEKFUNC_OK;
}

int Exchange::progressCallback(void* self, curl_off_t /*toReceive*/, curl_off_t received, curl_off_t /*toSend*/, curl_off_t sent) {
  assertOnNetworkThread();
  auto& exchange = *static_cast<Exchange*>(self);
  if (std::exchange(exchange.moved_, sent + received) == sent + received) return 0;
  const bool heard = contained([&exchange, sent, received] {
    assertOnNetworkThread();
    exchange.listener_.bytesMoved(sent, received);
  });
  return heard ? 0 : kEndTheTransfer;
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
    if (headComplete_ && (request_.authentication == HTTPAuthentication::None || status_ != 401)) tellHead();
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
