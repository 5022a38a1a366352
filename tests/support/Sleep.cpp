#include "tests/support/Sleep.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/Eventually.h"

#if defined(__SANITIZE_THREAD__)
#define KESTRINE_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KESTRINE_THREAD_SANITIZER 1
#endif
#endif

namespace kestrine::test {

namespace {

/// Which argument of a system call says how long it waits at most, and whether as a number (-1: without end) or a pointer (none: without
/// end).
struct WaitingCall {
  long number;
  enum class Limit { None, Number, Pointer } kind;
  std::size_t argument;
};

constexpr std::array kWaitingCalls = {
    WaitingCall{SYS_futex, WaitingCall::Limit::Pointer, 3},
    WaitingCall{SYS_epoll_pwait, WaitingCall::Limit::Number, 3},
    WaitingCall{SYS_ppoll, WaitingCall::Limit::Pointer, 2},
    WaitingCall{SYS_pselect6, WaitingCall::Limit::Pointer, 4},
    WaitingCall{SYS_rt_sigtimedwait, WaitingCall::Limit::Pointer, 2},
    WaitingCall{SYS_read, WaitingCall::Limit::None, 0},
#ifdef SYS_epoll_wait
    WaitingCall{SYS_epoll_wait, WaitingCall::Limit::Number, 3},
#endif
#ifdef SYS_poll
    WaitingCall{SYS_poll, WaitingCall::Limit::Number, 2},
#endif
};

/// Whether a thread in this system call, as /proc/<pid>/task/<thread>/syscall tells it, waits until something happens and not for time.
bool waitsWithoutEnd(const std::string& call) {
  std::istringstream words(call);
  long number = -1;
  if (!(words >> number)) return false;
  std::array<unsigned long long, 6> values{};
  for (auto& value : values) words >> std::hex >> value;
  for (const WaitingCall& known : kWaitingCalls) {
    if (known.number != number) continue;
    if (known.kind == WaitingCall::Limit::Pointer) return values[known.argument] == 0;
    return known.kind == WaitingCall::Limit::None || static_cast<int>(values[known.argument]) == -1;
  }
  return false;
}

bool isThisThread(const std::filesystem::path& task) { return task.filename() == std::to_string(::gettid()); }

std::string folderOf(pid_t process) { return "/proc/" + std::to_string(process); }

}  // namespace

std::string whySleepIsNotOurs() {
#ifdef KESTRINE_THREAD_SANITIZER
  return "the thread sanitizer has one of its own that wakes";
#else
  return {};
#endif
}

std::map<std::string, long> sleepsOf(pid_t process) {
  std::map<std::string, long> sleeps;
  for (const auto& task : std::filesystem::directory_iterator(folderOf(process) + "/task")) {
    if (isThisThread(task.path())) continue;
    std::ifstream status(task.path() / "status");
    std::string name;
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("Name:")) name = line.substr(6) + " ";
      if (line.starts_with("voluntary_ctxt_switches:")) {
        sleeps[name + task.path().filename().string()] = std::stol(line.substr(line.find(':') + 1));
      }
    }
  }
  return sleeps;
}

std::optional<std::string> timeThatWakes(pid_t process) {
  std::string found;
  for (const auto& task : std::filesystem::directory_iterator(folderOf(process) + "/task")) {
    if (isThisThread(task.path())) continue;
    std::ifstream file(task.path() / "syscall");
    std::string call;
    if (!std::getline(file, call)) return std::nullopt;
    if (!waitsWithoutEnd(call)) found += "thread " + task.path().filename().string() + " in " + call + "\n";
  }
  std::error_code gone;  // the descriptor that this reads through is one of them where it is this process
  for (const auto& descriptor : std::filesystem::directory_iterator(folderOf(process) + "/fdinfo", gone)) {
    std::ifstream file(descriptor.path());
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with("it_value:") && line.find("(0, 0)") == std::string::npos) found += "a timer: " + line + "\n";
    }
  }
  return found;
}

std::optional<std::map<std::string, long>> sleepsAtRest(pid_t process, std::string& why) {
  // Long enough for what was under way to show; whatever is due later waits for time. Where that cannot be seen it may show itself.
  const std::chrono::seconds quiet(timeThatWakes(process) ? 2 : 15);
  std::map<std::string, long> sleeps;
  const bool rests = eventually([&] {
    sleeps = sleepsOf(process);
    std::this_thread::sleep_for(quiet);
    why = timeThatWakes(process).value_or("");
    return why.empty() && sleepsOf(process) == sleeps;
  });
  return rests ? std::optional(sleeps) : std::nullopt;
}

}  // namespace kestrine::test
