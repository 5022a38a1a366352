#include "platform/xpc/launch/Spawn.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/foundation/base/FileHandle.h"

namespace platform::xpc {

namespace {

constexpr int kListenerDescriptor = 3;

/// Everything the new process needs, made before the fork: between fork and exec only async-signal-safe calls are allowed (fork(2)), and
/// memory is not to be allocated.
struct Plan {
  std::string program;
  std::vector<std::string> environment;
  std::vector<char*> environmentPointers;
  std::array<char*, 2> arguments{};
  /// Where the new process writes its own number.
  char* pidDigits = nullptr;
  int listener = -1;
  int report = -1;
};

constexpr std::string_view kPidVariable = "LISTEN_PID=";
constexpr std::string_view kPidRoom = "0000000000";

bool isInherited(std::string_view entry) {
  constexpr std::array<std::string_view, 6> kNotForTheService{"LISTEN_",         "NOTIFY_SOCKET=", "WATCHDOG_",
                                                              "JOURNAL_STREAM=", "XPC_LOG_FILE=",  "INVOCATION_ID="};
  for (const std::string_view prefix : kNotForTheService) {
    if (entry.starts_with(prefix)) return false;
  }
  return true;
}

void fillPlan(Plan& plan, const std::string& program, const std::string& logFile) {
  plan.program = program;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (isInherited(*entry)) plan.environment.emplace_back(*entry);
  }
  plan.environment.emplace_back("LISTEN_FDS=1");
  plan.environment.push_back(std::string(kLogFileVariable) + "=" + logFile);
  plan.environment.push_back(std::string(kPidVariable) + std::string(kPidRoom));
  plan.pidDigits = plan.environment.back().data() + kPidVariable.size();
  for (std::string& entry : plan.environment) plan.environmentPointers.push_back(entry.data());
  plan.environmentPointers.push_back(nullptr);
  plan.arguments = {plan.program.data(), nullptr};
}

// From here to the exec: async-signal-safe only.

[[noreturn]] void reportAndExit(const Plan& plan, int error) {
  static_cast<void>(!write(plan.report, &error, sizeof error));
  _exit(127);
}

void putPid(char* digits) {
  std::array<char, kPidRoom.size()> reversed{};
  std::size_t count = 0;
  for (auto rest = static_cast<unsigned>(getpid()); rest > 0; rest /= 10) reversed[count++] = static_cast<char>('0' + rest % 10);
  for (std::size_t i = 0; i < count; ++i) digits[i] = reversed[count - 1 - i];
  digits[count] = '\0';
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
  if (syscall(SYS_close_range, kListenerDescriptor + 1, ~0U, kCloseOnExec) == 0) return;
  const long limit = sysconf(_SC_OPEN_MAX);
  for (int descriptor = kListenerDescriptor + 1; descriptor < limit; ++descriptor) fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

bool placeDescriptors(Plan& plan) {
  // Out of the way of the numbers 0 to 3 first.
  plan.report = fcntl(plan.report, F_DUPFD_CLOEXEC, kListenerDescriptor + 1);
  plan.listener = fcntl(plan.listener, F_DUPFD_CLOEXEC, kListenerDescriptor + 1);
  const int null = fcntl(open("/dev/null", O_RDWR | O_CLOEXEC), F_DUPFD_CLOEXEC, kListenerDescriptor + 1);
  if (plan.report < 0 || plan.listener < 0 || null < 0) return false;
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (dup2(null, standard) < 0) return false;
  }
  return dup2(plan.listener, kListenerDescriptor) >= 0;
}

[[noreturn]] void becomeService(Plan& plan) {
  setsid();
  if (chdir("/") != 0 || !placeDescriptors(plan)) reportAndExit(plan, errno);
  keepOnlyListener();
  restoreSignals();
  putPid(plan.pidDigits);
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

std::optional<std::string> spawnService(const std::string& program, int listener, const std::string& logFile) {
  const auto text = [](int error) { return std::generic_category().message(error); };
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return text(errno);
  const FileHandle reading(ends[0]);
  FileHandle writing(ends[1]);
  Plan plan;
  fillPlan(plan, program, logFile);
  plan.listener = listener;
  plan.report = writing.fileDescriptor();

  const pid_t intermediate = fork();
  if (intermediate < 0) return text(errno);
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
  if (size == static_cast<ssize_t>(sizeof error)) return text(error);
  return std::nullopt;
}

}  // namespace platform::xpc
