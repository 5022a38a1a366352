#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/concurrency/RunLoop.h"
#include "platform/network/load/AuthenticateHeader.h"
#include "platform/network/load/SessionCore.h"
#include "platform/network/message/URLAuthenticationChallenge.h"
#include "platform/network/message/URLError.h"
#include "platform/network/message/URLRequest.h"
#include "platform/network/message/URLResponse.h"
#include "platform/network/wire/Exchange.h"

namespace platform::network {

/// Somebody has been asked and has not answered yet.
struct LoadQuestion {
  std::uint64_t serial = 0;
  bool ofTrust = false;
  bool trustedBySystem = false;
  std::vector<AuthenticationOffer> offers;
  std::size_t offer = 0;
  std::shared_ptr<const URLResponse> response;
  /// What became of the exchange meanwhile.
  std::optional<TransferEnd> end;
};

/// The way of one task over the wire: its exchanges (redirects, answers to challenges), its time-outs, its end. Makes decisions, moves no
/// bytes itself (`Exchange`) and keeps none (its client).
///
/// Owned by itself from `start` until its end. Threads: `start`, `cancel` and `goOn` on any thread; all the rest, and every call to the
/// client, on the network thread.
class Load final : public Exchange::Listener, public std::enable_shared_from_this<Load> {
 public:
  /// Hears of it, in this order. May not call back from inside a call except `goOn` and `cancel`.
  class Client {
   public:
    virtual ~Client();
    /// Whether somebody is there to be asked.
    [[nodiscard]] virtual bool answersChallenges() const = 0;
    virtual void challenged(const URLAuthenticationChallenge& challenge, URLChallengeHandler answer) = 0;
    virtual void responseArrived(const std::shared_ptr<const URLResponse>& response) = 0;
    /// As `Exchange::Listener::bodyArrived`; with a refusal goes the error that ends the load.
    virtual Exchange::Appetite dataArrived(std::span<const char> piece, std::optional<Error>& failure) = 0;
    virtual void bytesMoved(std::int64_t sent, std::int64_t received) = 0;
    /// The last call. Nothing when all of the reply has come.
    virtual void loadEnded(std::optional<Error> error) = 0;
  };

  Load(std::shared_ptr<SessionCore> core, URLRequest request, std::optional<Bytes> body, std::shared_ptr<Client> client);
  ~Load() override;

  void start();
  void cancel();
  /// Offers again what the client did not take.
  void goOn();

 private:
  using Clock = std::chrono::steady_clock;
  using Disposition = URLSessionAuthChallengeDisposition;
  enum class Phase { Idle, Shaking, Transferring, Ended };
  // Exchange::Listener
  void headArrived(int status, const HTTPHeaders& headers) override;
  Exchange::Appetite bodyArrived(std::span<const char> piece) override;
  void bytesMoved(std::int64_t sent, std::int64_t received) override;
  void bodyFailed(const std::string& why) override;
  void exchangeEnded(const TransferEnd& end) override;

  void begin();
  std::optional<Error> refusal();
  void nextExchange();
  void open(Phase phase, Exchange::Request request);
  void settle(const TransferEnd& end);
  void finish(std::optional<Error> error);
  void accept(std::shared_ptr<const URLResponse> response);

  bool redirect(const URLResponse& response);
  void askForCredential(std::shared_ptr<const URLResponse> response);
  void askForTrust(bool trustedBySystem);
  void ask(const URLAuthenticationChallenge& challenge);
  void askForOffer();
  void answered(std::uint64_t serial, Disposition disposition, const std::optional<URLCredential>& credential);
  void trustAnswered(Disposition disposition, const std::optional<URLCredential>& credential);
  void credentialAnswered(Disposition disposition, const std::optional<URLCredential>& credential);
  void takeReplyAsItIs();

  void look();
  void armTimer();
  [[nodiscard]] Error error(std::int64_t code, const std::string& detail = {}) const;

  const std::shared_ptr<SessionCore> core_;
  const URLRequest original_;
  std::shared_ptr<Client> client_;
  std::shared_ptr<Load> self_;

  Exchange::Request next_;
  Origin origin_;
  Phase phase_ = Phase::Idle;
  std::unique_ptr<Exchange> exchange_;
  std::optional<LoadQuestion> question_;
  std::uint64_t questions_ = 0;
  int redirects_ = 0;
  int refusedCredentials_ = 0;
  /// The reply is not the task's: another exchange follows it, or `failure_`.
  bool discarding_ = false;
  std::size_t discarded_ = 0;
  bool pausedByClient_ = false;
  std::optional<Error> failure_;

  std::optional<Clock::duration> silence_;
  std::optional<Clock::time_point> limit_;
  Clock::time_point lastActivity_;
  std::shared_ptr<RunLoopTimer> timer_;
};

}  // namespace platform::network
