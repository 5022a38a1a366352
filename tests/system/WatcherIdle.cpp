// A watch costs nothing while nothing happens.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/Sleep.h"
#include "tests/system/WatcherFixture.h"

namespace kestrine::test {
namespace {

class WatcherIdle : public WatcherService, public testing::WithParamInterface<std::string> {};

INSTANTIATE_TEST_SUITE_P(Sources, WatcherIdle, testing::Values("fanotify", "inotify"),
                         [](const testing::TestParamInfo<std::string>& source) { return source.param; });

TEST_P(WatcherIdle, SleepsWhileOnlyTheFolderAboveChanges) {
  if (const auto why = whySleepIsNotOurs(); !why.empty()) GTEST_SKIP() << "left out: sleep of all threads, because " << why;
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

  std::string why;
  const auto before = sleepsAtRest(service().pid(), why);
  ASSERT_TRUE(before) << "it never came to rest: " << why;

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
  EXPECT_EQ(sleepsOf(service().pid()), *before);
  EXPECT_EQ(timeThatWakes(service().pid()), wakes);
  EXPECT_TRUE(flag().isNil());

  // It was asleep, not dead.
  writeFile(in("file"), "text");
  EXPECT_TRUE(eventuallyFlagged());
}

}  // namespace
}  // namespace kestrine::test
