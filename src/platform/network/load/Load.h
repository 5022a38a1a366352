#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/Result.h"
#include "platform/network/load/LoadFailure.h"
#include "platform/network/load/LoadQuestion.h"
#include "platform/network/load/LoadTimeouts.h"
#include "platform/network/load/Redirects.h"
#include "platform/network/load/SessionCore.h"
#include "platform/network/message/URLAuthenticationChallenge.h"
#include "platform/network/message/URLError.h"
#include "platform/network/message/URLRequest.h"
#include "platform/network/message/URLResponse.h"
#include "platform/network/wire/Exchange.h"

namespace platform::network {

/// The way of one task over the wire: its exchanges one after another, from the check of the request to the end. Decides, moves no bytes
/// itself (`Exchange`) and keeps none (its client). What is decided about a request is in RequestCheck.h, about redirects in Redirects.h,
/// about time-outs in LoadTimeouts.h; what is asked, about a server's certificate and about a 401, in LoadQuestion.h, and what becomes of
/// the answer in LoadAnswers.cpp.
///
/// | phase            | what goes on                           | head arrives              | body arrives     | exchange ends             |
/// |------------------|----------------------------------------|---------------------------|------------------|---------------------------|
/// | Idle             | made, not begun                        |                           |                  |                           |
/// | Shaking          | a handshake is tried, nothing is sent  |                           |                  | -> AskingTrust, or Ended  |
/// | AskingTrust      | the client is asked about the server   |                           |                  |                           |
/// | Transferring     | request and reply of the task          | to the client; a redirect | to the client    | -> Ended                  |
/// |                  |                                        | -> Discarding,            |                  |                           |
/// |                  |                                        | a 401 -> AskingCredential |                  |                           |
/// | AskingCredential | the client is asked about a 401        |                           | held back        | kept for the answer       |
/// | Discarding       | a reply that is not the task's         |                           | thrown away      | next exchange, or Ended   |
/// | Ended            | the client has been told               |                           |                  |                           |
///
/// A next exchange begins as Shaking when a TLS server is new and the client answers challenges, else as Transferring. An answer about
/// trust leads to the next exchange or to Ended; about a 401 to Discarding with a credential, and without one to Transferring with the
/// reply that was held back, or to its end. `cancel`, a time-out and a cancelling answer lead to Ended from everywhere.
///
/// Owned by itself from `start` until its end, and its client with it. Threads: `start`, `cancel` and `goOn` on any thread; all the rest,
/// and every call to the client, on the network thread.
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
    /// Take or Pause, as `Exchange::Listener::bodyArrived`; an error refuses it and ends the load.
    virtual Result<Exchange::Appetite, Error> dataArrived(std::span<const char> piece) = 0;
    /// Bytes of the reply's body that came so far, as they went over the wire.
    virtual void bytesArrived(std::int64_t received) = 0;
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
  using Clock = LoadTimeouts::Clock;
  using Disposition = URLSessionAuthChallengeDisposition;
  enum class Phase { Idle, Shaking, AskingTrust, Transferring, AskingCredential, Discarding, Ended };

  // Exchange::Listener
  void headArrived(int status, const HTTPHeaders& headers) override REQUIRES(networkThread);
  Exchange::Appetite bodyArrived(std::span<const char> piece) override REQUIRES(networkThread);
  void bytesMoved(std::int64_t sent, std::int64_t received) override REQUIRES(networkThread);
  void bodyFailed(const std::string& why) override REQUIRES(networkThread);
  void exchangeEnded(const TransferEnd& end) override REQUIRES(networkThread);

  void begin() REQUIRES(networkThread);
  void nextExchange() REQUIRES(networkThread);
  void open(Phase phase, Exchange::Request request) REQUIRES(networkThread);
  void settle(const TransferEnd& end) REQUIRES(networkThread);
  void finish(std::optional<Error> error) REQUIRES(networkThread);
  void redirect(const URLResponse& reply) REQUIRES(networkThread);

  bool askForCredential(const std::shared_ptr<const URLResponse>& reply) REQUIRES(networkThread);
  void askForTrust(bool trustedBySystem) REQUIRES(networkThread);
  void ask(Phase phase, const URLAuthenticationChallenge& challenge) REQUIRES(networkThread);
  void answered(std::uint64_t serial, Disposition disposition, const std::optional<URLCredential>& credential) REQUIRES(networkThread);
  void trustAnswered(const TrustQuestion& question, bool given) REQUIRES(networkThread);
  void credentialAnswered(CredentialQuestion question, Disposition disposition, const std::optional<URLCredential>& credential)
      REQUIRES(networkThread);
  void leaveQuestion(Phase phase, const std::optional<TransferEnd>& end) REQUIRES(networkThread);

  void look() REQUIRES(networkThread);
  void armTimer() REQUIRES(networkThread);
  [[nodiscard]] Error error(std::int64_t code, const std::string& detail = {}) const;
  [[nodiscard]] Error error(const LoadFailure& failure) const { return error(failure.code, failure.detail); }

  const std::shared_ptr<SessionCore> core_;
  const URLRequest original_;
  std::shared_ptr<Client> client_ GUARDED_BY(networkThread);
  std::shared_ptr<Load> self_ GUARDED_BY(networkThread);

  Phase phase_ GUARDED_BY(networkThread) = Phase::Idle;
  Exchange::Request next_ GUARDED_BY(networkThread);
  Origin origin_ GUARDED_BY(networkThread);
  std::unique_ptr<Exchange> exchange_ GUARDED_BY(networkThread);
  Redirects redirects_ GUARDED_BY(networkThread);
  /// Of the phases that ask.
  std::optional<LoadQuestion> question_ GUARDED_BY(networkThread);
  /// The question's number: an answer to a former one is late.
  std::uint64_t questions_ GUARDED_BY(networkThread) = 0;
  int refusedCredentials_ GUARDED_BY(networkThread) = 0;
  /// Bytes of the phase Discarding.
  std::size_t discarded_ GUARDED_BY(networkThread) = 0;
  /// The client did not take the last piece; nothing more comes until `goOn`.
  bool pausedByClient_ GUARDED_BY(networkThread) = false;
  /// Known before the exchange has ended: what the load then ends with.
  std::optional<Error> failure_ GUARDED_BY(networkThread);

  LoadTimeouts timeouts_ GUARDED_BY(networkThread);
  std::shared_ptr<RunLoopTimer> timer_ GUARDED_BY(networkThread);
};

}  // namespace platform::network
