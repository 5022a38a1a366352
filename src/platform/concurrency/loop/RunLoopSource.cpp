#include "platform/concurrency/loop/RunLoopSource.h"

#include <utility>

#include "platform/concurrency/loop/RunLoopItemCore.h"

namespace platform {

namespace {

class SourceItem final : public RunLoopItemOf<RunLoopSource> {
 public:
  explicit SourceItem(std::function<void()> perform) : RunLoopItemOf(withoutReady(std::move(perform))) {}

  void signal() override EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (!valid_ || std::exchange(signalled_, true)) return;
    if (const auto loop = loop_.lock()) loop->queueSignal(serial());
  }

 private:
  void entered(RunLoopItemHost& loop) override REQUIRES(mutex_) {
    if (signalled_) loop.queueSignal(serial());
  }
  unsigned admit(unsigned /*ready*/) override REQUIRES(mutex_) { return std::exchange(signalled_, false) ? 1 : 0; }

  bool signalled_ GUARDED_BY(mutex_) = false;
};

}  // namespace

std::shared_ptr<RunLoopSource> RunLoopSource::create(std::function<void()> perform) {
  return std::make_shared<SourceItem>(std::move(perform));
}

}  // namespace platform
