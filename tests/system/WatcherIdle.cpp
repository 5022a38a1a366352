// A watch costs nothing while nothing happens.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
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

  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(longOrShort(60, 10));
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
  EXPECT_TRUE(flag().isNil());

  // It was asleep, not dead.
  writeFile(in("file"), "text");
  EXPECT_TRUE(eventuallyFlagged());
}

}  // namespace
}  // namespace kestrine::test
