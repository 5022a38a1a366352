#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/base/Error.h"
#include "platform/network/message/URLRequest.h"
#include "platform/network/message/URLResponse.h"

namespace platform {

/// One request of a session. Made by `URLSession`, suspended; begins with `resume`.
///
/// | state     | resume     | cancel                                   |
/// |-----------|------------|------------------------------------------|
/// | Suspended | -> Running | -> Completed with NSURLErrorCancelled    |
/// | Running   | nothing    | -> Canceling, soon Completed with it     |
/// | Canceling | nothing    | nothing                                  |
/// | Completed | nothing    | nothing                                  |
///
/// The handler and the delegate hear of the end after the state is Completed. A task keeps its session as long as itself, and its handler
/// until that was called, so one that is never resumed keeps that as long too.
///
/// Threads: any thread may call anything.
class URLSessionTask : public std::enable_shared_from_this<URLSessionTask> {
 public:
  enum class State { Running = 0, Suspended = 1, Canceling = 2, Completed = 3 };

  virtual ~URLSessionTask();
  URLSessionTask(const URLSessionTask&) = delete;
  URLSessionTask& operator=(const URLSessionTask&) = delete;

  /// Throws std::system_error when the system has no thread for the network; the task is Completed then, and nobody else hears of it.
  virtual void resume() = 0;
  virtual void cancel() = 0;

  [[nodiscard]] virtual State state() const = 0;
  /// Unique within the session, from 1.
  [[nodiscard]] virtual std::uint64_t taskIdentifier() const = 0;
  /// The caller's own words; empty until set.
  [[nodiscard]] virtual std::string taskDescription() const = 0;
  virtual void setTaskDescription(std::string text) = 0;

  [[nodiscard]] virtual const URLRequest& originalRequest() const = 0;
  /// The head of the reply, as soon as there is one.
  [[nodiscard]] virtual std::shared_ptr<const URLResponse> response() const = 0;
  /// Why it failed; nothing while it runs and when it succeeded.
  [[nodiscard]] virtual std::optional<Error> error() const = 0;
  /// Bytes of the reply's body, as they came over the wire.
  [[nodiscard]] virtual std::int64_t countOfBytesReceived() const = 0;

 protected:
  URLSessionTask() = default;
};

}  // namespace platform
