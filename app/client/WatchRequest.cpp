#include "app/client/WatchRequest.h"

#include <fmt/format.h>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "app/client/ServiceReport.h"
#include "app/client/WatchedFolder.h"
#include "contract/FileWatcherXpcServiceProtocol.h"
#include "contract/ServiceName.h"
#include "platform/xpc/connection/XPCConnection.h"
#include "platform/xpc/launch/ServiceLauncher.h"

namespace kestrine {

namespace {

using Clock = std::chrono::steady_clock;
using Outcome = WatchStart::Outcome;
using std::chrono::milliseconds;

// The call has no reply, so its effect is looked for in the status: often enough not to be felt, for the short time that starting takes.
constexpr milliseconds kLookAgain{20};

/// A connection over which the service is asked once, and what became of it.
class Asking {
 public:
  Asking() : connection_(platform::XPCConnection::connectionWithServiceName(kServiceName)) {
    connection_->setRemoteObjectInterface(fileWatcherXpcServiceInterface());
    connection_->setInterruptionHandler([end = end_] { end->tell(Outcome::NoService, "the service ended while it was asked to watch"); });
    connection_->setInvalidationHandler([end = end_, connection = std::weak_ptr(connection_)] {
      const auto alive = connection.lock();
      end->tell(Outcome::NoService, alive ? alive->lastErrorDescription() : std::string());
    });
    connection_->resume();
    connection_->callRemote(kCallToFileWatcherSelector);
  }
  ~Asking() { connection_->invalidate(); }
  Asking(const Asking&) = delete;
  Asking& operator=(const Asking&) = delete;

  /// Sleeps for `duration` or until the connection has ended; then its end.
  std::optional<WatchStart> waitForEnd(milliseconds duration) {
    std::unique_lock lock(end_->mutex);
    end_->told.wait_for(lock, duration, [this] { return end_->result.has_value(); });
    return end_->result;
  }

 private:
  struct End {
    std::mutex mutex;
    std::condition_variable told;
    std::optional<WatchStart> result;

    void tell(Outcome outcome, std::string text) {
      const std::lock_guard lock(mutex);
      if (!result) result = WatchStart{.outcome = outcome, .folder = {}, .text = std::move(text), .process = 0, .warnings = {}};
      told.notify_all();
    }
  };

  std::shared_ptr<End> end_ = std::make_shared<End>();
  std::shared_ptr<platform::XPCConnection> connection_;
};

/// One request, from the preferences to the answer.
class Request {
 public:
  explicit Request(milliseconds limit) : deadline_(Clock::now() + limit), limit_(limit) {}

  WatchStart run() {
    const auto base = basePath();
    if (!base) return finish(Outcome::UnusableBase, "no base folder is set; set one with 'kestrine start --base DIR'");
    const WatchedFolder folder = watchedFolder(*base);
    if (!folder.problem.empty()) return finish(Outcome::UnusableBase, folder.problem);
    result_.folder = folder.watched;
    if (!folder.warning.empty()) result_.warnings.push_back(folder.warning);
    return ask();
  }

 private:
  [[nodiscard]] milliseconds remaining() const {
    return std::max(milliseconds(1), std::chrono::duration_cast<milliseconds>(deadline_ - Clock::now()));
  }

  WatchStart finish(Outcome outcome, std::string text) {
    result_.outcome = outcome;
    result_.text = std::move(text);
    return result_;
  }

  WatchStart ask() {
    const std::optional<ServiceReport> report = askService(remaining());
    if (!report) return Clock::now() < deadline_ ? askAndWait() : timedOut();
    result_.process = report->process;
    noteOtherFolders(*report);
    const WatchReport* standing =
        find(*report, [this](const WatchReport& watch) { return isOurs(watch) && watch.is(WatchState::Standing); });
    if (standing != nullptr) {
      return finish(Outcome::AlreadyWatching, fmt::format("'{}' is watched already, by process {}", result_.folder, report->process));
    }
    const WatchReport* starting =
        find(*report, [this](const WatchReport& watch) { return isOurs(watch) && watch.is(WatchState::Starting); });
    if (starting != nullptr) {
      // Somebody else has just asked for the same: their answer is ours.
      highestNumber_ = starting->number - 1;
      return wait(nullptr);
    }
    for (const WatchReport& watch : report->watches) highestNumber_ = std::max(highestNumber_, watch.number);
    return askAndWait();
  }

  WatchStart askAndWait() {
    Asking asking;
    return wait(&asking);
  }

  WatchStart wait(Asking* asking) {
    for (;;) {
      if (const auto report = askService(remaining())) {
        // Another process counts its watches anew.
        if (std::exchange(result_.process, report->process) != report->process) highestNumber_ = 0;
        if (const auto answer = answerIn(*report)) return *answer;
        // A watch that failed for somebody else goes with their connection, before we may have seen why.
        const bool isGone = find(*report, [this](const WatchReport& watch) { return isNew(watch); }) == nullptr;
        if (asking == nullptr && isGone) return askAndWait();
      }
      if (asking != nullptr) {
        if (const auto end = asking->waitForEnd(kLookAgain)) return ended(*end);
      } else if (!platform::xpc::runningService(kServiceName).isAlive) {
        return finish(Outcome::NoService, "the service ended while the watch was being started");
      } else {
        std::this_thread::sleep_for(kLookAgain);
      }
      if (Clock::now() >= deadline_) return timedOut();
    }
  }

  std::optional<WatchStart> answerIn(const ServiceReport& report) {
    if (find(report, [this](const WatchReport& watch) { return isNew(watch) && watch.is(WatchState::Standing); }) != nullptr) {
      return finish(Outcome::Watching, fmt::format("watching '{}', by process {}", result_.folder, report.process));
    }
    const WatchReport* failed = find(report, [this](const WatchReport& watch) { return isNew(watch) && watch.is(WatchState::Failed); });
    if (failed == nullptr) return std::nullopt;
    return finish(Outcome::NotWatching, fmt::format("the watch of '{}' could not start: {}", result_.folder, failed->reason));
  }

  WatchStart ended(const WatchStart& end) { return finish(end.outcome, end.text.empty() ? "the service cannot be reached" : end.text); }

  WatchStart timedOut() {
    const auto service = platform::xpc::runningService(kServiceName);
    const std::string who =
        service.isAlive ? fmt::format("the service (process {})", service.processIdentifier) : std::string("no service");
    return finish(Outcome::TimedOut, fmt::format("{} has not said within {} ms that '{}' is watched; 'kestrine status' shows where it is",
                                                 who, limit_.count(), result_.folder));
  }

  void noteOtherFolders(const ServiceReport& report) {
    for (const WatchReport& watch : report.watches) {
      if (!watch.is(WatchState::Standing) || isOurs(watch)) continue;
      result_.warnings.push_back(fmt::format("the service goes on watching '{}' too; 'kestrine stop' ends all watches", watch.folder));
    }
  }

  [[nodiscard]] bool isNew(const WatchReport& watch) const { return watch.number > highestNumber_ && isOurs(watch); }
  [[nodiscard]] bool isOurs(const WatchReport& watch) const { return watch.folder == result_.folder; }

  template <class Predicate>
  static const WatchReport* find(const ServiceReport& report, Predicate predicate) {
    const auto found = std::ranges::find_if(report.watches, predicate);
    return found == report.watches.end() ? nullptr : &*found;
  }

  Clock::time_point deadline_;
  milliseconds limit_;
  std::int64_t highestNumber_ = 0;
  WatchStart result_;
};

}  // namespace

WatchStart requestWatch(milliseconds limit) { return Request(limit).run(); }

}  // namespace kestrine
