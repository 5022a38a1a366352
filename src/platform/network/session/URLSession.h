#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/concurrency/queue/OperationQueue.h"
#include "platform/network/message/URLAuthenticationChallenge.h"
#include "platform/network/message/URLError.h"
#include "platform/network/message/URLRequest.h"
#include "platform/network/message/URLResponse.h"
#include "platform/network/message/URLSessionConfiguration.h"
#include "platform/network/session/URLSessionTask.h"

namespace platform {

class URLSessionDelegate;

/// A group of HTTP tasks with one configuration: HTTP/1.1 over plain TCP or TLS, straight to the server (proxies are not consulted), gzip
/// and deflate decoded, connections kept and used again, no cookies, no cache.
///
/// Redirects are followed as the platform does: 303, and 301 and 302 after a POST, go on as GET without the body; 307 and 308 keep both;
/// "Authorization" and "Cookie" are not carried to another origin; after 20 the task fails with NSURLErrorHTTPTooManyRedirects.
///
/// Ownership: the caller holds the session, and so does each of its tasks. A task that was resumed is held by the platform until it has
/// completed, and holds the delegate meanwhile. The session itself refers to its delegate weakly, so that a delegate may own its session,
/// and keeps no task. Letting go of a session leaves its running tasks to finish. Connections are closed with the last of both.
///
/// Threads: any thread may call anything. All sessions are driven by one network thread of the process, which is started with the first
/// task, sleeps while nothing happens, and is parked when the process exits.
class URLSession : public std::enable_shared_from_this<URLSession> {
 public:
  using DataHandler = std::function<void(const std::optional<Bytes>& data, const std::shared_ptr<const URLResponse>& response,
                                         const std::optional<Error>& error)>;
  using DownloadHandler = std::function<void(const std::optional<URL>& location, const std::shared_ptr<const URLResponse>& response,
                                             const std::optional<Error>& error)>;
  using Task = std::shared_ptr<URLSessionTask>;

  /// Completion handlers and delegate methods run on `delegateQueue`; on the main queue when there is none.
  static std::shared_ptr<URLSession> sessionWithConfiguration(const URLSessionConfiguration& configuration,
                                                              const std::shared_ptr<URLSessionDelegate>& delegate = nullptr,
                                                              std::shared_ptr<OperationQueue> delegateQueue = nullptr);
  ~URLSession();
  URLSession(const URLSession&) = delete;
  URLSession& operator=(const URLSession&) = delete;

  [[nodiscard]] const URLSessionConfiguration& configuration() const;
  [[nodiscard]] std::shared_ptr<URLSessionDelegate> delegate() const;
  [[nodiscard]] const std::shared_ptr<OperationQueue>& delegateQueue() const;

  // Tasks are made suspended and begin with `resume`. A handler, when given, is called once: with the body (empty or not) and the head on
  // success; without a body and with the error otherwise. Making a task in an invalidated session throws
  // Exception(NSInvalidArgumentException).

  Task dataTaskWithRequest(const URLRequest& request, DataHandler completionHandler = nullptr);
  Task dataTaskWithURL(const URL& url, DataHandler completionHandler = nullptr);

  /// The body goes to a file. `location` is removed after the handler returned, unless it was moved away.
  Task downloadTaskWithRequest(const URLRequest& request, DownloadHandler completionHandler = nullptr);
  Task downloadTaskWithURL(const std::optional<URL>& url, DownloadHandler completionHandler = nullptr);

  /// The body is the file as it is when the task begins to send it, read piece by piece. A file that is not there, cannot be read or
  /// shrinks while it is sent makes the task fail (NSURLErrorFileDoesNotExist, ...IsDirectory, NoPermissionsToReadFile,
  /// RequestBodyStreamExhausted).
  Task uploadTaskWithRequest_fromFile(const URLRequest& request, const URL& fileURL, DataHandler completionHandler = nullptr);
  Task uploadTaskWithRequest_fromData(const URLRequest& request, Bytes body, DataHandler completionHandler = nullptr);
  /// The body is the request's own.
  Task uploadTaskWithStreamedRequest(const URLRequest& request);

  /// No more tasks; those that were made go on.
  void finishTasksAndInvalidate();
  /// No more tasks; those that have not completed are cancelled, the suspended ones too: each ends with NSURLErrorCancelled, and its
  /// handler is called.
  void invalidateAndCancel();

 private:
  friend class URLConnection;
  struct Impl;
  explicit URLSession(std::unique_ptr<Impl> impl);
  const std::unique_ptr<Impl> impl_;
};

}  // namespace platform
