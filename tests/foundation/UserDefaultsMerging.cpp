// Several writers of one domain: nothing of theirs is lost, and a write that changes nothing is none.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/UserDefaultsHelper.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::Dictionary;
using platform::Object;
using platform::UserDefaults;

ino_t inodeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_ino;
}

TEST(UserDefaultsMerging, KeepsTheOtherKeysThatAnotherWriterStored) {
  const TemporaryDirectory folder;
  UserDefaults first("domain", folder.path());
  UserDefaults second("domain", folder.path());
  first.setObject_forKey("1", "a");
  EXPECT_TRUE(first.synchronize());
  second.setObject_forKey("2", "b");
  first.setObject_forKey("3", "c");
  EXPECT_TRUE(second.synchronize());
  EXPECT_TRUE(first.synchronize());
  EXPECT_EQ(second.persistentDomainForName("domain"), Object(Dictionary{{"a", Object("1")}, {"b", Object("2")}, {"c", Object("3")}}));
}

TEST(UserDefaultsMerging, OverwritesAnotherWritersValueOfTheSameKey) {
  useMemoryForTemporaryFolders();
  const TemporaryDirectory folder;
  UserDefaults service("domain", folder.path());
  UserDefaults application("domain", folder.path());
  for (int round = 0; round < 50; ++round) {
    service.setObject_forKey("1", "flag");
    ASSERT_TRUE(service.synchronize());
    ASSERT_EQ(application.objectForKey("flag"), Object("1"));
    application.setObject_forKey("0", "flag");
    ASSERT_TRUE(application.synchronize());
    ASSERT_EQ(service.objectForKey("flag"), Object("0"));
  }
}

TEST(UserDefaultsMerging, WritesAgainWhatAnotherHasResetWithoutReadingItBefore) {
  useMemoryForTemporaryFolders();
  const TemporaryDirectory folder;
  UserDefaults service("domain", folder.path());
  UserDefaults application("domain", folder.path());
  for (int round = 0; round < 50; ++round) {
    for (int event = 0; event < 3; ++event) {
      service.setObject_forKey("1", "flag");
      ASSERT_TRUE(service.synchronize());
    }
    ASSERT_EQ(application.exchange("flag", [](const Object&) { return Object("0"); }), Object("1")) << "round " << round;
    // Until the version that the service wrote last is old enough to be believed at a glance.
    if (round % 10 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
}

TEST(UserDefaultsMerging, SeesARemovedFile) {
  const TemporaryDirectory folder;
  UserDefaults service("domain", folder.path());
  service.setObject_forKey("1", "flag");
  ASSERT_TRUE(service.synchronize());
  ASSERT_TRUE(UserDefaults("other", folder.path()).removePersistentDomainForName("domain"));
  EXPECT_TRUE(service.objectForKey("flag").isNil());
  service.setObject_forKey("1", "flag");
  ASSERT_TRUE(service.synchronize());
  EXPECT_EQ(UserDefaults("domain", folder.path()).objectForKey("flag"), Object("1"));
}

TEST(UserDefaultsMerging, SeesAFileThatWasEditedWhereItStands) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  defaults.setObject_forKey("1", "flag");
  ASSERT_TRUE(defaults.synchronize());
  const auto inode = inodeOf(folder / "domain.plist");
  writeFile(folder / "domain.plist", "<plist><dict><key>flag</key><string>edited</string></dict></plist>");
  ASSERT_EQ(inodeOf(folder / "domain.plist"), inode);
  EXPECT_EQ(defaults.objectForKey("flag"), Object("edited"));
}

TEST(UserDefaultsMerging, NeitherWritesNorLocksWhenTheFileHoldsTheValues) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  defaults.setObject_forKey("1", "flag");
  ASSERT_TRUE(defaults.synchronize());
  const auto inode = inodeOf(folder / "domain.plist");
  // Someone else holds the lock for good; a synchronize that took it would never return.
  const platform::FileHandle lock(open((folder / "domain.plist.lock").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(lock.fileDescriptor(), LOCK_EX), 0);
  for (int i = 0; i < 1000; ++i) {
    defaults.setObject_forKey("1", "flag");
    defaults.removeObjectForKey("no such key");
    ASSERT_TRUE(defaults.synchronize());
  }
  EXPECT_EQ(inodeOf(folder / "domain.plist"), inode);
}

TEST(UserDefaultsMerging, WritesNothingWhenOnlyTheLockedReadShowsThatItIsThere) {
  const TemporaryDirectory folder;
  UserDefaults first("domain", folder.path());
  UserDefaults second("domain", folder.path());
  first.setObject_forKey("1", "flag");
  second.setObject_forKey("1", "flag");
  ASSERT_TRUE(first.synchronize());
  const auto inode = inodeOf(folder / "domain.plist");
  ASSERT_TRUE(second.synchronize());
  EXPECT_EQ(inodeOf(folder / "domain.plist"), inode);
}

platform::FileHandle lockedFile(const std::string& path) {
  platform::FileHandle lock(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_EQ(flock(lock.fileDescriptor(), LOCK_EX), 0);
  return lock;
}

TEST(UserDefaultsMerging, NoticesThatTheLockFileItWaitedForWasRemoved) {
  const TemporaryDirectory folder;
  auto removed = lockedFile(folder / "domain.plist.lock");
  std::atomic<bool> done = false;
  std::thread waiter([&] {
    UserDefaults defaults("domain", folder.path());
    defaults.setObject_forKey("1", "first");
    EXPECT_TRUE(defaults.synchronize());
    done = true;
  });
  EXPECT_FALSE(eventually([&] { return done.load(); }, std::chrono::milliseconds(200)));
  std::filesystem::remove(folder / "domain.plist.lock");
  auto current = lockedFile(folder / "domain.plist.lock");
  removed.closeFile();
  EXPECT_FALSE(eventually([&] { return done.load(); }, std::chrono::milliseconds(200)));
  writeFile(folder / "domain.plist", "<plist><dict><key>second</key><string>2</string></dict></plist>");
  current.closeFile();
  waiter.join();
  EXPECT_EQ(UserDefaults("domain", folder.path()).persistentDomainForName("domain"),
            Object(Dictionary{{"first", Object("1")}, {"second", Object("2")}}));
}

TEST(UserDefaultsMerging, RemovesTemporaryFilesThatKilledWritersLeft) {
  const TemporaryDirectory folder;
  writeFile(folder / "domain.plist.4711.tmp", "half a fi");
  writeFile(folder / "domain.plist.x.tmp", "somebody else's");
  writeFile(folder / "domain2.plist.4711.tmp", "another domain's");
  writeFile(folder / ("domain.plist." + std::to_string(getpid()) + ".tmp"), "of a process that had our number");
  UserDefaults defaults("domain", folder.path());
  defaults.setObject_forKey("1", "flag");
  ASSERT_TRUE(defaults.synchronize());
  std::vector<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(folder.path())) left.push_back(entry.path().filename());
  EXPECT_THAT(left, testing::UnorderedElementsAre("domain.plist", "domain.plist.lock", "domain.plist.x.tmp", "domain2.plist.4711.tmp"));
}

TEST(UserDefaultsExchange, StoresWhatWasDecidedAndReturnsWhatWasRead) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  bool failed = true;
  EXPECT_TRUE(defaults
                  .exchange(
                      "flag", [](const Object& value) { return value.isNil() ? Object("1") : Object(); }, &failed)
                  .isNil());
  EXPECT_FALSE(failed);
  const auto inode = inodeOf(folder / "domain.plist");
  EXPECT_EQ(defaults.exchange("flag", [](const Object&) { return Object(); }), Object("1"));
  EXPECT_EQ(defaults.exchange("flag", [](const Object& value) { return value; }), Object("1"));
  EXPECT_EQ(inodeOf(folder / "domain.plist"), inode);
  EXPECT_EQ(defaults.exchange("flag", [](const Object&) { return Object("0"); }), Object("1"));
  EXPECT_EQ(UserDefaults("domain", folder.path()).objectForKey("flag"), Object("0"));
}

