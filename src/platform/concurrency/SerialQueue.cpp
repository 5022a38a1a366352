#include "platform/concurrency/SerialQueue.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <utility>

#include "platform/concurrency/EventLoop.h"
#include "platform/concurrency/ThreadPool.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/log/Log.h"

namespace platform {

namespace {

/// The queue whose block the calling thread is running.
thread_local const SerialQueue* runningQueue = nullptr;

/// Runs one block; an exception that leaves it is said and ends here.
void runLogged(const std::function<void()>& block, const std::string& label) {
  const auto say = [&label](const std::string& what) {
    NSLog("an exception left a block" + (label.empty() ? std::string() : " of the queue \"" + label + "\"") + ": " + what);
  };
  try {
    if (block) block();
  } catch (const Exception& exception) {
    say(exception.name() + ": " + exception.reason());
  } catch (const std::exception& exception) {
    say(exception.what());
  } catch (...) {
    say("of an unknown type");
  }
}

/// For debuggers; pthread_setname_np(3) takes 15 bytes. A thread mostly serves the same queue again.
void nameThread(const std::string& name) {
  static thread_local std::string former;
  if (former == name) return;
  former = name;
  pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

void runOnQueue(const SerialQueue& queue, const std::function<void()>& block) {
  const auto* outer = std::exchange(runningQueue, &queue);
  runLogged(block, queue.label());
  runningQueue = outer;
}

/// Waits until its block has run.
void runAndWait(SerialQueue& queue, const std::function<void()>& block) {
  std::mutex mutex;
  std::condition_variable ended;
  bool done = false;
  queue.async([&] {
    runLogged(block, queue.label());
    // Notified under the lock: after it the waiter takes all this off its stack.
    const std::lock_guard lock(mutex);
    done = true;
    ended.notify_one();
  });
  std::unique_lock lock(mutex);
  ended.wait(lock, [&done] { return done; });
}

class PoolQueue final : public SerialQueue, public std::enable_shared_from_this<PoolQueue> {
 public:
  explicit PoolQueue(std::string label) : label_(std::move(label)) {}

  void async(std::function<void()> block) override {
    {
      const std::lock_guard lock(mutex_);
      blocks_.push_back(std::move(block));
      if (!begins()) return;
    }
    borrowThread();
  }

  void sync(const std::function<void()>& block) override { runAndWait(*this, block); }

  void suspend() override {
    const std::lock_guard lock(mutex_);
    ++suspensions_;
  }

  void resume() override {
    {
      const std::lock_guard lock(mutex_);
      if (suspensions_ == 0) throw Exception(NSInternalInconsistencyException, "a queue that is not suspended was resumed");
      --suspensions_;
      if (!begins()) return;
    }
    borrowThread();
  }

  [[nodiscard]] const std::string& label() const override { return label_; }
  [[nodiscard]] bool isCurrent() const override { return runningQueue == this; }

 private:
  // Whether a thread must be borrowed now; notes that it will be.
  bool begins() {
    if (borrowed_ || suspensions_ > 0 || blocks_.empty()) return false;
    borrowed_ = true;
    return true;
  }

  void borrowThread() {
    ThreadPool::shared().run([self = shared_from_this()] { self->drain(); });
  }

  void drain() {
    nameThread(label_.empty() ? "queue" : label_);
    std::function<void()> block;
    while (next(block)) {
      runOnQueue(*this, block);
      block = nullptr;
    }
  }

  bool next(std::function<void()>& block) {
    const std::lock_guard lock(mutex_);
    if (suspensions_ > 0 || blocks_.empty()) {
      borrowed_ = false;
      return false;
    }
    block = std::move(blocks_.front());
    blocks_.pop_front();
    return true;
  }

  const std::string label_;
  std::mutex mutex_;
  std::deque<std::function<void()>> blocks_;
  int suspensions_ = 0;
  bool borrowed_ = false;
};

class MainQueue final : public SerialQueue {
 public:
  void async(std::function<void()> block) override {
    mainEventLoop()->performKept([this, block = std::move(block)] { runOnQueue(*this, block); });
  }
  void sync(const std::function<void()>& block) override { runAndWait(*this, block); }
  void suspend() override {}
  void resume() override {}
  [[nodiscard]] const std::string& label() const override { return label_; }
  [[nodiscard]] bool isCurrent() const override { return runningQueue == this; }

 private:
  const std::string label_ = "main";
};

}  // namespace

SerialQueue::~SerialQueue() = default;

std::shared_ptr<SerialQueue> SerialQueue::create(std::string label) { return std::make_shared<PoolQueue>(std::move(label)); }

std::shared_ptr<SerialQueue> mainQueue() {
  static const auto& queue = *new std::shared_ptr<SerialQueue>(std::make_shared<MainQueue>());
  return queue;
}

void runOnPoolThread(std::function<void()> block) {
  ThreadPool::shared().run([block = std::move(block)] {
    nameThread("pool");
    runLogged(block, {});
  });
}

}  // namespace platform
