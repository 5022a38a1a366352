#include "platform/network/load/Load.h"

#include <exception>
#include <utility>

#include "platform/network/load/RequestCheck.h"
#include "platform/network/wire/NetworkThread.h"

namespace platform::network {

namespace {

/// More of a reply that nobody wants costs more than a new connection.
constexpr std::size_t kDiscardedAtMost = 64U << 10U;

}  // namespace

Load::Client::~Client() = default;

Load::Load(std::shared_ptr<SessionCore> core, URLRequest request, std::optional<Bytes> body, std::shared_ptr<Client> client)
    : core_(std::move(core)), original_(std::move(request)), client_(std::move(client)) {
  if (original_.URL()) next_.url = original_.URL()->absoluteString();
  next_.method = original_.HTTPMethod();
  next_.headers = core_->configuration().HTTPAdditionalHeaders;
  for (const auto& [name, value] : original_.allHTTPHeaderFields().fields()) next_.headers.set(name, value);
  next_.body = std::move(body);
}

Load::~Load() = default;

void Load::start() {
  onNetworkThread([self = shared_from_this()] {
    assertOnNetworkThread();
    self->begin();
  });
}

void Load::cancel() {
  onNetworkThread([self = shared_from_this()] {
    assertOnNetworkThread();
    self->finish(self->error(NSURLErrorCancelled));
  });
}

void Load::goOn() {
  onNetworkThread([self = shared_from_this()] {
    assertOnNetworkThread();
    if (!std::exchange(self->pausedByClient_, false)) return;
    self->timeouts_.heard(Clock::now());
    if (self->exchange_) self->exchange_->goOn();
  });
}

void Load::begin() {
  if (phase_ == Phase::Ended) return;
  self_ = shared_from_this();
  const auto& configuration = core_->configuration();
  timeouts_ = LoadTimeouts(LoadTimeouts::shorter(original_.timeoutInterval(), configuration.timeoutIntervalForRequest),
                           configuration.timeoutIntervalForResource, Clock::now());
  auto origin = checkRequest(original_.URL(), next_.method, next_.headers);
  if (!origin) return finish(error(origin.error()));
  origin_ = *std::move(origin);
  armTimer();
  nextExchange();
}

void Load::nextExchange() {
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
  } catch (...) {
    finish(error(NSURLErrorResourceUnavailable));
  }
}

void Load::headArrived(int status, const HTTPHeaders& headers) {
  const auto url = URL::URLWithString(next_.url);
  const auto reply = std::make_shared<const URLResponse>(url ? *url : *original_.URL(), status, headers);
  if (Redirects::isOne(*reply)) return redirect(*reply);
  if (status == 401 && client_->answersChallenges() && askForCredential(reply)) return;
  client_->responseArrived(reply);
}

void Load::redirect(const URLResponse& reply) {
  auto origin = redirects_.follow(reply, origin_, next_);
  if (origin) {
    origin_ = *std::move(origin);
  } else {
    failure_ = error(origin.error());
  }
  discarded_ = 0;
  phase_ = Phase::Discarding;
}

Exchange::Appetite Load::bodyArrived(std::span<const char> piece) {
  if (phase_ == Phase::Discarding) {
    discarded_ += piece.size();
    return discarded_ > kDiscardedAtMost ? Exchange::Appetite::Refuse : Exchange::Appetite::Take;
  }
  if (phase_ == Phase::AskingCredential) return Exchange::Appetite::Pause;
  auto appetite = client_->dataArrived(piece);
  if (!appetite) {
    failure_ = std::move(appetite).error();
    return Exchange::Appetite::Refuse;
  }
  pausedByClient_ = *appetite == Exchange::Appetite::Pause;
  return *appetite;
}

void Load::bytesMoved(std::int64_t sent, std::int64_t received) {
  timeouts_.heard(Clock::now());
  if (sent >= 0 && phase_ != Phase::Discarding) client_->bytesArrived(received);
}

void Load::bodyFailed(const std::string& why) { failure_ = error(NSURLErrorRequestBodyStreamExhausted, why); }

void Load::exchangeEnded(const TransferEnd& end) {
  if (phase_ == Phase::AskingCredential) {
    std::get<CredentialQuestion>(*question_).end = end;
    return;
  }
  exchange_.reset();
  if (phase_ == Phase::Shaking && (end.isSuccess() || end.isOfUntrustedServer())) return askForTrust(end.isSuccess());
  settle(end);
}

void Load::settle(const TransferEnd& end) {
  if (failure_) return finish(std::exchange(failure_, std::nullopt));
  if (phase_ == Phase::Discarding) return nextExchange();
  if (end.isSuccess()) return finish(std::nullopt);
  finish(error(URLErrorCode(end), end.text()));
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

// One timer for both time-outs; it is set again when it goes off early, rather than with each byte.
void Load::armTimer() {
  const auto due = timeouts_.next();
  if (!due) return;
  const std::chrono::duration<double> wait = *due - Clock::now();
  timer_ = RunLoopTimer::create(wait.count(), 0, [weak = weak_from_this()] {
    assertOnNetworkThread();
    if (const auto self = weak.lock()) self->look();
  });
  networkLoop().add(timer_);
}

void Load::look() {
  if (phase_ == Phase::Ended) return;
  const auto now = Clock::now();
  // A client that is slow to take the reply is not a silent server.
  if (pausedByClient_) timeouts_.heard(now);
  if (const auto passed = timeouts_.passed(now)) return finish(error(*passed));
  armTimer();
}

}  // namespace platform::network