TEST(UserDefaultsExchange, ReplacesAnOlderChangeOfTheSameKeyOnly) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  defaults.setObject_forKey("older", "key");
  defaults.setObject_forKey("kept", "other");
  EXPECT_TRUE(defaults.exchange("key", [](const Object&) { return Object(); }).isNil());
  EXPECT_EQ(defaults.objectForKey("key"), Object("older"));
  EXPECT_TRUE(defaults.exchange("key", [](const Object&) { return Object("newer"); }).isNil());
  EXPECT_EQ(defaults.objectForKey("key"), Object("newer"));
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(defaults.persistentDomainForName("domain"), Object(Dictionary{{"key", Object("newer")}, {"other", Object("kept")}}));
}

TEST(UserDefaultsExchange, LetsTheExceptionOfItsDecisionOutAndGivesTheLockBack) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  EXPECT_THROW(defaults.exchange("key", [](const Object&) -> Object { throw std::runtime_error("undecided"); }), std::runtime_error);
  defaults.setObject_forKey("value", "key");
  EXPECT_TRUE(defaults.synchronize());
}

TEST(UserDefaultsExchange, LetsNoOtherWriterComeBetween) {
  useMemoryForTemporaryFolders();
  const TemporaryDirectory folder;
  const int each = longOrShort(300, 60);
  constexpr int kThreads = 3;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      UserDefaults defaults("domain", folder.path());
      for (int i = 0; i < each; ++i) {
        defaults.exchange("count", [](const Object& value) { return Object::numberWithLongLong(value.longLongValue() + 1); });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(UserDefaults("domain", folder.path()).objectForKey("count").longLongValue(), kThreads * each);
}

TEST(UserDefaultsThreads, ShareOneObjectAndOneFile) {
  useMemoryForTemporaryFolders();
  const TemporaryDirectory folder;
  UserDefaults first("domain", folder.path());
  UserDefaults second("domain", folder.path());
  const int rounds = longOrShort(200, 40);
  std::atomic<bool> done = false;
  std::vector<std::thread> threads;
  int name = 0;
  for (UserDefaults* defaults : {&first, &first, &second, &second}) {
    threads.emplace_back([&, defaults, key = "key" + std::to_string(name++)] {
      for (int i = 1; i <= rounds; ++i) {
        defaults->setObject_forKey(Object::numberWithLongLong(i), key);
        EXPECT_TRUE(defaults->synchronize());
        EXPECT_EQ(defaults->objectForKey(key), Object::numberWithLongLong(i));
      }
    });
  }
  std::thread reader([&] {
    UserDefaults defaults("domain", folder.path());
    while (!done) EXPECT_LE(defaults.persistentDomainForName("domain").count(), 4U);
  });
  for (auto& thread : threads) thread.join();
  done = true;
  reader.join();
  for (int i = 0; i < 4; ++i) EXPECT_EQ(first.objectForKey("key" + std::to_string(i)).longLongValue(), rounds);
}

}  // namespace
}  // namespace kestrine::test
