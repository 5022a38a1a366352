#pragma once

#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "platform/concurrency/loop/RunLoop.h"

namespace kestrine::test {

/// A thread that runs its loop until nothing is scheduled, once `start` has scheduled something.
class LoopThread {
 public:
  explicit LoopThread(const std::function<void(platform::RunLoop&)>& start) {
    std::promise<std::shared_ptr<platform::RunLoop>> ready;
    auto loop = ready.get_future();
    thread_ = std::thread([&ready, start] {
      const auto mine = platform::RunLoop::current();
      start(*mine);
      ready.set_value(mine);
      mine->run();
    });
    loop_ = loop.get();
  }
  ~LoopThread() { join(); }
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  platform::RunLoop& operator*() const { return *loop_; }
  platform::RunLoop* operator->() const { return loop_.get(); }

 private:
  std::thread thread_;
  std::shared_ptr<platform::RunLoop> loop_;
};

}  // namespace kestrine::test
