#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "app/cli/CommandError.h"
#include "app/cli/Numbers.h"
#include "app/cli/PrintError.h"
#include "app/client/WatchRequest.h"
#include "app/client/WatchedFolder.h"
#include "app/commands/Commands.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/preferences/PreferencesFolder.h"

namespace kestrine {

namespace {

constexpr Option kStartOptions[] = {
    {"--base", "DIR", "the base folder, whatever its name, stored in the preferences; DIR/Kestrine is made if it is missing, and watched"},
    {"--timeout", "S", "seconds to wait until the watch stands; 60 if not given"},
};

constexpr ExitNote kStartExits[] = {
    {ExitCode::Ok, "the watch stands, whether it is new or stood already"},
    {ExitCode::Failed, "the preferences or the folder could not be written"},
    {ExitCode::NotWatching, "the watch could not start; the message says why"},
    {ExitCode::UnusableBase, "no base folder is set, it does not exist, or the service cannot watch it"},
    {ExitCode::TimedOut, "the service did not say in time that the watch stands"},
    {ExitCode::NoService, "the service is not installed, does not start, or died"},
};

/// What each outcome is for a script.
struct OutcomeCode {
  WatchStart::Outcome outcome;
  ExitCode code;
};
constexpr OutcomeCode kOutcomeCodes[] = {
    {WatchStart::Outcome::Watching, ExitCode::Ok},
    {WatchStart::Outcome::AlreadyWatching, ExitCode::Ok},
    {WatchStart::Outcome::UnusableBase, ExitCode::UnusableBase},
    {WatchStart::Outcome::NotWatching, ExitCode::NotWatching},
    {WatchStart::Outcome::NoService, ExitCode::NoService},
    {WatchStart::Outcome::TimedOut, ExitCode::TimedOut},
};

ExitCode codeOf(WatchStart::Outcome outcome) {
  for (const OutcomeCode& row : kOutcomeCodes) {
    if (row.outcome == outcome) return row.code;
  }
  return ExitCode::Failed;
}

std::chrono::milliseconds startLimit(const Arguments& arguments) {
  const auto text = arguments.value("--timeout");
  if (!text) return std::chrono::seconds(60);
  const auto seconds = parseSeconds(*text);
  if (!seconds || *seconds == 0) {
    throw CommandError(ExitCode::Usage, fmt::format("start: '--timeout {}' is no number of seconds above 0, up to 86400", *text));
  }
  return std::chrono::milliseconds(static_cast<std::int64_t>(*seconds * 1000));
}

bool isFolder(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::is_directory(path, ignored);
}

void storeBase(const std::string& given) {
  if (given.empty()) throw CommandError(ExitCode::UnusableBase, "the base folder given has no name");
  const std::string base = given.starts_with('/') ? given : std::filesystem::absolute(given).string();
  if (const std::string why = whyNeverABaseFolder(base); !why.empty()) {
    throw CommandError(ExitCode::UnusableBase, fmt::format("the base folder '{}' cannot be watched: {}", base, why));
  }
  if (!isFolder(base)) {
    throw CommandError(ExitCode::UnusableBase, fmt::format("the base folder '{}' is no existing folder; make it first", base));
  }
  if (baseText() == baseTextOfPath(base) || setBasePath(base)) return;
  throw CommandError(ExitCode::Failed,
                     fmt::format("the preferences in '{}' cannot be written; see the log above", platform::preferencesFolder()));
}

/// A base folder that is not there, such as a drive that is not connected, is no error: the service waits for it.
void makeFolder(const std::string& text) {
  const WatchedFolder folder = watchedFolder(text);
  if (!folder.problem.empty() || !whyNeverABaseFolder(folder.base).empty()) return;
  if (!isFolder(folder.base)) {
    printError(fmt::format("kestrine: note: '{}' does not exist now; watching begins when it appears\n", folder.base));
  } else if (mkdir(folder.watched.c_str(), 0777) < 0 && errno != EEXIST) {
    throw CommandError(ExitCode::Failed, fmt::format("the folder '{}' cannot be made: {}", folder.watched, platform::errnoText(errno)));
  }
}

ExitCode runStart(const Arguments& arguments) {
  const auto limit = startLimit(arguments);
  if (const auto base = arguments.value("--base")) storeBase(*base);
  if (const auto base = baseText()) makeFolder(*base);
  const WatchStart start = requestWatch(limit);
  for (const std::string& warning : start.warnings) printError(fmt::format("kestrine: warning: {}\n", warning));
  if (!start.stands()) throw CommandError(codeOf(start.outcome), start.text);
  fmt::print("{}\n", start.text);
  return ExitCode::Ok;
}

}  // namespace

constinit const Command kStartCommand{
    .name = "start",
    .operands = "",
    .summary = "Starts the service where it does not run, and asks it to watch.",
    .details =
        "Returns when the watch stands or has failed. Where a watch of the same folder stands, it says so and asks for no second. The "
        "watch\n"
        "goes on after the command has ended; 'kestrine stop' ends it.",
    .options = kStartOptions,
    .fewestOperands = 0,
    .mostOperands = 0,
    .exits = kStartExits,
    .run = runStart,
};

}  // namespace kestrine
