// A lock that is not given back: who writes is told after a bounded time, who reads waits for nobody.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "platform/foundation/log/Log.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "tests/foundation/PreferencesLimitsFor.h"
#include "tests/foundation/UserDefaultsHelper.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::Object;
using platform::UserDefaults;
using std::chrono::milliseconds;
using Kind = platform::PreferencesError::Kind;

/// A process that took the lock and was stopped, with the domain "locked" holding "old" under "key".
class StoppedHolder {
 public:
  StoppedHolder() {
    UserDefaults defaults("locked", folder_.path());
    defaults.setObject_forKey("old", "key");
    EXPECT_TRUE(defaults.synchronize());
    helper_ = startHelper({.name = "stopWithTheLock", .folder = folder_.path()});
    EXPECT_TRUE(helper_->waitForOutput("holding")) << helper_->errorOutput();
  }
  [[nodiscard]] const std::string& folder() const { return folder_.path(); }
  [[nodiscard]] Process& process() { return *helper_; }

 private:
  const TemporaryDirectory folder_;
  std::unique_ptr<Process> helper_;
};

TEST(UserDefaultsLock, IsWaitedForNoLongerThanItsBound) {
  const LimitsInForce limits({.lock = milliseconds(400), .lockSaid = milliseconds(100)});
  StoppedHolder holder;
  testing::internal::CaptureStderr();
  UserDefaults defaults("locked", holder.folder());
  defaults.setObject_forKey("new", "key");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(400));
  const std::string who = "process " + std::to_string(holder.process().pid()) + " (";
  ASSERT_TRUE(defaults.lastError());
  EXPECT_EQ(defaults.lastError()->kind, Kind::Locked);
  EXPECT_THAT(defaults.lastError()->reason, testing::HasSubstr(who));
  EXPECT_FALSE(defaults.removePersistentDomainForName("locked"));
  bool failed = false;
  EXPECT_EQ(defaults.exchange(
                "key", [](const Object&) { return Object("exchanged"); }, &failed),
            Object("old"));
  EXPECT_TRUE(failed);
  platform::flushLog();
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, testing::HasSubstr("Waiting for the lock of the preferences " + holder.folder() + "/locked.plist, which " + who));
  EXPECT_THAT(log, testing::HasSubstr("which is stopped) has"));

  holder.process().signal(SIGCONT);
  EXPECT_EQ(holder.process().wait(), 0) << holder.process().output();
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_FALSE(defaults.lastError());
  EXPECT_EQ(UserDefaults("locked", holder.folder()).objectForKey("key"), Object("new"));
}

TEST(UserDefaultsLock, IsWaitedForLessLongWhenThatWasInVain) {
  constexpr milliseconds kBound(600);
  const LimitsInForce limits({.lock = kBound, .lockSaid = kPatience});
  StoppedHolder holder;
  UserDefaults defaults("locked", holder.folder());
  defaults.setObject_forKey("new", "key");
  EXPECT_FALSE(defaults.synchronize());
  auto shortest = std::chrono::steady_clock::duration::max();
  for (int i = 0; i < 10; ++i) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(defaults.synchronize());
    shortest = std::min(shortest, std::chrono::steady_clock::now() - begin);
  }
  EXPECT_LT(shortest, kBound);
  holder.process().signal(SIGCONT);
  EXPECT_EQ(holder.process().wait(), 0);
  EXPECT_TRUE(defaults.synchronize());
}

TEST(UserDefaultsLock, IsNotWaitedForByReadersOfTheSameObject) {
  const LimitsInForce limits({.lock = kPatience});
  StoppedHolder holder;
  UserDefaults defaults("locked", holder.folder());
  defaults.setObject_forKey("new", "pending");
  std::atomic<bool> isDone = false;
  std::thread writer([&] {
    EXPECT_TRUE(defaults.synchronize());
    isDone = true;
  });
  // The writer cannot end before the holder goes on, so each of these is answered while it waits or before it does.
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(defaults.objectForKey("key"), Object("old"));
    EXPECT_EQ(defaults.objectForKey("pending"), Object("new"));
    EXPECT_EQ(defaults.persistentDomainForName("locked").count(), 1U);
  }
  EXPECT_FALSE(isDone);
  holder.process().signal(SIGCONT);
  writer.join();
  EXPECT_EQ(UserDefaults("locked", holder.folder()).objectForKey("pending"), Object("new"));
}

TEST(UserDefaultsLock, OfAThreadIsWaitedForNoLongerThanItsBound) {
  const LimitsInForce limits({.lock = milliseconds(300)});
  StoppedHolder holder;
  UserDefaults defaults("locked", holder.folder());
  std::vector<std::thread> writers;
  std::atomic<int> refused = 0;
  for (const char* key : {"a", "b", "c"}) {
    writers.emplace_back([&, key] {
      defaults.setObject_forKey("new", key);
      if (!defaults.synchronize()) ++refused;
    });
  }
  for (auto& writer : writers) writer.join();
  EXPECT_EQ(refused, 3);
}

TEST(UserDefaultsLock, IsNotHeldByAChildThatItsHolderLeftBehind) {
  const TemporaryDirectory folder;
  const auto helper = startHelper({.name = "forkWithTheLock", .folder = folder.path()});
  ASSERT_TRUE(helper->waitForOutput("forked\n")) << helper->output() << helper->errorOutput();
  const pid_t child = std::atoi(helper->output().c_str());
  ASSERT_GT(child, 1);
  helper->signal(SIGKILL);
  EXPECT_EQ(helper->wait(), 128 + SIGKILL);
  EXPECT_EQ(kill(child, 0), 0) << "the child has gone too";
  UserDefaults defaults("locked", folder.path());
  defaults.setObject_forKey("new", "key");
  EXPECT_TRUE(defaults.synchronize()) << defaults.lastError()->reason;
  kill(child, SIGKILL);
}

}  // namespace
}  // namespace kestrine::test
