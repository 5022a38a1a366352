#include "app/client/WatchKeeper.h"

#include <algorithm>
#include <utility>

#include "app/client/WatchRequest.h"
#include "platform/foundation/log/Contained.h"

namespace kestrine {

namespace {

using Clock = std::chrono::steady_clock;

// After a death the service is asked at once; when it dies again soon, later and later.
constexpr double kFirstDelay = 0.25;
constexpr double kLongestDelay = 60;
constexpr auto kSettled = std::chrono::seconds(60);
constexpr auto kAskingLimit = std::chrono::seconds(10);

/// Whether the next request may end otherwise though nobody does anything about it.
bool mayMendItself(WatchStart::Outcome outcome) {
  return outcome == WatchStart::Outcome::NoService || outcome == WatchStart::Outcome::TimedOut;
}

}  // namespace

WatchKeeper::~WatchKeeper() {
  if (!thread_) return;
  thread_->perform([this] {
    assertOnThread();
    enter(Idle{});
    lifetime_.reset();
  });
}

void WatchKeeper::setHandler(Handler handler) {
  auto wanted = std::make_shared<const Handler>(std::move(handler));
  // Swapped, so that what the former one holds is released without the lock.
  handler_.with([&](auto& held) { held.swap(wanted); });
}

void WatchKeeper::keep(pid_t process) {
  const platform::MutexLock lock(mutex_);
  if (!thread_) begin();
  thread_->perform([this, process] {
    assertOnThread();
    if (!std::holds_alternative<Asking>(state_)) enter(Keeping{});
    waitForEndOf(process);
  });
}

void WatchKeeper::begin() {
  thread_ = std::make_unique<platform::LoopThread>("kestrine client", "an exception left the keeper of a watch");
  thread_->perform([this, loop = thread_->sharedLoop()] {
    assertOnThread();
    lifetime_ = std::make_unique<ServiceLifetime>(
        loop, [](pid_t) {},
        [this](pid_t process) {
          assertOnThread();
          died(process);
        });
  });
}

void WatchKeeper::enter(State state) {
  if (const auto* asking = std::get_if<Asking>(&state_)) asking->next->invalidate();
  state_ = std::move(state);
}

void WatchKeeper::waitForEndOf(pid_t process) {
  lifetime_->look();
  // It may have ended before it was looked at, and another one may have come.
  if (lifetime_->process() != process) died(process);
}

void WatchKeeper::died(pid_t process) {
  tell(Event::Kind::Died, "the service (process " + std::to_string(process) + ") has died; asking again");
  if (Clock::now() - lastRequest_ > kSettled) delay_ = 0;
  askLater();
}

void WatchKeeper::askLater() {
  const auto timer = platform::RunLoopTimer::create(delay_, 0, [this] {
    assertOnThread();
    askAgain();
  });
  enter(Asking{timer});
  platform::RunLoop::current()->add(timer);
  delay_ = std::clamp(delay_ * 2, kFirstDelay, kLongestDelay);
}

void WatchKeeper::askAgain() {
  WatchStart start;
  start.text = "the service could not be asked; see the log";
  platform::runContained("an exception left a request to watch", [&] { start = requestWatch(kAskingLimit); });
  lastRequest_ = Clock::now();
  tell(start.stands() ? Event::Kind::WatchingAgain : Event::Kind::StillNotWatching, start.text);
  if (start.stands()) {
    enter(Keeping{});
    waitForEndOf(start.process);
  } else if (mayMendItself(start.outcome)) {
    askLater();
  } else {
    enter(GivenUp{});
  }
}

void WatchKeeper::tell(Event::Kind kind, const std::string& text) {
  const auto handler = handler_.with([](const auto& held) { return held; });
  if (!handler || !*handler) return;
  platform::runContained("an exception left the event handler of a FileWatcherClient", [&] { (*handler)({kind, text}); });
}

}  // namespace kestrine
