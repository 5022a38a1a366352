#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/foundation/preferences/PreferencesDomain.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/FlushControl.h"
#include "tests/watcher/WatcherFixture.h"
#include "watcher/CDEvent.h"
#include "watcher/FileWatcherServiceXPC.h"

namespace kestrine::test {
namespace {

using platform::Object;

/// What is done about each change.
class RaiseFileWatcherStatus : public WatcherTest {
 protected:
  static constexpr int kBurst = 10;

  std::unique_ptr<CDEvents> watch(CDEventsEventBlock block) {
    return std::make_unique<CDEvents>(listOfPath(watchedFolder()), std::move(block), platform::RunLoop::current(), kCDEventsSinceEventNow,
                                      3600.0, false, std::nullopt, kCDEventsDefaultEventStreamFlags);
  }

  static std::vector<platform::FSEvent> batchWithFlags(std::initializer_list<platform::FSEventStreamEventFlags> flags) {
    std::vector<platform::FSEvent> batch;
    for (const auto value : flags) batch.push_back({"/w/file", value, batch.size() + 1});
    return batch;
  }
};

TEST_F(RaiseFileWatcherStatus, WritesAndSynchronizesAnewForEachEventOfABurst) {
  int writes = 0;
  const auto events = watch([&](CDEvents& stream, const std::shared_ptr<const CDEvent>& event) {
    raiseFileWatcherStatus(stream, event);
    // What the application would find, and what it then does with it.
    if (statusOnDisk() == Object("1")) ++writes;
    resetStatus();
  });
  CDEventsCallback(*events, batchWithFlags({0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(writes, kBurst);
}

TEST_F(RaiseFileWatcherStatus, LogsTwoLinesForEachEventOfABurst) {
  CapturedLog log;
  std::vector<std::string> expected;
  const auto events = watch([&](CDEvents& stream, const std::shared_ptr<const CDEvent>& event) {
    raiseFileWatcherStatus(stream, event);
    expected.emplace_back("FileWatcher 1 in filewatcher service");
    expected.push_back("[Block] URLWatcher: " + stream.description() + "\nEvent: " + event->description());
  });
  CDEventsCallback(*events, batchWithFlags({0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(expected.size(), 2U * kBurst);
  EXPECT_EQ(beginningWith({"FileWatcher 1", "[Block]"}, log.end()), expected);
}

TEST_F(RaiseFileWatcherStatus, TreatsAllEventsAlike) {
  int writes = 0;
  const auto events = watch([&](CDEvents& stream, const std::shared_ptr<const CDEvent>& event) {
    raiseFileWatcherStatus(stream, event);
    if (statusOnDisk() == Object("1")) ++writes;
    resetStatus();
  });
  // Nothing, history done, dropped by the user's and by the kernel's side, root changed, mounted, a bit without a meaning.
  CDEventsCallback(*events, batchWithFlags({0x0, 0x10, 0x3, 0x5, 0x20, 0x40, 0x80000000}));
  EXPECT_EQ(writes, 7);
}

TEST_F(RaiseFileWatcherStatus, GoesOnTryingWhileTheFlagCannotBeWritten) {
  CapturedLog log;
  const std::string file = platform::preferencesFilePath(kServiceDomain);
  // Nothing can be written in place of a folder, by root neither.
  std::filesystem::create_directories(file);
  {
    const auto events = watch(raiseFileWatcherStatus);
    CDEventsCallback(*events, batchWithFlags({0, 0}));
  }
  EXPECT_TRUE(statusOnDisk().isNil());
  std::filesystem::remove(file);
  EXPECT_TRUE(runLoopUntil([] { return statusOnDisk() == Object("1"); }));
}

TEST_F(RaiseFileWatcherStatus, RaisesAFlagNoMoreThatTheApplicationHasTakenBeforeItWasFlushed) {
  // So that the folder is there and nothing but its flush fails.
  setBasePath(base_.path());
  FlushControl::reset();
  FlushControl::foldersToFail = 1;
  const auto events = watch(raiseFileWatcherStatus);
  CDEventsCallback(*events, batchWithFlags({0}));
  ASSERT_EQ(statusOnDisk(), Object("1")) << "everybody sees it";
  ASSERT_EQ(statusSection("owedFlag").size(), 1U);
  platform::UserDefaults application(kServiceDomain);
  application.setObject_forKey("0", "FileWatcherStatusKey");
  ASSERT_TRUE(application.synchronize());
  EXPECT_TRUE(runLoopUntil([] { return statusSection("owedFlag").empty(); }));
  EXPECT_EQ(statusOnDisk(), Object("0"));
  // And the next change is another matter.
  CDEventsCallback(*events, batchWithFlags({0}));
  EXPECT_EQ(statusOnDisk(), Object("1"));
}

TEST_F(RaiseFileWatcherStatus, SaysSinceWhenAndWhyAFlagIsOwed) {
  const std::string file = platform::preferencesFilePath(kServiceDomain);
  std::filesystem::create_directories(file);
  const auto events = watch(raiseFileWatcherStatus);
  CDEventsCallback(*events, batchWithFlags({0}));
  ASSERT_EQ(statusSection("owedFlag").size(), 1U);
  const Object first = statusSection("owedFlag").front();
  EXPECT_EQ(first.objectForKey("since").kind(), Object::Kind::Date);
  EXPECT_FALSE(first.objectForKey("reason").stringValue().empty());
  CDEventsCallback(*events, batchWithFlags({0}));
  EXPECT_EQ(statusSection("owedFlag").front().objectForKey("since"), first.objectForKey("since")) << "since the first of them";
  std::filesystem::remove(file);
  EXPECT_TRUE(runLoopUntil([] { return statusSection("owedFlag").empty(); }));
  EXPECT_EQ(statusOnDisk(), Object("1"));
}

TEST_F(RaiseFileWatcherStatus, StoresNothingElse) {
  const auto events = watch(raiseFileWatcherStatus);
  CDEventsCallback(*events, batchWithFlags({0}));
  EXPECT_EQ(defaults().persistentDomainForName(kServiceDomain), Object(platform::Dictionary{{"FileWatcherStatusKey", "1"}}));
}

TEST_F(RaiseFileWatcherStatus, KeepsWhatElseIsInTheStore) {
  ASSERT_TRUE(
      defaults().setPersistentDomain_forName(platform::Dictionary{{"FileWatcherStatusKey", "0"}, {"other", "kept"}}, kServiceDomain));
  const auto events = watch(raiseFileWatcherStatus);
  CDEventsCallback(*events, batchWithFlags({0}));
  EXPECT_EQ(defaults().persistentDomainForName(kServiceDomain),
            Object(platform::Dictionary{{"FileWatcherStatusKey", "1"}, {"other", "kept"}}));
}

}  // namespace
}  // namespace kestrine::test
