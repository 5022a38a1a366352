#include "platform/fsevents/engine/HangWatch.h"

#include <poll.h>
#include <pthread.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/foundation/base/AllSignalsBlocked.h"
#include "platform/foundation/log/Log.h"

namespace platform::fsevents {

HangWatch::Watched::Watched(std::shared_ptr<TreePulse> pulse, std::function<void(const std::string& path)> hangs,
                            std::function<void(const std::string& path)> answers)
    : pulse_(std::move(pulse)),
      timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      hangs_(std::move(hangs)),
      answers_(std::move(answers)) {}

std::chrono::milliseconds HangWatch::chosenPatience() {
  const char* value = std::getenv("KESTRINE_FSEVENTS_PATIENCE");  // NOLINT(concurrency-mt-unsafe): set before the process has threads
  const std::string_view text = value == nullptr ? "" : value;
  double seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  const bool isInRange = error == std::errc{} && end == text.data() + text.size() && seconds >= 0.1 && seconds <= 3600;
  return isInRange ? std::chrono::milliseconds(std::lround(seconds * 1000)) : kPatience;
}

HangWatch::HangWatch(Clock::duration patience) : patience_(patience) {}

void HangWatch::add(const std::shared_ptr<Watched>& watched) {
  const MutexLock lock(mutex_);
  watched_.push_back(watched);
  wake_.ring();
  // Without a descriptor to wake it by, or a thread, nothing is noticed; the engines do their work all the same.
  if (thread_.joinable() || stop_ || !wake_.isOpen()) return;
  const AllSignalsBlocked blocked;
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error& error) {
    NSLog(std::string("FSEventStream: no thread to notice a file system that hangs: ") + error.what());
  }
}

void HangWatch::remove(const std::shared_ptr<Watched>& watched) {
  const MutexLock lock(mutex_);
  if (std::erase(watched_, watched) > 0) wake_.ring();
}

void HangWatch::stop() {
  std::thread ended;
  {
    const MutexLock lock(mutex_);
    stop_ = true;
    ended.swap(thread_);
    wake_.ring();
  }
  if (ended.joinable()) ended.join();
}

void HangWatch::setTimer(const Watched& watched, Clock::duration time) const {
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
  itimerspec timer{};
  timer.it_value = {static_cast<time_t>(nanoseconds / 1'000'000'000), static_cast<long>(nanoseconds % 1'000'000'000)};
  ::timerfd_settime(watched.timer_.fileDescriptor(), 0, &timer, nullptr);
}

void HangWatch::enter(Watched& watched, const std::string& path) {
  const MutexLock lock(mutex_);
  if (watched.depth_++ > 0) return;
  watched.path_ = path;
  watched.steps_ = watched.pulse_->steps;
  watched.since_ = Clock::now();
  setTimer(watched, patience_);
}

void HangWatch::leave(Watched& watched) {
  std::string path;
  {
    const MutexLock lock(mutex_);
    if (--watched.depth_ > 0) return;
    setTimer(watched, Clock::duration::zero());
    if (!std::exchange(watched.isHanging_, false)) return;
    path = watched.path_;
  }
  watched.answers_(path);
}

void HangWatch::look(Watched& watched) {
  if (watched.depth_ == 0 || watched.isHanging_) return;
  const auto now = Clock::now();
  const std::uint64_t steps = watched.pulse_->steps;
  // Twice the time: this thread was held up too, since the process was halted or the machine had no time for it.
  if (steps != watched.steps_ || now - watched.since_ >= 2 * patience_) {
    watched.steps_ = steps;
    watched.since_ = now;
  }
  if (const auto left = watched.since_ + patience_ - now; left > Clock::duration::zero()) {
    setTimer(watched, left);
  } else {
    watched.isHanging_ = true;
    watched.hangs_(watched.path_);
  }
}

void HangWatch::run() {
  ::pthread_setname_np(::pthread_self(), "fsevents-hang");
  MutexLock lock(mutex_);
  while (!stop_) {
    // Held, so that no timer is closed while it is waited for.
    const std::vector<std::shared_ptr<Watched>> watched = watched_;
    std::vector<pollfd> timers{{wake_.descriptor(), POLLIN, 0}};
    for (const auto& each : watched) timers.push_back({each->timer_.fileDescriptor(), POLLIN, 0});
    lock.unlock();
    ::poll(timers.data(), timers.size(), -1);
    wake_.clear();
    lock.lock();
    if (stop_) break;
    std::uint64_t count = 0;
    for (const auto& each : watched) {
      if (::read(each->timer_.fileDescriptor(), &count, sizeof count) > 0) look(*each);
    }
  }
}

}  // namespace platform::fsevents
