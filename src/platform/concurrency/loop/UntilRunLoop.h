#pragma once

#include <functional>
#include <utility>

#include "platform/concurrency/loop/RunLoop.h"

namespace platform {

/// Calls `body`, and `letGo` once: when `body` runs this thread's run loop, or else after it has returned. So what a body that watches
/// needs for its beginning alone is not held for as long as it watches. What `body` throws leaves this. Threads: any; one without blocks of
/// its own on its run loop, since those that nobody ran when `body` returns are dropped.
inline void holdUntilRunLoop(const std::function<void()>& body, std::function<void()> letGo) {
  class Once {
   public:
    explicit Once(std::function<void()> letGo) : letGo_(std::move(letGo)) {}
    ~Once() {
      RunLoop::current()->discardPerformed();
      now();
    }
    Once(const Once&) = delete;
    Once& operator=(const Once&) = delete;
    void now() {
      if (const auto letGo = std::exchange(letGo_, nullptr)) letGo();
    }

   private:
    std::function<void()> letGo_;
  };
  Once once(std::move(letGo));
  RunLoop::current()->perform([&once] { once.now(); });
  body();
}

}  // namespace platform
