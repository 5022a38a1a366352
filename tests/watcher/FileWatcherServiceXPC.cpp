#include "watcher/FileWatcherServiceXPC.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "platform/foundation/files/HomeDirectory.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/support/Process.h"
#include "tests/watcher/WatcherFixture.h"
#include "watcher/CDEvent.h"
#include "watcher/CDEventsImpl.h"

namespace kestrine::test {
namespace {

using platform::Object;
using platform::RunLoop;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;

// The report of a failed start as it is logged before it is sent, whether or not there is a network.
const std::string kReportText = "{\n    ErrorClass = FileWatcher;\n";

const std::vector<std::string> kProductTexts = {
    "inside initFilewatcher",  "watcher url  ", "-[FileWatcherServiceXPC run]:", "FileWatcher 1 ", "[Block] URLWatcher: ",
    "[Delegate] URLWatcher: ", kReportText};

class FileWatcherServiceXPCTest : public WatcherTest {
 protected:
  // Several controllers may be in the registry while a former one goes; the last is the one made last.
  static Object watchStatus() {
    const platform::Array watches = statusSection("watches");
    return watches.empty() ? Object() : watches.back();
  }
};

TEST_F(FileWatcherServiceXPCTest, WatchesTheKestrineFolderOfTheBasePath) {
  setBasePath(base_.path());
  CapturedLog log;
  FileWatcherServiceXPC controller;
  controller.initFileWatcher();
  EXPECT_THAT(beginningWith(kProductTexts, log.end()),
              ElementsAre("inside initFilewatcher", "watcher url  " + base_.path(), MatchesRegex(R"(-\[FileWatcherServiceXPC run\]:
<CDEvents: 0x[0-9a-f]+ \{ watchedURLs = \(
    ")" + watchedFolder() + R"("
\) \}>
------
(.|
)+)")));
  EXPECT_EQ(watchStatus().objectForKey("state"), Object("standing"));
  EXPECT_EQ(watchStatus().objectForKey("folder"), Object(watchedFolder()));
}

TEST_F(FileWatcherServiceXPCTest, RaisesTheFlagForAChangeOfAnotherProcess) {
  setBasePath(base_.path());
  FileWatcherServiceXPC controller;
  controller.initFileWatcher();
  EXPECT_TRUE(statusOnDisk().isNil()) << "raised before anything changed";
  ASSERT_EQ(runToEnd({"touch", watchedFolder() + "/file"}).status, 0);
  EXPECT_TRUE(runLoopUntil([&] { return statusOnDisk() == Object("1"); }));
}

TEST_F(FileWatcherServiceXPCTest, ReadsTheSharedPreferencesOnceWhenItBegins) {
  ASSERT_TRUE(defaults().setPersistentDomain_forName(
      platform::Dictionary{{"kestrinePathKey", base_.path()}, {"computerIdKey", "c-1"}, {"userIdKey", "u-1"}}, kSharedDomain));
  FileWatcherServiceXPC controller;
  EXPECT_TRUE(controller.iAppsPrefs().isNil());
  controller.initFileWatcher();
  setBasePath("/elsewhere");
  EXPECT_EQ(controller.iAppsPrefs(),
            Object(platform::Dictionary{{"kestrinePathKey", base_.path()}, {"computerIdKey", "c-1"}, {"userIdKey", "u-1"}}));
}

TEST_F(FileWatcherServiceXPCTest, WithoutPreferencesWatchesTheTextOfNothing) {
  CapturedLog log;
  FileWatcherServiceXPC controller;
  controller.setIAppsPrefs(platform::Dictionary{{"kestrinePathKey", "/left/over"}});
  controller.initFileWatcher();
  EXPECT_TRUE(controller.iAppsPrefs().isNil()) << "nothing, rather than an empty dictionary";
  EXPECT_THAT(beginningWith(kProductTexts, log.end()),
              ElementsAre("inside initFilewatcher", "watcher url  (null)", MatchesRegex(R"(-\[FileWatcherServiceXPC run\]:
<CDEvents: 0x[0-9a-f]+ \{ watchedURLs = \(
    "\(null\)/Kestrine"
\) \}>
------
(.|
)+)")));
  EXPECT_EQ(watchStatus().objectForKey("state"), Object("standing"));
  EXPECT_EQ(watchStatus().objectForKey("folder"), Object("(null)/Kestrine"));
}

TEST_F(FileWatcherServiceXPCTest, WithoutABasePathInItsPreferencesWatchesTheTextOfNothing) {
  ASSERT_TRUE(defaults().setPersistentDomain_forName(platform::Dictionary{{"userIdKey", "u-1"}}, kSharedDomain));
  FileWatcherServiceXPC controller;
  controller.initFileWatcher();
  EXPECT_EQ(watchStatus().objectForKey("folder"), Object("(null)/Kestrine"));
}

TEST_F(FileWatcherServiceXPCTest, ReportsABasePathWithABlankOnceAndNeverRaisesTheFlag) {
  setBasePath("/Users/a b");
  CapturedLog log;
  FileWatcherServiceXPC controller;
  controller.initFileWatcher();
  RunLoop::current()->run();
  EXPECT_THAT(
      beginningWith(kProductTexts, log.end()),
      ElementsAre("inside initFilewatcher", "watcher url  /Users/a b",
                  "{\n    ErrorClass = FileWatcher;\n    ErrorMessage = \"Exception has occured\";\n    ErrorMethod = \"Run Method\";\n}"));
  EXPECT_EQ(watchStatus().objectForKey("state"), Object("failed"));
  EXPECT_FALSE(watchStatus().objectForKey("reason").stringValue().empty());
  EXPECT_THAT(statusSection("streams"), IsEmpty());
  EXPECT_TRUE(statusOnDisk().isNil());
}

TEST_F(FileWatcherServiceXPCTest, ThrowsFromRunWhatInitFileWatcherCatches) {
  FileWatcherServiceXPC controller;
  controller.setIAppsPrefs(platform::Dictionary{{"kestrinePathKey", "/Users/a b"}});
  try {
    controller.run();
    FAIL() << "nothing was thrown";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
  }
}

TEST_F(FileWatcherServiceXPCTest, MakesOneStreamWhenRunTwice) {
  const TemporaryDirectory other;
  CapturedLog log;
  FileWatcherServiceXPC controller;
  controller.setIAppsPrefs(platform::Dictionary{{"kestrinePathKey", base_.path()}});
  controller.run();
  controller.setIAppsPrefs(platform::Dictionary{{"kestrinePathKey", other.path()}});
  controller.run();
  EXPECT_THAT(statusSection("streams"), SizeIs(1));
  EXPECT_THAT(beginningWith(kProductTexts, log.end()),
              ElementsAre("watcher url  " + base_.path(), StartsWith("-[FileWatcherServiceXPC run]:\n"), "watcher url  " + other.path()));
}

TEST_F(FileWatcherServiceXPCTest, LogsAnEventWhenMadeADelegate) {
  CapturedLog log;
  FileWatcherServiceXPC controller;
  CDEvents events(listOfPath(watchedFolder()), [](CDEvents&, const std::shared_ptr<const CDEvent>&) {});
  const auto event = CDEvent::eventWithIdentifier_date_URL_flags(1, platform::Date{0}, platform::URL::URLWithString("file:///w/a"), 0);
  controller.URLWatcher_eventOccurred(events, event);
  EXPECT_THAT(beginningWith(kProductTexts, log.end()),
              ElementsAre("[Delegate] URLWatcher: " + events.description() + "\nEvent: " + event->description()));
  EXPECT_TRUE(statusOnDisk().isNil());
}

TEST_F(FileWatcherServiceXPCTest, RaisesNothingForTheDownloadsFolderOfTheHome) {
  const std::string downloads = platform::NSHomeDirectory() + "/Downloads";
  makeFolder(downloads);
  makeFolder(downloads + "/Kestrine");
  setBasePath(downloads);
  FileWatcherServiceXPC controller;
  controller.initFileWatcher();
  ASSERT_EQ(runToEnd({"touch", downloads + "/Kestrine/file"}).status, 0);
  ASSERT_TRUE(runLoopUntil([&] { return statusSection("streams").back().objectForKey("eventsDelivered").longLongValue() > 0; }))
      << "the platform delivers what is left out only here";
  EXPECT_TRUE(statusOnDisk().isNil());
}

TEST_F(FileWatcherServiceXPCTest, TellsTheStatusRegistryAboutItselfWhileItLives) {
  const std::size_t before = statusSection("watches").size();
  std::uint64_t firstNumber = 0;
  {
    const FileWatcherServiceXPC first;
    EXPECT_EQ(watchStatus().objectForKey("state"), Object("starting"));
    EXPECT_EQ(watchStatus().objectForKey("folder"), Object(""));
    EXPECT_TRUE(watchStatus().objectForKey("reason").isNil());
    firstNumber = watchStatus().objectForKey("number").unsignedLongLongValue();
    const FileWatcherServiceXPC second;
    EXPECT_EQ(watchStatus().objectForKey("number"), Object::numberWithUnsignedLongLong(firstNumber + 1));
    EXPECT_EQ(statusSection("watches").size(), before + 2);
  }
  EXPECT_EQ(statusSection("watches").size(), before);
  const FileWatcherServiceXPC third;
  EXPECT_EQ(watchStatus().objectForKey("number"), Object::numberWithUnsignedLongLong(firstNumber + 2)) << "numbers are not used again";
}

TEST_F(FileWatcherServiceXPCTest, EndsItsThreadsRunLoopWhenDestroyedElsewhere) {
  setBasePath(base_.path());
  std::shared_ptr<FileWatcherServiceXPC> controller;
  std::promise<void> watching;
  std::thread thread([&] {
    controller = std::make_shared<FileWatcherServiceXPC>();
    controller->initFileWatcher();
    watching.set_value();
    RunLoop::current()->run();
  });
  watching.get_future().wait();
  controller.reset();
  thread.join();
  EXPECT_THAT(statusSection("streams"), IsEmpty());
}

}  // namespace
}  // namespace kestrine::test
