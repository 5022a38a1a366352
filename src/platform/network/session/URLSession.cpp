#include "platform/network/session/URLSession.h"

#include <utility>
#include <vector>

#include "platform/foundation/base/Exception.h"
#include "platform/network/session/SessionImpl.h"

namespace platform {

using network::SessionTask;

std::shared_ptr<URLSession> URLSession::Impl::make(const URLSessionConfiguration& configuration,
                                                   const std::shared_ptr<URLSessionDelegate>& delegate,
                                                   std::shared_ptr<OperationQueue> queue, network::Executor executor) {
  auto impl = std::make_unique<Impl>();
  impl->core = std::make_shared<network::SessionCore>(configuration);
  impl->delegate = delegate;
  impl->queue = std::move(queue);
  impl->executor = std::move(executor);
  return std::shared_ptr<URLSession>(new URLSession(std::move(impl)));
}

std::shared_ptr<URLSessionTask> URLSession::Impl::makeTask(const std::shared_ptr<URLSession>& session, SessionTask::Plan plan) {
  const std::lock_guard lock(mutex);
  if (invalidated) throw Exception(NSInvalidArgumentException, "a task was made in a session that has been invalidated");
  const auto identifier = ++lastIdentifier;
  // The task holds the session, and so this.
  SessionTask::Place place{session,
                           core,
                           executor,
                           identifier,
                           [this, itself = session.get()](bool runs) { tally(*itself, runs); },
                           [this, identifier] { forget(identifier); }};
  auto task = std::make_shared<SessionTask>(std::move(plan), std::move(place));
  tasks.emplace(identifier, task);
  return task;
}

void URLSession::Impl::tally(URLSession& session, bool runs) {
  {
    const std::lock_guard lock(mutex);
    running += runs ? 1 : std::size_t(-1);
  }
  if (!runs) tellIfEnded(session);
}

void URLSession::Impl::forget(std::uint64_t identifier) {
  const std::lock_guard lock(mutex);
  tasks.erase(identifier);
}

void URLSession::Impl::invalidate(URLSession& session) {
  {
    const std::lock_guard lock(mutex);
    invalidated = true;
  }
  tellIfEnded(session);
}

void URLSession::Impl::tellIfEnded(URLSession& session) {
  {
    const std::lock_guard lock(mutex);
    if (!invalidated || running > 0 || std::exchange(ended, true)) return;
  }
  const auto listener = delegate.lock();
  if (!listener) return;
  std::make_shared<network::Delivery>(executor)->post(
      [itself = session.shared_from_this(), listener] { listener->URLSession_didBecomeInvalidWithError(itself, std::nullopt); });
}

std::shared_ptr<URLSession> URLSession::sessionWithConfiguration(const URLSessionConfiguration& configuration,
                                                                 const std::shared_ptr<URLSessionDelegate>& delegate,
                                                                 std::shared_ptr<OperationQueue> delegateQueue) {
  if (!delegateQueue) delegateQueue = OperationQueue::mainQueue();
  return Impl::make(configuration, delegate, delegateQueue,
                    [delegateQueue](std::function<void()> block) { delegateQueue->addOperationWithBlock(std::move(block)); });
}

URLSession::URLSession(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
URLSession::~URLSession() = default;

const URLSessionConfiguration& URLSession::configuration() const { return impl_->core->configuration(); }
std::shared_ptr<URLSessionDelegate> URLSession::delegate() const { return impl_->delegate.lock(); }
const std::shared_ptr<OperationQueue>& URLSession::delegateQueue() const { return impl_->queue; }

URLSession::Task URLSession::dataTaskWithRequest(const URLRequest& request, DataHandler completionHandler) {
  return impl_->makeTask(shared_from_this(), {.request = request, .dataHandler = std::move(completionHandler)});
}

URLSession::Task URLSession::dataTaskWithURL(const URL& url, DataHandler completionHandler) {
  return dataTaskWithRequest(URLRequest(url), std::move(completionHandler));
}

URLSession::Task URLSession::downloadTaskWithRequest(const URLRequest& request, DownloadHandler completionHandler) {
  return impl_->makeTask(shared_from_this(),
                         {.kind = SessionTask::Kind::Download, .request = request, .downloadHandler = std::move(completionHandler)});
}

URLSession::Task URLSession::downloadTaskWithURL(const std::optional<URL>& url, DownloadHandler completionHandler) {
  return downloadTaskWithRequest(URLRequest(url), std::move(completionHandler));
}

URLSession::Task URLSession::uploadTaskWithRequest_fromFile(const URLRequest& request, const URL& fileURL, DataHandler completionHandler) {
  return impl_->makeTask(shared_from_this(), {.request = request, .bodyFile = fileURL, .dataHandler = std::move(completionHandler)});
}

URLSession::Task URLSession::uploadTaskWithRequest_fromData(const URLRequest& request, Bytes body, DataHandler completionHandler) {
  return impl_->makeTask(shared_from_this(), {.request = request, .body = std::move(body), .dataHandler = std::move(completionHandler)});
}

URLSession::Task URLSession::uploadTaskWithStreamedRequest(const URLRequest& request) {
  return impl_->makeTask(shared_from_this(), {.request = request});
}

void URLSession::finishTasksAndInvalidate() { impl_->invalidate(*this); }

void URLSession::invalidateAndCancel() {
  std::vector<Task> tasks;
  {
    const std::lock_guard lock(impl_->mutex);
    impl_->invalidated = true;
    for (const auto& [identifier, weak] : impl_->tasks) {
      if (auto task = weak.lock()) tasks.push_back(std::move(task));
    }
  }
  for (const auto& task : tasks) task->cancel();
  impl_->invalidate(*this);
}

}  // namespace platform
