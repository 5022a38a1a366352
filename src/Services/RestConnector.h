#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Services/RestResult.h"
#include "platform/foundation/url/URL.h"
#include "platform/foundation/value/Object.h"
#include "platform/network/session/URLSession.h"
#include "platform/network/session/URLSessionDelegate.h"

namespace kestrine {

/// One request to the product's server over a URL session: a POST of JSON, or one of the stream calls. A connector serves one request; a
/// second start replaces the session and the task and leaves the former request to itself.
///
/// Each start method asks for the network first. Without it, and when the parameters are no JSON, `finished` is called at once, on the
/// caller's thread, before the method returns. All else arrives on the main queue, which the host must keep serving. HTTP statuses are not
/// looked at: an answer of 404 whose body is JSON is a success.
///
/// Owned by shared pointers (std::make_shared); a request that was started keeps its connector until it has finished.
///
/// Threads: any thread may start a connector; it is used by one thread at a time until then. Not locked.
class RestConnector : public platform::URLSessionDelegate, public std::enable_shared_from_this<RestConnector> {
 public:
  RestConnector();
  ~RestConnector() override;
  RestConnector(const RestConnector&) = delete;
  RestConnector& operator=(const RestConnector&) = delete;

  [[nodiscard]] const std::shared_ptr<platform::URLSession>& session() const { return session_; }
  void setSession(std::shared_ptr<platform::URLSession> session) { session_ = std::move(session); }
  /// What resume, pause and close act upon. The two upload methods do not set it.
  [[nodiscard]] const std::shared_ptr<platform::URLSessionTask>& sessionTask() const { return sessionTask_; }
  void setSessionTask(std::shared_ptr<platform::URLSessionTask> task) { sessionTask_ = std::move(task); }
  [[nodiscard]] const RestProgressHandler& progressHandler() const { return progressHandler_; }
  void setProgressHandler(RestProgressHandler handler) { progressHandler_ = std::move(handler); }

  /// See restAbsoluteURL.
  [[nodiscard]] std::optional<platform::URL> getAbsoluteURL(const std::string& path) const;

  // Each makes a session of its kind, with this connector as delegate, and stores it. Which start method uses which is not what the names
  // suggest; see there.

  /// JSON as default type both ways, 60 s for silence and for the whole, one connection.
  void configSessionForData();
  /// One connection; the platform's time-outs.
  void configSessionForUpload();
  /// 60 s for silence and for the whole.
  void configSessionForDownload();

  /// Posts `params` as JSON and reads the answer as JSON. Download session. A transport error whose code is -1 is said in the log only, and
  /// `finished` is never called for it.
  void startAsyncTask_params_progress_finished(const std::string& path, const platform::Object& params, RestProgressHandler progress,
                                               RestFinishedHandler finished);
  /// Posts `params` as JSON and hands the answer over as it is. Data session.
  void startAsyncDownloadWithStreamRequest_params_progress_finished(const std::string& path, const platform::Object& params,
                                                                    RestProgressHandler progress, RestResponseFinishedHandler finished);
  /// Fetches `url`, an absolute one. Download session. The data lies in a file without a name as long as somebody holds it.
  void startAsyncDownload_progress_finished(const std::string& url, RestProgressHandler progress, RestDataFinishedHandler finished);
  /// Sends the file that `params` names under "FilePath" (the server's form of its path), with that, "TransitDownloadPath" and
  /// "FileRequestID" as header fields. Upload session.
  ///
  /// The file goes through a copy in the home folder, under its own name: whatever has that name there is overwritten, and removed when the
  /// request has succeeded - also when it is the file itself. After a failure the copy stays. An answer that is no JSON gives nil and
  /// status 0.
  void startAsyncUploadWithStreamRequest_params_progress_finished(const std::string& path, const platform::Object& params,
                                                                  RestProgressHandler progress, RestFinishedHandler finished);
  /// Makes the request of a JSON upload and sends nothing: the entry was never finished, and `finished` hears only of a missing network
  /// and of parameters that are no JSON. Download session.
  void startAsyncUpload_params_progress_finished(const std::string& path, const platform::Object& params, RestProgressHandler progress,
                                                 RestFinishedHandler finished);

  /// Resumes the current task.
  RestTaskStatus resume();
  /// Resumes it too, and says that it paused: callers have come to rely on tasks that go on.
  RestTaskStatus pause();
  /// Cancels it.
  RestTaskStatus close();

  // URLSessionDelegate. A task with a completion handler calls only the challenges of these; both stay unanswered, so a server that asks
  // for a password or shows a certificate makes the request run into its time-out.
  void URLSession_didReceiveChallenge_completionHandler(const Session& session, const platform::URLAuthenticationChallenge& challenge,
                                                        const platform::URLChallengeHandler& completionHandler) override;
  void URLSession_task_didReceiveChallenge_completionHandler(const Session& session, const Task& task,
                                                             const platform::URLAuthenticationChallenge& challenge,
                                                             const platform::URLChallengeHandler& completionHandler) override;
  void URLSession_task_didCompleteWithError(const Session& session, const Task& task, const std::optional<platform::Error>& error) override;
  void URLSession_downloadTask_didWriteData_totalBytesWritten_totalBytesExpectedToWrite(const Session& session, const Task& task,
                                                                                        std::int64_t bytesWritten,
                                                                                        std::int64_t totalBytesWritten,
                                                                                        std::int64_t totalBytesExpectedToWrite) override;
  void URLSession_downloadTask_didFinishDownloadingToURL(const Session& session, const Task& task, const platform::URL& location) override;
  void URLSession_downloadTask_didResumeAtOffset_expectedTotalBytes(const Session& session, const Task& task, std::int64_t fileOffset,
                                                                    std::int64_t expectedTotalBytes) override;

 private:
  void configSession(const platform::URLSessionConfiguration& configuration);

  std::shared_ptr<platform::URLSession> session_;
  std::shared_ptr<platform::URLSessionTask> sessionTask_;
  RestProgressHandler progressHandler_;
};

}  // namespace kestrine
