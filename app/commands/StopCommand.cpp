#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "app/cli/CommandError.h"
#include "app/cli/Numbers.h"
#include "app/client/ServiceLifetime.h"
#include "app/commands/Commands.h"
#include "contract/ServiceName.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/xpc/launch/ServiceLauncher.h"

namespace kestrine {

namespace {

using Clock = std::chrono::steady_clock;

constexpr Option kStopOptions[] = {
    {"--timeout", "S", "seconds to wait for its end; 20 if not given"},
};

constexpr ExitNote kStopExits[] = {
    {ExitCode::Ok, "the service has ended, or was not running"},
    {ExitCode::Failed, "the process may not be signalled, or whether it runs cannot be told"},
    {ExitCode::TimedOut, "the service was told to end and has not, in the time allowed"},
};

bool isAlive(pid_t process) {
  const auto service = platform::xpc::runningService(kServiceName);
  return service.isAlive && service.processIdentifier == process;
}

/// The lock file's text is a claim: the process that it names is ended only when it is this user's and has the lock. Asked while its
/// descriptor is open, so that no other process can have its number by then. False when it is gone.
bool isOursToEnd(pid_t process) {
  struct stat status {};
  if (stat(fmt::format("/proc/{}", process).c_str(), &status) < 0) return false;
  if (status.st_uid != geteuid()) {
    throw CommandError(ExitCode::Failed, fmt::format("process {} belongs to user {}; only that user can end it", process, status.st_uid));
  }
  if (platform::xpc::isHolder(kServiceName, process)) return true;
  if (!isAlive(process)) return false;
  throw CommandError(ExitCode::Failed,
                     fmt::format("process {} is not ended: the service's lock file names it, but it does not hold the lock", process));
}

void terminate(const ServiceProcessHandle& service) {
  const int descriptor = service.descriptor.fileDescriptor();
  const auto result = service.descriptor.isOpen() ? syscall(SYS_pidfd_send_signal, descriptor, SIGTERM, nullptr, 0)
                                                  : static_cast<long>(kill(service.process, SIGTERM));
  if (result == 0 || errno == ESRCH) return;
  throw CommandError(ExitCode::Failed, fmt::format("process {} cannot be ended: {}", service.process, platform::errnoText(errno)));
}

bool waitUntilGone(const ServiceProcessHandle& service, Clock::time_point deadline) {
  while (isAlive(service.process)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd end{service.descriptor.fileDescriptor(), POLLIN, 0};
    // The lock is let go of while the process ends, so its end is the later of the two; without a descriptor the lock is asked again.
    const int wait = service.descriptor.isOpen() ? static_cast<int>(left) : 20;
    if (poll(&end, 1, wait) > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

double stopLimit(const Arguments& arguments) {
  const auto text = arguments.value("--timeout");
  if (!text) return 20;
  if (const auto seconds = parseSeconds(*text)) return *seconds;
  throw CommandError(ExitCode::Usage, fmt::format("stop: '--timeout {}' is no number of seconds from 0 to 86400", *text));
}

ExitCode runStop(const Arguments& arguments) {
  const auto limit = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(stopLimit(arguments)));
  const auto deadline = Clock::now() + limit;
  if (const auto running = platform::xpc::runningService(kServiceName); !running.problem.empty()) {
    throw CommandError(ExitCode::Failed, "whether the service runs cannot be told: " + running.problem);
  }
  ServiceProcessHandle service = openServiceProcess();
  // A service that has just begun holds its lock a moment before its number stands in it.
  while (service.process == 0 && platform::xpc::runningService(kServiceName).isAlive && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    service = openServiceProcess();
  }
  if (service.process == 0) {
    fmt::print("the service is not running\n");
    return ExitCode::Ok;
  }
  if (isOursToEnd(service.process)) terminate(service);
  if (!waitUntilGone(service, deadline)) {
    throw CommandError(ExitCode::TimedOut,
                       fmt::format("the service (process {}) was told to end and still runs; 'kill -9 {}' ends it at once", service.process,
                                   service.process));
  }
  fmt::print("the service (process {}) has ended\n", service.process);
  const auto successor = platform::xpc::runningService(kServiceName);
  if (successor.isAlive) fmt::print("an application has started it again, as process {}\n", successor.processIdentifier);
  return ExitCode::Ok;
}

}  // namespace

constinit const Command kStopCommand{
    .name = "stop",
    .operands = "",
    .summary = "Ends the service and all its watches, and waits until it has ended.",
    .details =
        "What its watches have seen raises the flag first; else the flag stays as it is. An application that still wants its watch\n"
        "may start the service again.",
    .options = kStopOptions,
    .fewestOperands = 0,
    .mostOperands = 0,
    .exits = kStopExits,
    .run = runStop,
};

}  // namespace kestrine
