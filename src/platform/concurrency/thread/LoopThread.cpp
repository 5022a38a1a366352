#include "platform/concurrency/thread/LoopThread.h"

#include <atomic>
#include <exception>
#include <future>
#include <utility>

#include "platform/concurrency/thread/ThreadName.h"
#include "platform/foundation/base/AllSignalsBlocked.h"
#include "platform/foundation/log/Contained.h"

namespace platform {

/// What the thread and its owner share, since each may be the one that ends later.
class LoopThread::Server : public std::enable_shared_from_this<Server> {
 public:
  Server(std::string name, std::string failure) : name_(std::move(name)), failure_(std::move(failure)) {}

  /// Tells through `started` that the loop is there, or why it cannot be, and serves it until `end`.
  void serve(std::promise<void> started) {
    nameThisThread(name_);
    // Keeps the loop running while nothing else is scheduled; costs nothing.
    std::shared_ptr<RunLoopSource> anchor;
    try {
      loop_ = RunLoop::current();
      anchor = RunLoopSource::create(nullptr);
      loop_->add(anchor);
    } catch (...) {
      return started.set_exception(std::current_exception());
    }
    started.set_value();
    while (!ended_) runContained(failure_, [this] { loop_->run(); });
    anchor->invalidate();
  }

  /// On the thread. Each run on the stack takes the block that stops it; the last one finds the thread's end.
  void end() {
    ended_ = true;
    loop_->stop();
    loop_->perform([self = shared_from_this()] { self->end(); });
  }

  [[nodiscard]] const std::shared_ptr<RunLoop>& loop() const { return loop_; }
  [[nodiscard]] const std::string& failure() const { return failure_; }

 private:
  const std::string name_;
  const std::string failure_;
  /// Set before `started` is told.
  std::shared_ptr<RunLoop> loop_;
  std::atomic<bool> ended_ = false;
};

LoopThread::LoopThread(std::string name, std::string failure) : server_(std::make_shared<Server>(std::move(name), std::move(failure))) {
  std::promise<void> started;
  auto ready = started.get_future();
  {
    const AllSignalsBlocked blocked;
    thread_ = std::thread([server = server_, started = std::move(started)]() mutable { server->serve(std::move(started)); });
  }
  try {
    ready.get();
  } catch (...) {
    thread_.join();
    throw;
  }
}

LoopThread::~LoopThread() {
  if (loop().isCurrent()) {
    loop().discardPerformed();
    server_->end();
    thread_.detach();
  } else {
    loop().perform([server = server_] { server->end(); });
    thread_.join();
  }
}

RunLoop& LoopThread::loop() const { return *server_->loop(); }

const std::shared_ptr<RunLoop>& LoopThread::sharedLoop() const { return server_->loop(); }

void LoopThread::perform(Block block) const {
  // Contained here already: a failure that left the loop would skip whatever else it has to do in this turn.
  loop().perform([server = server_, block = std::move(block)]() mutable { runContained(server->failure(), [&block] { block(); }); });
}

}  // namespace platform
