#include "app/call/CallWait.h"

#include <memory>
#include <utility>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/Mutex.h"

namespace kestrine {

namespace {

/// What the answer, which comes on any thread, and the waiting main thread share.
struct Shared {
  platform::Guarded<std::optional<CallAnswer>> answer;
  std::shared_ptr<platform::RunLoopSource> ended = platform::RunLoopSource::create([] { platform::RunLoop::current()->stop(); });
};

/// Held by the handler alone: goes when nobody is left who could call it.
class HandlerLife {
 public:
  explicit HandlerLife(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}
  ~HandlerLife() { shared_->ended->signal(); }
  HandlerLife(const HandlerLife&) = delete;
  HandlerLife& operator=(const HandlerLife&) = delete;

  void take(const CallAnswer& answer) const {
    shared_->answer.with([&](auto& held) { held = answer; });
    shared_->ended->signal();
  }

 private:
  std::shared_ptr<Shared> shared_;
};

}  // namespace

std::optional<CallAnswer> callAndWait(const CallOperation& operation, const std::vector<PropertyValues>& records) {
  const auto shared = std::make_shared<Shared>();
  const auto loop = platform::RunLoop::main();
  loop->add(shared->ended);
  operation.start(records, [life = std::make_shared<HandlerLife>(shared)](const CallAnswer& answer) { life->take(answer); });
  loop->run();
  shared->ended->invalidate();
  return shared->answer.with([](auto& held) { return std::move(held); });
}

}  // namespace kestrine
