#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/foundation/base/Error.h"
#include "platform/foundation/url/URL.h"
#include "platform/network/message/Bytes.h"
#include "platform/network/message/URLAuthenticationChallenge.h"
#include "platform/network/message/URLResponse.h"

namespace platform {

class URLSession;
class URLSessionTask;

/// Hears of a session and its tasks, on the session's delegate queue, one call after another for one task. What is not overridden does what
/// the platform does without the method. An exception that leaves a method is said in the log and ends there.
///
/// A task with a completion handler sends challenges only.
class URLSessionDelegate {
 public:
  using Session = std::shared_ptr<URLSession>;
  using Task = std::shared_ptr<URLSessionTask>;

  virtual ~URLSessionDelegate();

  /// The session was invalidated and its last task is done.
  virtual void URLSession_didBecomeInvalidWithError(const Session& session, const std::optional<Error>& error);
  /// Whether a TLS server is to be trusted.
  virtual void URLSession_didReceiveChallenge_completionHandler(const Session& session, const URLAuthenticationChallenge& challenge,
                                                                const URLChallengeHandler& completionHandler);
  /// A server asks who we are (401). The reply's body, if the challenge is not answered, is the task's.
  virtual void URLSession_task_didReceiveChallenge_completionHandler(const Session& session, const Task& task,
                                                                     const URLAuthenticationChallenge& challenge,
                                                                     const URLChallengeHandler& completionHandler);
  /// The last call for a task; nothing when it succeeded. HTTP statuses such as 404 are no errors.
  virtual void URLSession_task_didCompleteWithError(const Session& session, const Task& task, const std::optional<Error>& error);

  /// Data tasks.
  virtual void URLSession_dataTask_didReceiveResponse(const Session& session, const Task& task,
                                                      const std::shared_ptr<const URLResponse>& response);
  /// In order; the next piece is delivered after the call returns, and the transfer halts while a few are waiting.
  virtual void URLSession_dataTask_didReceiveData(const Session& session, const Task& task, const Bytes& data);

  /// Download tasks. Pieces that arrive faster than the queue takes them are told in one call.
  virtual void URLSession_downloadTask_didWriteData_totalBytesWritten_totalBytesExpectedToWrite(const Session& session, const Task& task,
                                                                                                std::int64_t bytesWritten,
                                                                                                std::int64_t totalBytesWritten,
                                                                                                std::int64_t totalBytesExpectedToWrite);
  /// The file at `location` (a file URL) is removed after the call returned, unless it was moved away.
  virtual void URLSession_downloadTask_didFinishDownloadingToURL(const Session& session, const Task& task, const URL& location);
  /// Part of the delegate's interface; never called, since no task here can be made from resume data.
  virtual void URLSession_downloadTask_didResumeAtOffset_expectedTotalBytes(const Session& session, const Task& task,
                                                                            std::int64_t fileOffset, std::int64_t expectedTotalBytes);
};

}  // namespace platform
