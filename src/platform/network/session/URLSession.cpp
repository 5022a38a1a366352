#include "platform/network/session/URLSession.h"

#include <utility>

#include "platform/network/session/SessionImpl.h"

namespace platform {

using network::SessionTask;

URLSession::Impl::Impl(const URLSessionConfiguration& configuration, const std::shared_ptr<URLSessionDelegate>& delegate,
                       std::shared_ptr<OperationQueue> queue, network::Executor executor)
    : core(std::make_shared<network::SessionCore>(configuration)),
      delegate(delegate),
      queue(std::move(queue)),
      executor(std::move(executor)),
      tasks([this] { tellEnd(); }) {}

std::shared_ptr<URLSession> URLSession::Impl::make(const URLSessionConfiguration& configuration,
                                                   const std::shared_ptr<URLSessionDelegate>& delegate,
                                                   std::shared_ptr<OperationQueue> queue, network::Executor executor) {
  return std::shared_ptr<URLSession>(
      new URLSession(std::make_unique<Impl>(configuration, delegate, std::move(queue), std::move(executor))));
}

std::shared_ptr<URLSessionTask> URLSession::Impl::makeTask(SessionTask::Plan plan) {
  return tasks.add([this, &plan](std::uint64_t identifier) {
    SessionTask::Place place{session->shared_from_this(), tasks, core, executor, identifier};
    return std::make_shared<SessionTask>(std::move(plan), std::move(place));
  });
}

void URLSession::Impl::tellEnd() {
  const auto listener = delegate.lock();
  if (!listener) return;
  std::make_shared<network::Delivery>(executor)->post(
      [itself = session->shared_from_this(), listener] { listener->URLSession_didBecomeInvalidWithError(itself, std::nullopt); });
}

std::shared_ptr<URLSession> URLSession::sessionWithConfiguration(const URLSessionConfiguration& configuration,
                                                                 const std::shared_ptr<URLSessionDelegate>& delegate,
                                                                 std::shared_ptr<OperationQueue> delegateQueue) {
  if (!delegateQueue) delegateQueue = OperationQueue::mainQueue();
  return Impl::make(configuration, delegate, delegateQueue,
                    [delegateQueue](std::function<void()> block) { delegateQueue->addOperationWithBlock(std::move(block)); });
}

URLSession::URLSession(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) { impl_->session = this; }
URLSession::~URLSession() = default;

const URLSessionConfiguration& URLSession::configuration() const { return impl_->core->configuration(); }
std::shared_ptr<URLSessionDelegate> URLSession::delegate() const { return impl_->delegate.lock(); }
const std::shared_ptr<OperationQueue>& URLSession::delegateQueue() const { return impl_->queue; }

URLSession::Task URLSession::dataTaskWithRequest(const URLRequest& request, DataHandler completionHandler) {
  return impl_->makeTask({.request = request, .dataHandler = std::move(completionHandler)});
}

URLSession::Task URLSession::dataTaskWithURL(const URL& url, DataHandler completionHandler) {
  return dataTaskWithRequest(URLRequest(url), std::move(completionHandler));
}

URLSession::Task URLSession::downloadTaskWithRequest(const URLRequest& request, DownloadHandler completionHandler) {
  return impl_->makeTask({.kind = SessionTask::Kind::Download, .request = request, .downloadHandler = std::move(completionHandler)});
}

URLSession::Task URLSession::downloadTaskWithURL(const std::optional<URL>& url, DownloadHandler completionHandler) {
  return downloadTaskWithRequest(URLRequest(url), std::move(completionHandler));
}

URLSession::Task URLSession::uploadTaskWithRequest_fromFile(const URLRequest& request, const URL& fileURL, DataHandler completionHandler) {
  return impl_->makeTask({.request = request, .bodyFile = fileURL, .dataHandler = std::move(completionHandler)});
}

URLSession::Task URLSession::uploadTaskWithRequest_fromData(const URLRequest& request, Bytes body, DataHandler completionHandler) {
  return impl_->makeTask({.request = request, .body = std::move(body), .dataHandler = std::move(completionHandler)});
}

URLSession::Task URLSession::uploadTaskWithStreamedRequest(const URLRequest& request) { return impl_->makeTask({.request = request}); }

void URLSession::finishTasksAndInvalidate() { impl_->tasks.invalidate(); }

void URLSession::invalidateAndCancel() {
  const auto tasks = impl_->tasks.invalidateAndList();
  for (const auto& task : tasks) task->cancel();
  impl_->tasks.invalidate();
}

}  // namespace platform
