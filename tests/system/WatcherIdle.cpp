// A watch costs nothing while nothing happens.
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <thread>

#include "tests/system/WatcherFixture.h"

#if defined(__SANITIZE_THREAD__)
#define KESTRINE_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KESTRINE_THREAD_SANITIZER 1
#endif
#endif

namespace kestrine::test {
namespace {

/// How often each thread of the process was switched to so far, by thread; a thread that came or went shows too.
std::map<std::string, long> contextSwitches(pid_t pid) {
  std::map<std::string, long> switches;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    std::ifstream status(task.path() / "status");
    std::string name;
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("Name:")) name = line.substr(6) + " ";
      if (line.find("voluntary_ctxt_switches:") != std::string::npos) {
        switches[name + task.path().filename().string()] += std::stol(line.substr(line.find(':') + 1));
      }
    }
  }
  return switches;
}

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

/// What would wake the process by the mere passing of time: threads that wait with a limit, and timers that are set. Nothing where the
/// kernel does not tell what others wait for.
std::optional<std::string> timeThatWakes(pid_t pid) {
  const std::string process = "/proc/" + std::to_string(pid);
  std::string found;
  for (const auto& task : std::filesystem::directory_iterator(process + "/task")) {
    std::ifstream file(task.path() / "syscall");
    std::string call;
    if (!std::getline(file, call)) return std::nullopt;
    if (!waitsWithoutEnd(call)) found += "thread " + task.path().filename().string() + " in " + call + "\n";
  }
  for (const auto& descriptor : std::filesystem::directory_iterator(process + "/fdinfo")) {
    std::ifstream file(descriptor.path());
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with("it_value:") && line.find("(0, 0)") == std::string::npos) found += "a timer: " + line + "\n";
    }
  }
  return found;
}

class WatcherIdle : public WatcherService, public testing::WithParamInterface<std::string> {};

INSTANTIATE_TEST_SUITE_P(Sources, WatcherIdle, testing::Values("fanotify", "inotify"),
                         [](const testing::TestParamInfo<std::string>& source) { return source.param; });

TEST_P(WatcherIdle, SleepsWhileOnlyTheFolderAboveChanges) {
#ifdef KESTRINE_THREAD_SANITIZER
  GTEST_SKIP() << "left out: sleep of all threads, because the thread sanitizer has one of its own that wakes";
#endif
  if (!useSource(GetParam())) GTEST_SKIP() << "left out: " << GetParam() << ", because the kernel lacks it";
  const int folders = longOrShort(10000, 500);
  for (int index = 0; index < folders / 100; ++index) {
    makeFolder(in(std::to_string(index)));
    for (int inner = 1; inner < 100; ++inner) makeFolder(in(std::to_string(index) + "/" + std::to_string(inner)));
  }
  setBasePath(base());
  startService();
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));

  std::map<std::string, long> before;
  ASSERT_TRUE(eventually(
      [&] {
        before = contextSwitches(service().pid());
        std::this_thread::sleep_for(std::chrono::seconds(2));
        return contextSwitches(service().pid()) == before;
      },
      std::chrono::seconds(60)))
      << "it never came to rest";

  // No thread waits for time and no timer is set: it would sleep for ever. Where that cannot be seen, a minute must do.
  const auto wakes = timeThatWakes(service().pid());
  EXPECT_EQ(wakes.value_or(""), "");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(wakes ? 5 : longOrShort(60, 10));
  int round = 0;
  while (std::chrono::steady_clock::now() < end) {
    const std::string name = base() + "/beside" + std::to_string(round++);
    writeFile(name, "text");
    std::filesystem::rename(name, name + ".moved");
    std::filesystem::remove(name + ".moved");
    makeFolder(name);
    std::filesystem::remove(name);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(contextSwitches(service().pid()), before);
  EXPECT_EQ(timeThatWakes(service().pid()), wakes);
  EXPECT_TRUE(flag().isNil());

  // It was asleep, not dead.
  writeFile(in("file"), "text");
  EXPECT_TRUE(eventuallyFlagged());
}

}  // namespace
}  // namespace kestrine::test
