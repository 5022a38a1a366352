#include "platform/foundation/files/HomeDirectory.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/foundation/files/Paths.h"

namespace platform {
namespace {

/// What the database says, asked by the simplest call there is; empty when it does not know this user.
std::string homeByDatabase() {
  const passwd* entry = getpwuid(geteuid());
  return entry != nullptr ? entry->pw_dir : "";
}

TEST(HomeDirectory, IsTheVariableWhenThatIsAbsolute) {
  setenv("HOME", "/some/home", 1);
  EXPECT_EQ(NSHomeDirectory(), "/some/home");
}

TEST(HomeDirectory, ComesFromThePasswordDatabaseOtherwise) {
  const std::string expected = homeByDatabase().empty() ? "/" : homeByDatabase();
  unsetenv("HOME");
  EXPECT_EQ(NSHomeDirectory(), expected);
  setenv("HOME", "", 1);
  EXPECT_EQ(NSHomeDirectory(), expected);
  setenv("HOME", "relative/home", 1);
  EXPECT_EQ(NSHomeDirectory(), expected);
}

TEST(HomeDirectory, OfANamedUserComesFromThePasswordDatabase) {
  const passwd* entry = getpwuid(0);
  if (entry == nullptr) GTEST_SKIP() << "left out: the home of a named user, because user 0 has no name here";
  setenv("HOME", "/not/this/one", 1);
  const std::string name = entry->pw_name;
  const std::string home = entry->pw_dir;
  EXPECT_EQ(stringByStandardizingPath("~" + name), home);
  EXPECT_EQ(stringByStandardizingPath("~" + name + "/a/"), stringByAppendingPathComponent(home, "a"));
}

}  // namespace
}  // namespace platform
