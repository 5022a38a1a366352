#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Services/RestResult.h"
#include "platform/concurrency/queue/OperationQueue.h"
#include "platform/foundation/url/URL.h"
#include "platform/foundation/value/Object.h"
#include "platform/network/session/URLConnection.h"

namespace kestrine {

/// The transport of systems from 10.7 to 10.9: one POST of JSON over the older connection interface. The request is that of RestConnector,
/// but without a session's header fields.
///
/// Owned by shared pointers (std::make_shared); a request that was started keeps its connector until it has finished.
///
/// Threads: any thread may start it. What is found out before sending (no network, parameters that are no JSON) is told on that thread
/// before the method returns; all else on `operationQueue`, not on the main thread. Not locked.
class RestConnector_Old : public std::enable_shared_from_this<RestConnector_Old> {
 public:
  RestConnector_Old();
  ~RestConnector_Old();
  RestConnector_Old(const RestConnector_Old&) = delete;
  RestConnector_Old& operator=(const RestConnector_Old&) = delete;

  /// Made anew for each request; its completion runs there. Nothing before the first.
  [[nodiscard]] const std::shared_ptr<platform::OperationQueue>& operationQueue() const { return operationQueue_; }
  void setOperationQueue(std::shared_ptr<platform::OperationQueue> queue) { operationQueue_ = std::move(queue); }
  [[nodiscard]] const RestProgressHandler& progressHandler() const { return progressHandler_; }
  void setProgressHandler(RestProgressHandler handler) { progressHandler_ = std::move(handler); }
  /// Nothing sets it here.
  [[nodiscard]] const std::shared_ptr<platform::URLConnection>& connection() const { return connection_; }
  void setConnection(std::shared_ptr<platform::URLConnection> connection) { connection_ = std::move(connection); }

  /// See restAbsoluteURL.
  [[nodiscard]] std::optional<platform::URL> getAbsoluteURL(const std::string& path) const;

  /// Posts `params` as JSON and reads the answer as JSON, whatever its HTTP status. A transport error whose code is -1 is said in the log
  /// only, and `finished` is never called for it.
  void startAsyncTask_params_progress_finished(const std::string& path, const platform::Object& params, RestProgressHandler progress,
                                               RestFinishedHandler finished);

 private:
  std::shared_ptr<platform::OperationQueue> operationQueue_;
  RestProgressHandler progressHandler_;
  std::shared_ptr<platform::URLConnection> connection_;
};

}  // namespace kestrine
