// A child of a process whose threads use the store has a store of its own.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/PreferencesLimitsFor.h"
#include "tests/foundation/UserDefaultsHelper.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::Object;
using platform::UserDefaults;

/// Runs `body` in a child made by fork; its result is the child's exit code. -1 when it has not ended in time, and was killed.
template <class Body>
int inChild(const Body& body, std::chrono::milliseconds limit = kPatience) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  int status = 0;
  const bool hasEnded = eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, limit);
  if (!hasEnded) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(UserDefaultsFork, GivesTheChildAStoreThatWorksWhateverItsParentsThreadsDid) {
#ifdef KESTRINE_ADDRESS_SANITIZED
  GTEST_SKIP() << "left out: a fork beside threads, because clang 14's AddressSanitizer leaves its allocator locked in the child";
#endif
  useMemoryForTemporaryFolders();
  const TemporaryDirectory folder;
  UserDefaults shared("forked", folder.path());
  std::vector<std::jthread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&, number](const std::stop_token& end) {
      UserDefaults own("forked", folder.path());
      for (int i = 0; !end.stop_requested(); ++i) {
        UserDefaults& defaults = number % 2 == 0 ? shared : own;
        defaults.setObject_forKey(Object::numberWithLongLong(i), "of thread " + std::to_string(number));
        defaults.synchronize();
        defaults.objectForKey("x");
        defaults.exchange("count", [](const Object& value) { return Object::numberWithLongLong(value.longLongValue() + 1); });
      }
    });
  }
  const int children = longOrShort(60, 15);
  for (int number = 0; number < children; ++number) {
    const int code = inChild([&] {
      const std::string key = "of child " + std::to_string(number);
      shared.setObject_forKey("value", key);
      if (!shared.synchronize()) return 2;
      if (!(shared.objectForKey(key) == Object("value"))) return 3;
      UserDefaults::standardUserDefaults().objectForKey("any");
      bool failed = false;
      UserDefaults fresh("forked", folder.path());
      fresh.exchange(
          key, [](const Object&) { return Object("exchanged"); }, &failed);
      return failed ? 4 : 0;
    });
    ASSERT_EQ(code, 0) << "child " << number;
  }
  threads.clear();
  UserDefaults reader("forked", folder.path());
  for (int number = 0; number < children; ++number)
    EXPECT_EQ(reader.objectForKey("of child " + std::to_string(number)), Object("exchanged"));
}

TEST(UserDefaultsFork, LeavesTheParentsPendingChangesToTheParent) {
  const TemporaryDirectory folder;
  UserDefaults defaults("forked", folder.path());
  defaults.setObject_forKey("on disk", "key");
  ASSERT_TRUE(defaults.synchronize());
  defaults.setObject_forKey("pending", "key");
  const int code = inChild([&] {
    if (!(defaults.objectForKey("key") == Object("on disk"))) return 2;
    defaults.setObject_forKey("of the child", "child");
    return defaults.synchronize() ? 0 : 3;
  });
  EXPECT_EQ(code, 0);
  UserDefaults reader("forked", folder.path());
  EXPECT_EQ(reader.objectForKey("key"), Object("on disk"));
  EXPECT_EQ(reader.objectForKey("child"), Object("of the child"));
  EXPECT_EQ(defaults.objectForKey("key"), Object("pending"));
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(reader.objectForKey("key"), Object("pending"));
}

TEST(UserDefaultsFork, WithinADecisionLeavesTheDecisionToTheParent) {
  const TemporaryDirectory folder;
  UserDefaults defaults("forked", folder.path());
  pid_t child = -1;
  bool failed = true;
  defaults.exchange(
      "key",
      [&](const Object&) {
        child = fork();
        return Object(child == 0 ? "of the child" : "of the parent");
      },
      &failed);
  if (child == 0) {
    UserDefaults fresh("forked", folder.path());
    fresh.setObject_forKey("works", "child");
    _exit(!failed || !fresh.synchronize() || !defaults.synchronize() ? 1 : 0);
  }
  EXPECT_FALSE(failed);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  UserDefaults reader("forked", folder.path());
  EXPECT_EQ(reader.objectForKey("key"), Object("of the parent"));
  EXPECT_EQ(reader.objectForKey("child"), Object("works"));
}

}  // namespace
}  // namespace kestrine::test
