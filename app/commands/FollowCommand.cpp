#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

#include "app/cli/CommandError.h"
#include "app/cli/Output.h"
#include "app/cli/PrintError.h"
#include "app/cli/StopSignals.h"
#include "app/cli/TimeText.h"
#include "app/client/FlagMonitor.h"
#include "app/client/ServiceLifetime.h"
#include "app/commands/Commands.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/preferences/PreferencesFolder.h"

namespace kestrine {

namespace {

constexpr Option kFollowOptions[] = {
    {"--json", "", "one JSON object per line instead of text for people"},
};

constexpr ExitNote kFollowExits[] = {
    {ExitCode::Ok, "ended by SIGINT or SIGTERM, or its reader has gone"},
    {ExitCode::Failed, "the flag could not be watched or reset, or standard output not written"},
};

/// Prints what happens until a signal comes.
class Follower {
 public:
  explicit Follower(bool json) : json_(json), output_(STDOUT_FILENO, signals_.fileDescriptor()) {}

  ExitCode run() {
    // Before any flag is taken that nobody could be told of.
    if (output_.isClosed()) refuseOutput();
    signals_.schedule(*loop_, [this] {
      output_.hurry();
      loop_->stop();
    });
    if (!monitor_.start()) {
      throw CommandError(ExitCode::Failed,
                         fmt::format("the preferences in '{}' cannot be watched: {}", platform::preferencesFolder(), monitor_.error()));
    }
    lifetime_.look();
    if (lifetime_.process() == 0) tellService("not running", 0, "the service is not running; 'kestrine start' starts it");
    loop_->run();
    if (output_.isClosed() && !output_.readerHasGone()) refuseOutput();
    return result_;
  }

 private:
  [[noreturn]] void refuseOutput() {
    throw CommandError(ExitCode::Failed, fmt::format("standard output could not be written: {}", output_.reason()));
  }

  void tellRaised(const FlagReading& reading) {
    const platform::Date now = platform::Date::now();
    const bool told = print(json_ ? fmt::format("{{\"time\": \"{}\", \"flag\": \"1\"}}\n", universalTimeText(now))
                                  : fmt::format("{} changed\n", localTimeText(now)));
    if (!told && !putFlagBack()) {
      printError("kestrine: the flag was taken, and could neither be told nor be raised again; the log above says why\n");
      result_ = ExitCode::Failed;
    }
    if (!reading.resetFailed) return;
    printError("kestrine: the flag cannot be reset; the log above says why\n");
    result_ = ExitCode::Failed;
    loop_->stop();
  }

  /// On standard error for people, so that standard output has one line for each raised flag and nothing else.
  void tellService(std::string_view state, pid_t process, const std::string& text) {
    const platform::Date now = platform::Date::now();
    if (json_) {
      print(fmt::format("{{\"time\": \"{}\", \"service\": \"{}\", \"pid\": {}}}\n", universalTimeText(now), state, process));
    } else {
      printError(fmt::format("{} {}\n", localTimeText(now), text));
    }
  }

  bool print(const std::string& text) {
    if (output_.write(text)) return true;
    loop_->stop();
    return false;
  }

  bool json_;
  // First of all: threads made later inherit the blocked signals.
  StopSignals signals_;
  Output output_;
  std::shared_ptr<platform::RunLoop> loop_ = platform::RunLoop::current();
  ServiceLifetime lifetime_{
      loop_, [this](pid_t process) { tellService("running", process, fmt::format("the service runs as process {}", process)); },
      [this](pid_t process) {
        tellService("died", process, fmt::format("the service (process {}) has died; 'kestrine start' starts it again", process));
      }};
  FlagMonitor monitor_{loop_, [this](const FlagReading& reading) { tellRaised(reading); }, [this] { lifetime_.look(); }};
  ExitCode result_ = ExitCode::Ok;
};

ExitCode runFollow(const Arguments& arguments) { return Follower(arguments.has("--json")).run(); }

}  // namespace

constinit const Command kFollowCommand{
    .name = "follow",
    .operands = "",
    .summary = "Prints a line each time the flag is raised, and resets it.",
    .details =
        "Waits without asking again and again. Says on standard error (with --json: in a line of its own) when the service has died, and\n"
        "goes on. Ends on SIGINT or SIGTERM with the flag left as it is.\n"
        "Lines: \"2026-11-21 08:38:00.123 changed\" in local time, or {\"time\": \"2026-11-21T08:38:00.123Z\", \"flag\": \"1\"}.",
    .options = kFollowOptions,
    .fewestOperands = 0,
    .mostOperands = 0,
    .exits = kFollowExits,
    .run = runFollow,
};

}  // namespace kestrine
