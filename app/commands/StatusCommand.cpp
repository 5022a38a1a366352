#include <fmt/format.h>

#include <algorithm>

#include "app/cli/CommandError.h"
#include "app/client/ServiceReport.h"
#include "app/client/StatusFlag.h"
#include "app/client/WatchedFolder.h"
#include "app/commands/Commands.h"
#include "app/commands/StatusText.h"
#include "contract/ServiceName.h"
#include "platform/foundation/formats/JSON.h"
#include "platform/xpc/launch/ServiceLauncher.h"

namespace kestrine {

namespace {

constexpr Option kStatusOptions[] = {
    {"--json", "", "one JSON object instead of text for people"},
};

constexpr ExitNote kStatusExits[] = {
    {ExitCode::Ok, "the service runs and at least one watch stands"},
    {ExitCode::Failed, "whether the service runs cannot be told"},
    {ExitCode::NotRunning, "the service is not running"},
    {ExitCode::NotWatching, "the service runs and no watch stands"},
    {ExitCode::TimedOut, "the service runs and does not answer"},
};

constexpr auto kAnswerLimit = std::chrono::seconds(5);

ExitCode codeOf(const ServiceStatus& status) {
  if (status.process == 0) return ExitCode::NotRunning;
  if (!status.report) return ExitCode::TimedOut;
  const bool stands = std::ranges::any_of(status.report->watches, [](const WatchReport& watch) { return watch.is(WatchState::Standing); });
  return stands ? ExitCode::Ok : ExitCode::NotWatching;
}

ServiceStatus collect() {
  ServiceStatus status;
  status.report = askService(kAnswerLimit);
  if (status.report) {
    status.process = status.report->process;
  } else if (const auto service = platform::xpc::runningService(kServiceName); !service.problem.empty()) {
    throw CommandError(ExitCode::Failed, "whether the service runs cannot be told: " + service.problem);
  } else if (service.isAlive) {
    // One that has only just taken its lock has no number yet; -1 says that it is there all the same.
    status.process = service.processIdentifier != 0 ? service.processIdentifier : -1;
  }
  status.flag = readFlag();
  status.base = baseText();
  return status;
}

ExitCode runStatus(const Arguments& arguments) {
  const ServiceStatus status = collect();
  fmt::print("{}", arguments.has("--json") ? platform::jsonText(statusObject(status)) + "\n" : statusText(status));
  return codeOf(status);
}

}  // namespace

constinit const Command kStatusCommand{
    .name = "status",
    .operands = "",
    .summary = "Tells whether the service runs, what it watches and whether the flag is raised.",
    .details = "Never starts the service and changes nothing.",
    .options = kStatusOptions,
    .fewestOperands = 0,
    .mostOperands = 0,
    .exits = kStatusExits,
    .run = runStatus,
};

}  // namespace kestrine
