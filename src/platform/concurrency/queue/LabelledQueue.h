#pragma once

#include <functional>
#include <string>

#include "platform/concurrency/queue/SerialQueue.h"

namespace platform {

/// What the serial queues of the pool and of the main thread share: the label, which queue the calling thread is running, and that
/// nothing which leaves a block goes further than the log. Threads: any thread may call anything.
class LabelledQueue : public SerialQueue {
 public:
  explicit LabelledQueue(std::string label);
  void sync(const std::function<void()>& block) final;
  [[nodiscard]] const std::string& label() const final { return label_; }
  [[nodiscard]] bool isCurrent() const final;

 protected:
  /// Runs a block as one of this queue's.
  void run(Block& block) const;

 private:
  void runContained(const std::function<void()>& block) const;

  const std::string label_;
  /// For the log.
  const std::string failure_;
};

}  // namespace platform
