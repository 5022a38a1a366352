#pragma once

#include <functional>
#include <memory>

#include "platform/concurrency/loop/RunLoopItem.h"

namespace platform {

/// Runs its callback on the loop after it was signalled; any number of signals before the callback begins give one call. A signal given
/// before the source was added is kept.
class RunLoopSource : public RunLoopItem {
 public:
  static std::shared_ptr<RunLoopSource> create(std::function<void()> perform);
  virtual void signal() = 0;
};

}  // namespace platform
