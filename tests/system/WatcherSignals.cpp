// What the application sees of changes: the flag, and what the service says about them in its log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "tests/system/WatcherFixture.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::ElementsAre;
using testing::ElementsAreArray;

class WatcherSignals : public WatcherService, public testing::WithParamInterface<std::string> {
 protected:
  void SetUp() override {
    if (!useSource(GetParam())) GTEST_SKIP() << "left out: " << GetParam() << ", because the kernel lacks it";
  }

  void startWatching() {
    startService();
    application_.callToFileWatcher();
    ASSERT_TRUE(eventuallyStanding({1}));
  }

  Application application_;
};

INSTANTIATE_TEST_SUITE_P(Sources, WatcherSignals, testing::Values("fanotify", "inotify"),
                         [](const testing::TestParamInfo<std::string>& source) { return source.param; });

TEST_P(WatcherSignals, AreSetOnceForEachOfTenFilesAndReachTheApplicationAsOneFlag) {
  std::vector<std::string> files;
  files.reserve(10);
  for (int index = 0; index < 10; ++index) files.push_back(in("file" + std::to_string(index)));
  for (const std::string& file : files) writeFile(file, "first");
  setBasePath(base());
  startWatching();
  EXPECT_TRUE(flag().isNil());

  for (const std::string& file : files) appendFile(file, "second");
  ASSERT_TRUE(eventuallyTold(10));
  EXPECT_EQ(flag(), Object("1"));
  resetFlag();
  EXPECT_THAT(toldPaths(), ElementsAreArray(files));

  // The next change is the eleventh: the ten have left nothing behind.
  appendFile(files[0], "third");
  EXPECT_TRUE(eventuallyFlagged());
  files.push_back(files[0]);
  ASSERT_TRUE(eventuallyTold(11));
  EXPECT_THAT(toldPaths(), ElementsAreArray(files));
}

TEST_P(WatcherSignals, AreRaisedAgainAfterTheApplicationHasResetTheFlag) {
  setBasePath(base());
  startWatching();
  for (int round = 0; round < 3; ++round) {
    writeFile(in("round" + std::to_string(round)), "text");
    EXPECT_TRUE(eventuallyFlagged());
    ASSERT_TRUE(eventuallyTold(static_cast<std::size_t>(round) + 1));
    resetFlag();
  }
}

TEST_P(WatcherSignals, ComeFromAnyDepthAndFromNewFolders) {
  setBasePath(base());
  startWatching();
  std::string folder = watchedFolder();
  for (int depth = 0; depth < 20; ++depth) makeFolder(folder += "/deeper");
  writeFile(folder + "/file", "text");
  EXPECT_TRUE(eventually([&] { return log().find(folder + "/file") != std::string::npos; }, std::chrono::seconds(60)));
  EXPECT_EQ(flag(), Object("1"));
}

TEST_P(WatcherSignals, DoNotFeedThemselvesThroughPreferencesInTheWatchedFolder) {
  moveFolder("XDG_CONFIG_HOME", in("config"));
  setBasePath(base());
  startWatching();
  writeFile(in("file"), "text");
  ASSERT_TRUE(eventuallyTold(1));
  // Storing the flag is a change in there; were it told, it would be told for ever.
  std::this_thread::sleep_for(kWellBeyondTheLatency);
  EXPECT_THAT(toldPaths(), ElementsAre(in("file")));
  EXPECT_EQ(flag(), Object("1"));
}

TEST_F(WatcherService, TellsNothingThatItDoesItselfWhereTheKernelKnowsIt) {
  if (!useSource("fanotify")) GTEST_SKIP() << "left out: the service's own changes, because the kernel does not tell whose they are";
  moveFolder("XDG_STATE_HOME", in("state"));
  moveFolder("XDG_CONFIG_HOME", in("config"));
  setBasePath(base());
  // Started on demand it also writes its log there.
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  writeFile(in("file"), "text");
  ASSERT_TRUE(eventuallyTold(1));
  std::this_thread::sleep_for(kWellBeyondTheLatency);
  EXPECT_THAT(toldPaths(), ElementsAre(in("file")));
}

TEST_F(WatcherService, LeavesTheDownloadsFolderOut) {
  makeFolder(folder("home/Kestrine"));
  makeFolder(folder("home/Downloads"));
  makeFolder(folder("home/Downloads/Kestrine"));
  setBasePath(folder("home/Downloads"));
  startService();
  Application first;
  first.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  setBasePath(folder("home"));
  Application second;
  second.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1, 2}));

  writeFile(folder("home/Downloads/Kestrine/file"), "text");
  // The second watch begins its window later, so what the first one has to tell is told before.
  std::this_thread::sleep_for(std::chrono::seconds(1));
  writeFile(folder("home/Kestrine/file"), "text");
  ASSERT_TRUE(eventuallyTold(1));
  EXPECT_THAT(toldPaths(), ElementsAre(folder("home/Kestrine/file")));
}

}  // namespace
}  // namespace kestrine::test
