#include "platform/network/load/Load.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "platform/foundation/text/ASCII.h"
#include "platform/network/message/HTTPText.h"
#include "platform/network/wire/NetworkThread.h"

namespace platform::network {

namespace {

/// More of a reply that nobody wants costs more than a new connection.
constexpr std::size_t kDiscardedAtMost = 64U << 10U;

std::optional<std::chrono::steady_clock::duration> durationOf(double seconds) {
  constexpr double kLongest = 30.0 * 365 * 24 * 60 * 60;
  if (!(seconds > 0)) return std::nullopt;
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(std::min(seconds, kLongest)));
}

/// The shorter of those that are set.
double shorter(double a, double b) {
  if (!(a > 0)) return b;
  return b > 0 ? std::min(a, b) : a;
}

}  // namespace

Load::Client::~Client() = default;

Load::Load(std::shared_ptr<SessionCore> core, URLRequest request, std::optional<Bytes> body, std::shared_ptr<Client> client)
    : core_(std::move(core)), original_(std::move(request)), client_(std::move(client)) {
  next_.method = original_.HTTPMethod();
  next_.headers = core_->configuration().HTTPAdditionalHeaders;
  for (const auto& [name, value] : original_.allHTTPHeaderFields().fields()) next_.headers.set(name, value);
  next_.body = std::move(body);
}

Load::~Load() = default;

void Load::start() {
  onNetworkThread([self = shared_from_this()] { self->begin(); });
}

void Load::cancel() {
  onNetworkThread([self = shared_from_this()] { self->finish(self->error(NSURLErrorCancelled)); });
}

void Load::goOn() {
  onNetworkThread([self = shared_from_this()] {
    if (!std::exchange(self->pausedByClient_, false)) return;
    self->lastActivity_ = Clock::now();
    if (self->exchange_) self->exchange_->goOn();
  });
}

void Load::begin() {
  if (phase_ == Phase::Ended) return;
  self_ = shared_from_this();
  lastActivity_ = Clock::now();
  silence_ = durationOf(shorter(original_.timeoutInterval(), core_->configuration().timeoutIntervalForRequest));
  if (const auto total = durationOf(core_->configuration().timeoutIntervalForResource)) limit_ = lastActivity_ + *total;
  if (auto refused = refusal()) return finish(std::move(refused));
  armTimer();
  nextExchange();
}

// What cannot be sent is refused before a connection is made.
std::optional<Error> Load::refusal() {
  if (!original_.URL()) return error(NSURLErrorUnsupportedURL, "there is no address");
  next_.url = original_.URL()->absoluteString();
  const auto scheme = original_.URL()->scheme();
  if (!equalIgnoringASCIICase(scheme, "http") && !equalIgnoringASCIICase(scheme, "https"))
    return error(NSURLErrorUnsupportedURL, next_.url);
  const auto origin = originOf(next_.url);
  if (!origin) return error(NSURLErrorBadURL, next_.url);
  origin_ = *origin;
  if (!isHTTPToken(next_.method)) return error(NSURLErrorBadURL, "the method is no word of HTTP");
  for (const auto& [name, value] : next_.headers.fields()) {
    if (!isHTTPToken(name)) return error(NSURLErrorBadURL, "a header field's name is no word of HTTP");
    if (breaksHeaderLine(value)) return error(NSURLErrorBadURL, "the header field \"" + name + "\" holds a line end or a zero byte");
  }
  return std::nullopt;
}

void Load::nextExchange() {
  discarding_ = false;
  discarded_ = 0;
  const auto trust = core_->trust(origin_);
  next_.trustAnyCertificate = trust == SessionCore::Trust::Given;
  if (origin_.scheme != "https" || trust != SessionCore::Trust::Unknown || !client_->answersChallenges()) {
    return open(Phase::Transferring, next_);
  }
  // The handshake cannot wait for an answer, so it is tried first, with nothing sent, and made again once somebody has decided.
  auto shake = next_;
  shake.connectOnly = true;
  shake.body.reset();
  open(Phase::Shaking, std::move(shake));
}

