// Connections, several watches, and the end of the service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <optional>
#include <thread>

#include "tests/system/WatcherFixture.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::ElementsAre;
using testing::HasSubstr;

class WatcherLife : public WatcherService {
 protected:
  WatcherLife() { setBasePath(base()); }
};

TEST_F(WatcherLife, GivesEachApplicationAWatchOfItsOwn) {
  startService();
  Application first;
  Application second;
  first.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  second.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1, 2}));
  writeFile(in("file"), "text");
  ASSERT_TRUE(eventuallyTold(2));
  EXPECT_THAT(toldPaths(), ElementsAre(in("file"), in("file")));
}

TEST_F(WatcherLife, ReplacesAnApplicationsWatchOnItsSecondCallAndNoOthers) {
  makeFolder(folder("other"));
  makeFolder(folder("other/Kestrine"));
  startService();
  Application first;
  Application second;
  first.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  second.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1, 2}));
  setBasePath(folder("other"));
  first.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({2, 3}));
  EXPECT_EQ(watches()[0].objectForKey("folder"), Object(watchedFolder()));
  EXPECT_EQ(watches()[1].objectForKey("folder"), Object(folder("other/Kestrine")));

  writeFile(in("file"), "text");
  ASSERT_TRUE(eventuallyTold(1));
  writeFile(folder("other/Kestrine/file"), "text");
  ASSERT_TRUE(eventuallyTold(2));
  EXPECT_THAT(toldPaths(), ElementsAre(in("file"), folder("other/Kestrine/file")));
}

TEST_F(WatcherLife, KeepsWatchingAfterItsApplicationHasGone) {
  startService();
  {
    Application application;
    application.callToFileWatcher();
    ASSERT_TRUE(eventuallyStanding({1}));
  }
  writeFile(in("file"), "text");
  EXPECT_TRUE(eventuallyFlagged());
  EXPECT_TRUE(eventuallyStanding({1}));
}

TEST_F(WatcherLife, IsStartedAnewByTheNextCallAfterItWasKilled) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  const pid_t killed = servicePid();
  ASSERT_GT(killed, 0);
  kill(killed, SIGKILL);
  EXPECT_TRUE(eventually([&] { return application.interruptions() == 1; }));

  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  EXPECT_NE(servicePid(), killed);
  writeFile(in("file"), "text");
  EXPECT_TRUE(eventuallyFlagged());
}

TEST_F(WatcherLife, EndsInOrderWhenTold) {
  startService();
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  service().signal(SIGTERM);
  EXPECT_EQ(service().wait(), 0);
  EXPECT_TRUE(eventually([&] { return application.interruptions() == 1; }));
  EXPECT_EQ(servicePid(), 0);
}

TEST_F(WatcherLife, RunsOnlyOnce) {
  startService();
  Process second({KESTRINE_SERVICE}, {});
  EXPECT_EQ(second.wait(), 75);
  EXPECT_TRUE(service().isRunning());
}

struct Hosting {
  const char* version;
  const char* name;
};

class WatcherHosting : public WatcherLife, public testing::WithParamInterface<Hosting> {};

INSTANTIATE_TEST_SUITE_P(Versions, WatcherHosting,
                         testing::Values(Hosting{"10.6.8", "OnSnowLeopard"}, Hosting{"10.8.5", "OnMountainLion"},
                                         Hosting{"10.10.5", "OnYosemite"}, Hosting{"14.0.0", "OnACurrentRelease"}),
                         [](const testing::TestParamInfo<Hosting>& row) { return std::string(row.param.name); });

TEST_P(WatcherHosting, ServesConnectionsThroughTheListener) {
  startService({}, {{"KESTRINE_SYSTEM_VERSION", GetParam().version}});
  Application application;
  application.callToFileWatcher();
  EXPECT_TRUE(eventuallyStanding({1}));
}

}  // namespace
}  // namespace kestrine::test
