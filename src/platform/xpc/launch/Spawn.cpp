#include "platform/xpc/launch/Spawn.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/xpc/launch/ServiceLogFile.h"
#include "platform/xpc/launch/SocketActivation.h"

namespace platform::xpc {

namespace {

/// Everything the new process needs, made before the fork: between fork and exec only async-signal-safe calls are allowed (fork(2)), and
/// memory is not to be allocated.
struct Plan {
  std::string program;
  std::vector<std::string> environment;
  std::vector<char*> environmentPointers;
  std::array<char*, 2> arguments{};
  /// Into which the new process writes its own number.
  char* processEntry = nullptr;
  int listener = -1;
  int report = -1;
};

/// What the launcher's own environment says about the launcher and not about its children.
bool isInherited(std::string_view entry) {
  if (isAboutHandOver(entry)) return false;
  constexpr std::array<std::string_view, 5> kNotForTheService{"NOTIFY_SOCKET=", "WATCHDOG_",
                                                              "JOURNAL_STREAM=", "XPC_LOG_FILE=", "INVOCATION_ID="};
  return std::none_of(kNotForTheService.begin(), kNotForTheService.end(),
                      [entry](std::string_view prefix) { return entry.starts_with(prefix); });
}

void fillPlan(Plan& plan, const std::string& program, const std::string& logFile) {
  plan.program = program;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (isInherited(*entry)) plan.environment.emplace_back(*entry);
  }
  plan.environment.push_back(std::string(kLogFileVariable) + "=" + logFile);
  addHandOver(plan.environment);
  plan.processEntry = plan.environment.back().data();
  for (std::string& entry : plan.environment) plan.environmentPointers.push_back(entry.data());
  plan.environmentPointers.push_back(nullptr);
  plan.arguments = {plan.program.data(), nullptr};
}

// From here to the exec: async-signal-safe only.

[[noreturn]] void reportAndExit(const Plan& plan, int error) {
  static_cast<void>(!write(plan.report, &error, sizeof error));
  _exit(127);
}

void restoreSignals() {
  struct sigaction byDefault {};
  byDefault.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; ++number) sigaction(number, &byDefault, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Descriptors of the application that are not close-on-exec are not the service's. Marked rather than closed: the report pipe must live
// until the exec.
void keepOnlyListener() {
  constexpr unsigned kCloseOnExec = 4;  // CLOSE_RANGE_CLOEXEC, close_range(2), Linux 5.11
  if (syscall(SYS_close_range, kHandedOverDescriptor + 1, ~0U, kCloseOnExec) == 0) return;
  const long limit = sysconf(_SC_OPEN_MAX);
  for (int descriptor = kHandedOverDescriptor + 1; descriptor < limit; ++descriptor) fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

bool placeDescriptors(Plan& plan) {
  // Out of the way of the numbers 0 to 3 first.
  plan.report = fcntl(plan.report, F_DUPFD_CLOEXEC, kHandedOverDescriptor + 1);
  plan.listener = fcntl(plan.listener, F_DUPFD_CLOEXEC, kHandedOverDescriptor + 1);
  const int null = fcntl(open("/dev/null", O_RDWR | O_CLOEXEC), F_DUPFD_CLOEXEC, kHandedOverDescriptor + 1);
  if (plan.report < 0 || plan.listener < 0 || null < 0) return false;
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (dup2(null, standard) < 0) return false;
  }
  return dup2(plan.listener, kHandedOverDescriptor) >= 0;
}

[[noreturn]] void becomeService(Plan& plan) {
  setsid();
  if (chdir("/") != 0 || !placeDescriptors(plan)) reportAndExit(plan, errno);
  keepOnlyListener();
  restoreSignals();
  putOwnProcess(plan.processEntry);
  execve(plan.program.c_str(), plan.arguments.data(), plan.environmentPointers.data());
  reportAndExit(plan, errno);
}

// The service is the child of a child that is gone, so that no caller has to wait for it.
[[noreturn]] void becomeIntermediate(Plan& plan) {
  const pid_t service = fork();
  if (service == 0) becomeService(plan);
  if (service < 0) reportAndExit(plan, errno);
  _exit(0);
}

}  // namespace

int spawnService(const std::string& program, int listener, const std::string& logFile) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return errno;
  const FileHandle reading(ends[0]);
  FileHandle writing(ends[1]);
  Plan plan;
  fillPlan(plan, program, logFile);
  plan.listener = listener;
  plan.report = writing.fileDescriptor();

  const pid_t intermediate = fork();
  if (intermediate < 0) return errno;
  if (intermediate == 0) becomeIntermediate(plan);
  writing.closeFile();
  while (waitpid(intermediate, nullptr, 0) < 0 && errno == EINTR) {
  }
  // The pipe closes with the exec; before that only a failure is written to it.
  int error = 0;
  ssize_t size = 0;
  do {
    size = read(reading.fileDescriptor(), &error, sizeof error);
  } while (size < 0 && errno == EINTR);
  if (size == static_cast<ssize_t>(sizeof error)) return error;
  return 0;
}

}  // namespace platform::xpc