void Load::open(Phase phase, Exchange::Request request) {
  phase_ = phase;
  try {
    exchange_ = std::make_unique<Exchange>(core_->multi(), std::move(request), *this);
  } catch (const std::exception& exception) {
    finish(error(NSURLErrorResourceUnavailable, exception.what()));
  }
}

void Load::headArrived(int status, const HTTPHeaders& headers) {
  const auto url = URL::URLWithString(next_.url);
  auto response = std::make_shared<const URLResponse>(url ? *url : *original_.URL(), status, headers);
  if (redirect(*response)) {
    discarding_ = true;
  } else if (status == 401 && client_->answersChallenges()) {
    askForCredential(std::move(response));
  } else {
    accept(std::move(response));
  }
}

void Load::accept(std::shared_ptr<const URLResponse> response) { client_->responseArrived(response); }

Exchange::Appetite Load::bodyArrived(std::span<const char> piece) {
  if (discarding_) {
    discarded_ += piece.size();
    return discarded_ > kDiscardedAtMost ? Exchange::Appetite::Refuse : Exchange::Appetite::Take;
  }
  if (question_) return Exchange::Appetite::Pause;
  const auto appetite = client_->dataArrived(piece, failure_);
  pausedByClient_ = appetite == Exchange::Appetite::Pause;
  return appetite;
}

void Load::bytesMoved(std::int64_t sent, std::int64_t received) {
  lastActivity_ = Clock::now();
  if (sent >= 0 && !discarding_) client_->bytesMoved(sent, received);
}

void Load::bodyFailed(const std::string& why) { failure_ = error(NSURLErrorRequestBodyStreamExhausted, why); }

void Load::exchangeEnded(const TransferEnd& end) {
  if (question_) {
    question_->end = end;
    return;
  }
  exchange_.reset();
  if (phase_ != Phase::Shaking) return settle(end);
  if (end.result == CURLE_OK || end.result == CURLE_PEER_FAILED_VERIFICATION) return askForTrust(end.result == CURLE_OK);
  settle(end);
}

void Load::settle(const TransferEnd& end) {
  if (failure_) return finish(std::exchange(failure_, std::nullopt));
  if (discarding_) return nextExchange();
  if (end.result == CURLE_OK) return finish(std::nullopt);
  finish(error(URLErrorCode(end), curl_easy_strerror(end.result)));
}

void Load::finish(std::optional<Error> error) {
  if (std::exchange(phase_, Phase::Ended) == Phase::Ended) return;
  if (timer_) timer_->invalidate();
  exchange_.reset();
  question_.reset();
  const auto self = std::exchange(self_, nullptr);
  const auto client = std::exchange(client_, nullptr);
  client->loadEnded(std::move(error));
}

Error Load::error(std::int64_t code, const std::string& detail) const {
  return URLError(code, original_.URL() ? original_.URL()->absoluteString() : std::string(), detail);
}

// One timer for both limits; it is set again when it goes off early, rather than with each byte.
void Load::armTimer() {
  auto due = limit_;
  if (silence_) due = std::min(due.value_or(Clock::time_point::max()), lastActivity_ + *silence_);
  if (!due) return;
  const std::chrono::duration<double> wait = *due - Clock::now();
  timer_ = RunLoopTimer::create(wait.count(), 0, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->look();
  });
  networkLoop().add(timer_);
}

void Load::look() {
  if (phase_ == Phase::Ended) return;
  const auto now = Clock::now();
  // A client that is slow to take the reply is not a silent server.
  if (pausedByClient_) lastActivity_ = now;
  if (limit_ && now >= *limit_) return finish(error(NSURLErrorTimedOut, "the whole took too long"));
  if (silence_ && now >= lastActivity_ + *silence_) return finish(error(NSURLErrorTimedOut));
  armTimer();
}

}  // namespace platform::network
