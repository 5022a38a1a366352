#include "Services/RestConnector_Old.h"

#include <fmt/format.h>

#include <utility>

#include "Services/Reachability/Reachability.h"
#include "Services/RestBaseURL.h"
#include "Services/RestJSON.h"
#include "platform/foundation/log/Log.h"

namespace kestrine {

namespace {

void cancelLastOperation(const platform::OperationQueue& queue) {
  const auto operations = queue.operations();
  if (!operations.empty()) operations.back()->cancel();
}

}  // namespace

RestConnector_Old::RestConnector_Old() = default;
RestConnector_Old::~RestConnector_Old() = default;

std::optional<platform::URL> RestConnector_Old::getAbsoluteURL(const std::string& path) const { return restAbsoluteURL(path); }

void RestConnector_Old::startAsyncTask_params_progress_finished(const std::string& path, const platform::Object& params,
                                                                RestProgressHandler progress, RestFinishedHandler finished) {
  if (!Reachability::isReachable()) return finished(platform::Object(), RestStatusNotReachable);
  setProgressHandler(std::move(progress));
  const RestBody body = restBody(params);
  platform::NSLog(fmt::format("Json String {}", restBodyLogged(body)));
  if (!body) return finished(body.error(), RestStatusBodyEncodingError);
  setOperationQueue(platform::OperationQueue::create());
  platform::URLConnection::sendAsynchronousRequest(
      restJSONRequest(path, *body), operationQueue(),
      // This request's own queue: a second start puts another one into its place, whose operations are not ours to cancel.
      [self = shared_from_this(), queue = operationQueue(), finished = std::move(finished)](
          const std::shared_ptr<const platform::URLResponse>&, const std::optional<platform::Bytes>& data,
          const std::optional<platform::Error>& error) {
        restTaskCompleted(data, error, finished);
        cancelLastOperation(*queue);
      });
}

}  // namespace kestrine
