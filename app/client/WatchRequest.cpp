#include "app/client/WatchRequest.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <variant>

#include "app/client/ServiceReport.h"
#include "app/client/WatchCall.h"
#include "app/client/WatchedFolder.h"
#include "contract/ServiceName.h"
#include "platform/foundation/preferences/PreferencesDomain.h"
#include "platform/xpc/launch/ServiceLauncher.h"

namespace kestrine {

namespace {

using Clock = std::chrono::steady_clock;
using Outcome = WatchStart::Outcome;
using std::chrono::milliseconds;

// The call has no reply, so its effect is looked for in the status: often enough not to be felt, for the short time that starting takes.
constexpr milliseconds kLookAgain{20};
// Somebody who writes the preferences has their lock for a moment.
constexpr milliseconds kLockLimit{500};

/// One request, from the preferences to the answer.
class Request {
  // See the table of the header.
  struct Joined {};
  using Asked = WatchCall;
  using State = std::variant<Joined, Asked>;

 public:
  explicit Request(milliseconds limit) : deadline_(Clock::now() + limit), limit_(limit) {}

  WatchStart run() {
    const auto base = baseText();
    if (!base) return finish(Outcome::UnusableBase, "no base folder is set; set one with 'kestrine start --base DIR'");
    const WatchedFolder folder = watchedFolder(*base);
    if (!folder.problem.empty()) return finish(Outcome::UnusableBase, folder.problem);
    if (const std::string why = whyNeverABaseFolder(folder.base); !why.empty()) {
      return finish(Outcome::UnusableBase, fmt::format("the base folder '{}' cannot be watched: {}", folder.base, why));
    }
    result_.folder = folder.watched;
    if (const auto why = platform::whyPreferencesDomainCannotBeWritten(kServiceName, std::min(remaining(), kLockLimit))) {
      result_.warnings.push_back(fmt::format(
          "the flag cannot be raised now: {}; the service goes on trying, and 'kestrine status' tells when it has to", why->reason));
    }
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
    noteOwedFlag(*report);
    noteOtherFolders(*report);
    if (ours(*report, WatchState::Standing) != nullptr) {
      return finish(Outcome::AlreadyWatching, fmt::format("'{}' is watched already, by process {}", result_.folder, report->process));
    }
    if (const WatchReport* starting = ours(*report, WatchState::Starting)) {
      // Somebody else has just asked for the same: their answer is ours.
      highestNumber_ = starting->number - 1;
      return wait();
    }
    for (const WatchReport& watch : report->watches) highestNumber_ = std::max(highestNumber_, watch.number);
    return askAndWait();
  }

  WatchStart askAndWait() {
    state_.emplace<Asked>();
    return wait();
  }

  WatchStart wait() {
    for (;;) {
      if (const auto report = askService(remaining())) {
        // Another process counts its watches anew.
        if (std::exchange(result_.process, report->process) != report->process) highestNumber_ = 0;
        if (const auto answer = answerIn(*report)) return *answer;
        // A watch that failed for somebody else goes with their connection, before we may have seen why.
        const bool isGone = find(*report, [this](const WatchReport& watch) { return isNew(watch); }) == nullptr;
        if (isGone && std::holds_alternative<Joined>(state_)) {
          state_.emplace<Asked>();
          continue;
        }
      }
      if (const auto end = std::visit([this](const auto& state) { return pause(state); }, state_)) return *end;
      if (Clock::now() >= deadline_) return timedOut();
    }
  }

  /// Lets a moment pass before the next look, or says that there is nothing to wait for any more.
  std::optional<WatchStart> pause(const Joined& /*state*/) {
    if (!platform::xpc::runningService(kServiceName).isAlive) {
      return finish(Outcome::NoService, "the service ended while the watch was being started");
    }
    std::this_thread::sleep_for(kLookAgain);
    return std::nullopt;
  }
  std::optional<WatchStart> pause(const Asked& call) {
    const std::optional<std::string> reason = call.waitForEnd(kLookAgain);
    if (!reason) return std::nullopt;
    return finish(Outcome::NoService, reason->empty() ? "the service cannot be reached" : *reason);
  }

  std::optional<WatchStart> answerIn(const ServiceReport& report) {
    if (ourNew(report, WatchState::Standing) != nullptr) {
      return finish(Outcome::Watching, fmt::format("watching '{}', by process {}", result_.folder, report.process));
    }
    const WatchReport* failed = ourNew(report, WatchState::Failed);
    if (failed == nullptr) return std::nullopt;
    return finish(Outcome::NotWatching, fmt::format("the watch of '{}' could not start: {}", result_.folder, failed->reason));
  }

  WatchStart timedOut() {
    const auto service = platform::xpc::runningService(kServiceName);
    if (!service.isAlive) {
      return finish(Outcome::TimedOut,
                    fmt::format("no service came up within {} ms that could watch '{}'", limit_.count(), result_.folder));
    }
    const std::string who = service.processIdentifier != 0 ? fmt::format(" (process {})", service.processIdentifier) : std::string();
    return finish(Outcome::TimedOut, fmt::format("the service{} has not said within {} ms that '{}' is watched; 'kestrine status' shows "
                                                 "where it is",
                                                 who, limit_.count(), result_.folder));
  }

  void noteOwedFlag(const ServiceReport& report) {
    if (!report.owedFlag) return;
    result_.warnings.push_back(fmt::format("the service has a flag to raise and cannot: {}; it goes on trying", report.owedFlag->reason));
  }

  void noteOtherFolders(const ServiceReport& report) {
    for (const WatchReport& watch : report.watches) {
      if (!watch.is(WatchState::Standing) || isOurs(watch)) continue;
      result_.warnings.push_back(fmt::format("the service goes on watching '{}' too; 'kestrine stop' ends all watches", watch.folder));
    }
  }

  [[nodiscard]] bool isNew(const WatchReport& watch) const { return watch.number > highestNumber_ && isOurs(watch); }
  [[nodiscard]] bool isOurs(const WatchReport& watch) const { return watch.folder == result_.folder; }

  [[nodiscard]] const WatchReport* ours(const ServiceReport& report, WatchState state) const {
    return find(report, [&](const WatchReport& watch) { return isOurs(watch) && watch.is(state); });
  }
  [[nodiscard]] const WatchReport* ourNew(const ServiceReport& report, WatchState state) const {
    return find(report, [&](const WatchReport& watch) { return isNew(watch) && watch.is(state); });
  }

  template <class Predicate>
  static const WatchReport* find(const ServiceReport& report, Predicate predicate) {
    const auto found = std::ranges::find_if(report.watches, predicate);
    return found == report.watches.end() ? nullptr : &*found;
  }

  Clock::time_point deadline_;
  milliseconds limit_;
  State state_;
  /// Of the watches that were there before; a later one of our folder is the one that is waited for.
  std::int64_t highestNumber_ = 0;
  WatchStart result_;
};

}  // namespace

WatchStart requestWatch(milliseconds limit) { return Request(limit).run(); }

}  // namespace kestrine
