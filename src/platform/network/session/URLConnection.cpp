#include "platform/network/session/URLConnection.h"

#include <utility>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/Mutex.h"
#include "platform/network/session/SessionImpl.h"

namespace platform {

namespace {

/// Only the request's own time-out holds.
URLSessionConfiguration connectionConfiguration() {
  auto configuration = URLSessionConfiguration::defaultSessionConfiguration();
  configuration.timeoutIntervalForRequest = 0;
  configuration.timeoutIntervalForResource = 0;
  return configuration;
}

/// Runs blocks on a run loop and keeps it running meanwhile, as the connection itself is scheduled there.
class LoopExecutor {
 public:
  explicit LoopExecutor(std::shared_ptr<RunLoop> loop) : loop_(std::move(loop)), anchor_(RunLoopSource::create([] {})) {
    loop_->add(anchor_);
  }
  ~LoopExecutor() { anchor_->invalidate(); }
  LoopExecutor(const LoopExecutor&) = delete;
  LoopExecutor& operator=(const LoopExecutor&) = delete;
  void run(std::function<void()> block) { loop_->perform(std::move(block)); }

 private:
  const std::shared_ptr<RunLoop> loop_;
  const std::shared_ptr<RunLoopSource> anchor_;
};

network::Executor executorOf(const std::shared_ptr<OperationQueue>& queue) {
  if (queue) return [queue](std::function<void()> block) { queue->addOperationWithBlock(std::move(block)); };
  return [loop = std::make_shared<LoopExecutor>(RunLoop::current())](std::function<void()> block) { loop->run(std::move(block)); };
}

}  // namespace

URLConnectionDelegate::~URLConnectionDelegate() = default;
void URLConnectionDelegate::connection_didReceiveResponse(const Connection& /*connection*/,
                                                          const std::shared_ptr<const URLResponse>& /*response*/) {}
void URLConnectionDelegate::connection_didReceiveData(const Connection& /*connection*/, const Bytes& /*data*/) {}
void URLConnectionDelegate::connectionDidFinishLoading(const Connection& /*connection*/) {}
void URLConnectionDelegate::connection_didFailWithError(const Connection& /*connection*/, const Error& /*error*/) {}
void URLConnectionDelegate::connection_willSendRequestForAuthenticationChallenge(const Connection& /*connection*/,
                                                                                 const URLAuthenticationChallenge& /*challenge*/,
                                                                                 const URLChallengeHandler& completionHandler) {
  completionHandler(URLSessionAuthChallengeDisposition::PerformDefaultHandling, std::nullopt);
}

struct URLConnection::Impl {
  const URLRequest request;
  const bool startImmediately;

  Mutex mutex;
  std::shared_ptr<URLConnectionDelegate> delegate GUARDED_BY(mutex);
  std::shared_ptr<OperationQueue> queue GUARDED_BY(mutex) = {};
  std::shared_ptr<URLSessionTask> task GUARDED_BY(mutex) = {};
  bool began GUARDED_BY(mutex) = false;
  bool over GUARDED_BY(mutex) = false;

  /// The delegate, while it wants to hear something.
  std::shared_ptr<URLConnectionDelegate> listener() EXCLUDES(mutex) {
    const MutexLock lock(mutex);
    return over ? nullptr : delegate;
  }
  /// Nothing more is told; gives the delegate up.
  std::shared_ptr<URLConnectionDelegate> end() EXCLUDES(mutex) {
    const MutexLock lock(mutex);
    over = true;
    task = nullptr;
    return std::exchange(delegate, nullptr);
  }
};

namespace {

/// A session's words in a connection's.
class Translator final : public URLSessionDelegate {
 public:
  using Listener = std::function<std::shared_ptr<URLConnectionDelegate>()>;
  Translator(std::shared_ptr<URLConnection> connection, Listener listener, Listener end)
      : connection_(std::move(connection)), listener_(std::move(listener)), end_(std::move(end)) {}

