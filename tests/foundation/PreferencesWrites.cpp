#include "platform/foundation/preferences/PreferencesWrites.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/PreferencesLimitsFor.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::PreferencesWrites;
using platform::UserDefaults;

TEST(PreferencesWrites, KnowsNothingThatWasNotRecorded) {
  PreferencesWrites writes;
  EXPECT_FALSE(writes.isOwnWrite(1, 2, "name"));
  writes.recordOwnName(1, 2, "name");
  EXPECT_FALSE(writes.isOwnWrite(2, 2, "name"));
  EXPECT_FALSE(writes.isOwnWrite(1, 3, "name"));
  EXPECT_FALSE(writes.isOwnWrite(1, 2, "nam"));
}

TEST(PreferencesWrites, KnowsAnOwnNameForGood) {
  PreferencesWrites writes;
  writes.recordOwnName(1, 2, "name");
  const auto later = PreferencesWrites::Clock::now() + std::chrono::hours(100);
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(writes.isOwnWrite(1, 2, "name", later));
}

TEST(PreferencesWrites, CountsExpectedEventsDown) {
  PreferencesWrites writes;
  writes.expectEvent(1, 2, "final");
  writes.expectEvent(1, 2, "final");
  writes.expectEvent(1, 2, "final");
  writes.cancelEvent(1, 2, "final");
  EXPECT_TRUE(writes.isOwnWrite(1, 2, "final"));
  EXPECT_TRUE(writes.isOwnWrite(1, 2, "final"));
  EXPECT_FALSE(writes.isOwnWrite(1, 2, "final"));
  writes.cancelEvent(1, 2, "final");
  writes.cancelEvent(1, 2, "other");
  EXPECT_FALSE(writes.isOwnWrite(1, 2, "final"));
}

TEST(PreferencesWrites, ForgetsEachEventThatDidNotComeWithinSeconds) {
  PreferencesWrites writes;
  const auto start = PreferencesWrites::Clock::now();
  writes.expectEvent(1, 2, "final", start);
  writes.expectEvent(1, 2, "final", start + std::chrono::seconds(4));
  EXPECT_TRUE(writes.isOwnWrite(1, 2, "final", start + std::chrono::seconds(6)));
  EXPECT_FALSE(writes.isOwnWrite(1, 2, "final", start + std::chrono::seconds(6)));
}

TEST(PreferencesWrites, ForgetsTheOldestNamesFirst) {
  PreferencesWrites writes;
  const auto count = static_cast<int>(PreferencesWrites::kNamesAtMost);
  for (int i = 0; i < count; ++i) writes.recordOwnName(1, 2, std::to_string(i));
  writes.recordOwnName(1, 2, "0");
  writes.recordOwnName(1, 2, "new");
  EXPECT_TRUE(writes.isOwnWrite(1, 2, "0"));
  EXPECT_FALSE(writes.isOwnWrite(1, 2, "1"));
  EXPECT_TRUE(writes.isOwnWrite(1, 2, "2"));
  EXPECT_TRUE(writes.isOwnWrite(1, 2, "new"));
}

/// What inotify tells of changes in a folder.
class Watch {
 public:
  explicit Watch(const std::string& folder) : inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    constexpr unsigned kChanges = IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVE;
    EXPECT_GE(inotify_add_watch(inotify_.fileDescriptor(), folder.c_str(), kChanges), 0);
    struct stat status {};
    EXPECT_EQ(stat(folder.c_str(), &status), 0);
    device_ = status.st_dev;
    inode_ = status.st_ino;
  }

  struct Seen {
    int own = 0;
    std::vector<std::string> foreign;
  };
  Seen drain() {
    Seen seen;
    alignas(inotify_event) char buffer[1U << 16U];
    for (ssize_t size = 0; (size = read(inotify_.fileDescriptor(), buffer, sizeof buffer)) > 0;) {
      for (ssize_t at = 0; at < size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        const std::string name = event->len > 0 ? event->name : "";
        if (PreferencesWrites::shared().isOwnWrite(device_, inode_, name)) {
          ++seen.own;
        } else {
          seen.foreign.push_back(name);
        }
      }
    }
    return seen;
  }

 private:
  platform::FileHandle inotify_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

TEST(PreferencesWrites, CoverEveryEventOfThisProcessAndNoneOfAnother) {
  const TemporaryDirectory folder;
  Watch watch(folder.path());
  UserDefaults defaults("domain", folder.path());
  for (const char* value : {"1", "2", "3"}) {
    defaults.setObject_forKey(value, "key");
    ASSERT_TRUE(defaults.synchronize());
  }
  const auto written = watch.drain();
  EXPECT_GE(written.own, 12);
  EXPECT_EQ(written.foreign, std::vector<std::string>());

  // Another process would replace the file just so.
  writeFile(folder / "other", "<plist><dict/></plist>");
  ASSERT_EQ(std::rename((folder / "other").c_str(), (folder / "domain.plist").c_str()), 0);
  EXPECT_THAT(watch.drain().foreign, testing::Contains("domain.plist"));

  EXPECT_TRUE(defaults.objectForKey("key").isNil());

  writeFile(folder / "domain.plist", "corrupt");
  EXPECT_THAT(watch.drain().foreign, testing::Each("domain.plist"));
  const LimitsInForce limits(kSettledAtOnce);
  EXPECT_TRUE(defaults.objectForKey("key").isNil());
  EXPECT_EQ(watch.drain().own, 0);
  ASSERT_TRUE(defaults.setPersistentDomain_forName(platform::Dictionary(), "domain"));
  ASSERT_TRUE(defaults.removePersistentDomainForName("domain"));
  EXPECT_EQ(watch.drain().foreign, std::vector<std::string>());
}

TEST(PreferencesWrites, CoverTheFoldersThatTheWriterMakes) {
  const TemporaryDirectory base;
  Watch watch(base.path());
  UserDefaults defaults("domain", base / "config/Preferences");
  defaults.setObject_forKey("1", "key");
  ASSERT_TRUE(defaults.synchronize());
  const auto seen = watch.drain();
  EXPECT_EQ(seen.own, 1);
  EXPECT_EQ(seen.foreign, std::vector<std::string>());
}

TEST(PreferencesWrites, TakingTheLockIsNoChange) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  defaults.setObject_forKey("1", "key");
  ASSERT_TRUE(defaults.synchronize());
  Watch watch(folder.path());
  for (int i = 0; i < 10; ++i) defaults.exchange("key", [](const platform::Object&) { return platform::Object(); });
  EXPECT_EQ(watch.drain().own, 0);
}

}  // namespace
}  // namespace kestrine::test
