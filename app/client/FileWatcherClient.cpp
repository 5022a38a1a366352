#include "app/client/FileWatcherClient.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "app/client/FlagMonitor.h"
#include "app/client/ServiceLifetime.h"
#include "app/client/StatusFlag.h"
#include "app/client/WatchRequest.h"
#include "app/client/WatchedFolder.h"
#include "platform/concurrency/RunLoop.h"

namespace kestrine {

namespace {

// After a death the service is asked at once; when it dies again soon, later and later.
constexpr double kFirstDelay = 0.25;
constexpr double kLongestDelay = 60;
constexpr auto kSettled = std::chrono::seconds(60);
constexpr auto kAskingLimit = std::chrono::seconds(10);

bool checkedTaken(const FlagReading& reading) {
  if (reading.resetFailed) throw std::runtime_error("the flag is raised and cannot be reset; see the log");
  return reading.raised;
}

}  // namespace

/// The keeper of the watch: a thread that sleeps until the service dies, and asks again then.
class FileWatcherClient::Impl {
 public:
  ~Impl() {
    if (!thread_.joinable()) return;
    loop_->perform([this] { end(); });
    thread_.join();
  }

  std::function<void(const ServiceEvent&)> handler;

  /// From now on the watch that `process` keeps is wanted. Any thread.
  void keep(pid_t process) {
    const std::lock_guard lock(mutex_);
    if (!thread_.joinable()) begin();
    loop_->perform([this, process] { waitForEndOf(process); });
  }

 private:
  void begin() {
    std::mutex mutex;
    std::condition_variable ready;
    bool isReady = false;
    thread_ = std::thread([&, this] {
      loop_ = platform::RunLoop::current();
      lifetime_ = std::make_unique<ServiceLifetime>(
          loop_, [](pid_t) {}, [this](pid_t process) { died(process); });
      // Keeps the loop running while there is no service to wait for.
      running_ = platform::RunLoopSource::create([] {});
      loop_->add(running_);
      {
        const std::lock_guard lock(mutex);
        isReady = true;
        ready.notify_one();
      }
      loop_->run();
    });
    std::unique_lock lock(mutex);
    ready.wait(lock, [&] { return isReady; });
  }

  void end() {
    if (retry_) retry_->invalidate();
    running_->invalidate();
    lifetime_.reset();
    loop_->stop();
  }

  void waitForEndOf(pid_t process) {
    lifetime_->look();
    // It may have ended before it was looked at, and another one may have come.
    if (lifetime_->process() != process) died(process);
  }

  void died(pid_t process) {
    tell(ServiceEvent::Kind::Died, "the service (process " + std::to_string(process) + ") has died; asking again");
    if (std::chrono::steady_clock::now() - lastRequest_ > kSettled) delay_ = 0;
    askLater();
  }

  void askLater() {
    if (retry_) retry_->invalidate();
    retry_ = platform::RunLoopTimer::create(delay_, 0, [this] { askAgain(); });
    loop_->add(retry_);
    delay_ = std::clamp(delay_ * 2, kFirstDelay, kLongestDelay);
  }

  void askAgain() {
    const WatchStart start = requestWatch(kAskingLimit);
    lastRequest_ = std::chrono::steady_clock::now();
    tell(start.stands() ? ServiceEvent::Kind::WatchingAgain : ServiceEvent::Kind::StillNotWatching, start.text);
    if (start.stands()) {
      waitForEndOf(start.process);
    } else if (start.outcome == WatchStart::Outcome::NoService || start.outcome == WatchStart::Outcome::TimedOut) {
      askLater();
    }
  }

  void tell(ServiceEvent::Kind kind, const std::string& text) const {
    if (handler) handler({kind, text});
  }

  std::mutex mutex_;
  std::thread thread_;
  // Set before `begin` returns; used on the thread.
  std::shared_ptr<platform::RunLoop> loop_;
  std::unique_ptr<ServiceLifetime> lifetime_;
  std::shared_ptr<platform::RunLoopSource> running_;
  std::shared_ptr<platform::RunLoopTimer> retry_;
  std::chrono::steady_clock::time_point lastRequest_{};
  double delay_ = 0;
};

FileWatcherClient::FileWatcherClient() : impl_(std::make_unique<Impl>()) {}

FileWatcherClient::~FileWatcherClient() = default;

bool FileWatcherClient::setBasePath(const std::string& path) { return kestrine::setBasePath(path); }

WatchStart FileWatcherClient::startWatching(std::chrono::milliseconds limit) {
  WatchStart start = requestWatch(limit);
  if (start.stands()) impl_->keep(start.process);
  return start;
}

bool FileWatcherClient::waitForFlag(std::chrono::milliseconds limit) {
  const auto loop = platform::RunLoop::current();
  FlagReading reading;
  FlagMonitor monitor(loop, [&](const FlagReading& raised) {
    reading = raised;
    loop->stop();
  });
  if (!monitor.start()) throw std::runtime_error("the preferences folder cannot be watched: " + monitor.error());
  loop->runFor(std::chrono::duration<double>(limit).count());
  return checkedTaken(reading);
}

bool FileWatcherClient::takeFlag() { return checkedTaken(kestrine::takeFlag()); }

void FileWatcherClient::setEventHandler(std::function<void(const ServiceEvent&)> handler) { impl_->handler = std::move(handler); }

}  // namespace kestrine