  void URLSession_didReceiveChallenge_completionHandler(const Session& /*session*/, const URLAuthenticationChallenge& challenge,
                                                        const URLChallengeHandler& completionHandler) override {
    ask(challenge, completionHandler);
  }
  void URLSession_task_didReceiveChallenge_completionHandler(const Session& /*session*/, const Task& /*task*/,
                                                             const URLAuthenticationChallenge& challenge,
                                                             const URLChallengeHandler& completionHandler) override {
    ask(challenge, completionHandler);
  }
  void URLSession_dataTask_didReceiveResponse(const Session& /*session*/, const Task& /*task*/,
                                              const std::shared_ptr<const URLResponse>& response) override {
    if (const auto listener = listener_()) listener->connection_didReceiveResponse(connection_, response);
  }
  void URLSession_dataTask_didReceiveData(const Session& /*session*/, const Task& /*task*/, const Bytes& data) override {
    if (const auto listener = listener_()) listener->connection_didReceiveData(connection_, data);
  }
  void URLSession_task_didCompleteWithError(const Session& /*session*/, const Task& /*task*/, const std::optional<Error>& error) override {
    const auto listener = end_();
    if (!listener) return;
    if (error) {
      listener->connection_didFailWithError(connection_, *error);
    } else {
      listener->connectionDidFinishLoading(connection_);
    }
  }

 private:
  void ask(const URLAuthenticationChallenge& challenge, const URLChallengeHandler& completionHandler) {
    if (const auto listener = listener_()) {
      listener->connection_willSendRequestForAuthenticationChallenge(connection_, challenge, completionHandler);
    }
  }

  const std::shared_ptr<URLConnection> connection_;
  const Listener listener_;
  const Listener end_;
};

}  // namespace

void URLConnection::sendAsynchronousRequest(const URLRequest& request, const std::shared_ptr<OperationQueue>& queue,
                                            CompletionHandler handler) {
  const auto session = URLSession::sessionWithConfiguration(connectionConfiguration(), nullptr, queue);
  session
      ->dataTaskWithRequest(
          request,
          [handler = std::move(handler)](const std::optional<Bytes>& data, const std::shared_ptr<const URLResponse>& response,
                                         const std::optional<Error>& error) {
            if (handler) handler(response, data, error);
          })
      ->resume();
}

URLConnection::URLConnection(const URLRequest& request, const std::shared_ptr<URLConnectionDelegate>& delegate, bool startImmediately)
    : impl_(new Impl{.request = request, .startImmediately = startImmediately, .mutex = {}, .delegate = delegate}) {}

URLConnection::~URLConnection() = default;

void URLConnection::beginAsAsked() {
  if (impl_->startImmediately) start();
}

void URLConnection::start() {
  std::shared_ptr<URLSessionTask> task;
  std::shared_ptr<Translator> translator;
  {
    const MutexLock lock(impl_->mutex);
    if (impl_->over || std::exchange(impl_->began, true)) return;
    translator = std::make_shared<Translator>(
        shared_from_this(), [impl = impl_] { return impl->listener(); }, [impl = impl_] { return impl->end(); });
    task = URLSession::Impl::make(connectionConfiguration(), translator, impl_->queue, executorOf(impl_->queue))
               ->dataTaskWithRequest(impl_->request);
    impl_->task = task;
  }
  task->resume();
}

void URLConnection::cancel() {
  std::shared_ptr<URLSessionTask> task;
  {
    const MutexLock lock(impl_->mutex);
    task = impl_->task;
  }
  const auto delegate = impl_->end();
  if (task) task->cancel();
}

void URLConnection::setDelegateQueue(std::shared_ptr<OperationQueue> queue) {
  const MutexLock lock(impl_->mutex);
  impl_->queue = std::move(queue);
}

const URLRequest& URLConnection::originalRequest() const { return impl_->request; }

}  // namespace platform
