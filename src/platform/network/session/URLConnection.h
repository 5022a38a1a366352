#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "platform/concurrency/queue/OperationQueue.h"
#include "platform/network/message/Bytes.h"
#include "platform/network/message/URLAuthenticationChallenge.h"
#include "platform/network/message/URLError.h"
#include "platform/network/message/URLRequest.h"
#include "platform/network/message/URLResponse.h"

namespace platform {

class URLConnection;

/// Hears of one connection: the head, the body in pieces, and then the end or the failure. The calls come one after another, on the run
/// loop of the thread that started the connection or on the queue that was set. An exception that leaves one is said in the log.
class URLConnectionDelegate {
 public:
  using Connection = std::shared_ptr<URLConnection>;
  virtual ~URLConnectionDelegate();
  virtual void connection_didReceiveResponse(const Connection& connection, const std::shared_ptr<const URLResponse>& response);
  virtual void connection_didReceiveData(const Connection& connection, const Bytes& data);
  virtual void connectionDidFinishLoading(const Connection& connection);
  virtual void connection_didFailWithError(const Connection& connection, const Error& error);
  /// Until it is answered the connection waits, until its time-out at most. Not overridden: default handling.
  virtual void connection_willSendRequestForAuthenticationChallenge(const Connection& connection,
                                                                    const URLAuthenticationChallenge& challenge,
                                                                    const URLChallengeHandler& completionHandler);
};

/// One request of the older interface: the same HTTP as a session's, without a session and its header fields. The only time-out is the
/// request's. May be derived from, to carry more with it.
///
/// Ownership: held by its maker, and by itself with its delegate from the start until the delegate heard of the end.
/// Threads: any thread may make, start and cancel one; the delegate is called as said above.
class URLConnection : public std::enable_shared_from_this<URLConnection> {
 public:
  using CompletionHandler = std::function<void(const std::shared_ptr<const URLResponse>& response, const std::optional<Bytes>& data,
                                               const std::optional<Error>& error)>;

  /// Sends `request` and calls the handler on `queue`, once, with head and body or with the error. Returns at once.
  static void sendAsynchronousRequest(const URLRequest& request, const std::shared_ptr<OperationQueue>& queue, CompletionHandler handler);

  /// Makes a connection, or a kind of it with the arguments of that kind's constructor, and starts it when `startImmediately` asked for it.
  /// A constructor alone never starts one, since it has no shared pointer to keep yet.
  template <class Kind = URLConnection, class... Arguments>
  static std::shared_ptr<Kind> make(Arguments&&... arguments) {
    auto connection = std::make_shared<Kind>(std::forward<Arguments>(arguments)...);
    connection->beginAsAsked();
    return connection;
  }

  URLConnection(const URLRequest& request, const std::shared_ptr<URLConnectionDelegate>& delegate, bool startImmediately = true);
  virtual ~URLConnection();
  URLConnection(const URLConnection&) = delete;
  URLConnection& operator=(const URLConnection&) = delete;

  /// Begins to load; nothing when it already began or was cancelled.
  void start();
  /// Ends it at once; the delegate hears nothing more.
  void cancel();
  /// Where the delegate is called; before the start.
  void setDelegateQueue(std::shared_ptr<OperationQueue> queue);
  [[nodiscard]] const URLRequest& originalRequest() const;

 private:
  void beginAsAsked();
  struct Impl;
  const std::shared_ptr<Impl> impl_;
};

}  // namespace platform
