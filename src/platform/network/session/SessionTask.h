#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "platform/foundation/base/Mutex.h"
#include "platform/network/load/Load.h"
#include "platform/network/message/BodyCollector.h"
#include "platform/network/session/Delivery.h"
#include "platform/network/session/SessionTasks.h"
#include "platform/network/session/URLSession.h"
#include "platform/network/session/URLSessionDelegate.h"

namespace platform::network {

/// The task behind `URLSessionTask`: makes the load, gathers or passes on what it brings, and tells handler and delegate.
///
/// Ownership: a load that runs owns itself and this, its client; the task refers to it weakly.
///
/// Locks: the task's own is never held while a handler, a delegate or the executor runs. It is held while the task begins: the body's file
/// is opened, the task entered in the session's book (whose lock comes after this one) and the load handed to the network thread, so that a
/// `cancel` of another thread finds all of it or nothing.
class SessionTask final : public URLSessionTask, public Load::Client {
 public:
  enum class Kind { Data, Download };
  /// What the task is made of.
  struct Plan {
    Kind kind = Kind::Data;
    URLRequest request;
    /// In place of the request's own body.
    std::optional<Bytes> body = {};
    std::optional<URL> bodyFile = {};
    URLSession::DataHandler dataHandler = {};
    URLSession::DownloadHandler downloadHandler = {};
  };
  /// What the session gives it.
  struct Place {
    std::shared_ptr<URLSession> session;
    /// The session's.
    SessionTasks& tasks;
    std::shared_ptr<SessionCore> core;
    Executor executor;
    std::uint64_t identifier = 0;
  };

  SessionTask(Plan plan, Place place);
  ~SessionTask() override;

  void resume() override;
  void cancel() override;
  [[nodiscard]] State state() const override;
  [[nodiscard]] std::uint64_t taskIdentifier() const override { return place_.identifier; }
  [[nodiscard]] std::string taskDescription() const override;
  void setTaskDescription(std::string text) override;
  [[nodiscard]] const URLRequest& originalRequest() const override { return plan_.request; }
  [[nodiscard]] std::shared_ptr<const URLResponse> response() const override;
  [[nodiscard]] std::optional<Error> error() const override;
  [[nodiscard]] std::int64_t countOfBytesReceived() const override { return received_; }

 private:
  using Delegate = std::shared_ptr<URLSessionDelegate>;

  // Load::Client
  [[nodiscard]] bool answersChallenges() const override { return delegate_ != nullptr; }
  void challenged(const URLAuthenticationChallenge& challenge, URLChallengeHandler answer) override;
  void responseArrived(const std::shared_ptr<const URLResponse>& response) override;
  Result<Exchange::Appetite, Error> dataArrived(std::span<const char> piece) override;
  void bytesArrived(std::int64_t received) override { received_ = received; }
  void loadEnded(std::optional<Error> error) override;

  std::shared_ptr<SessionTask> self() { return std::static_pointer_cast<SessionTask>(shared_from_this()); }
  [[nodiscard]] bool hasHandler() const { return plan_.dataHandler || plan_.downloadHandler; }
  Result<std::shared_ptr<Load>, Error> makeLoad();
  /// The end of a task that could not begin: whoever resumed it hears that from an exception, and nobody else.
  void abandon() EXCLUDES(mutex_);
  Exchange::Appetite passOn(std::span<const char> piece);
  void taken(std::size_t size) EXCLUDES(mutex_);
  void tellWritten(std::size_t size);
  void complete(std::optional<Error> error) EXCLUDES(mutex_);
  void tellEnd(const std::optional<Error>& error, const Delegate& delegate) EXCLUDES(mutex_);
  void tellDownload(const std::optional<Error>& error, const Delegate& delegate);

  Plan plan_;
  Place place_;
  const std::shared_ptr<Delivery> delivery_;
  BodyCollector collector_;
  /// From `resume` to the end. Written before the load starts and by the last block of the delivery.
  Delegate delegate_;

  std::atomic<std::int64_t> received_ = 0;
  /// Bytes passed on that the delegate has not taken yet.
  std::atomic<std::size_t> waiting_ = 0;
  /// Bytes written that the delegate has not been told yet.
  std::atomic<std::int64_t> untold_ = 0;
  std::atomic<std::int64_t> written_ = 0;

  mutable Mutex mutex_ ACQUIRED_BEFORE(place_.tasks.mutex());
  State state_ GUARDED_BY(mutex_) = State::Suspended;
  std::string description_ GUARDED_BY(mutex_);
  std::shared_ptr<const URLResponse> response_ GUARDED_BY(mutex_);
  std::optional<Error> error_ GUARDED_BY(mutex_);
  /// While it runs.
  std::weak_ptr<Load> load_ GUARDED_BY(mutex_);
};

}  // namespace platform::network
