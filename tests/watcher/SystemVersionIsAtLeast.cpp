#include "watcher/systemVersionIsAtLeast.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

#include "watcher/FileWatcherServiceXPC.h"

namespace kestrine::test {
namespace {

void useSystemVersion(const std::string& version) { setenv("KESTRINE_SYSTEM_VERSION", version.c_str(), 1); }

class SystemVersionIsAtLeast : public testing::Test {
 protected:
  void TearDown() override { unsetenv("KESTRINE_SYSTEM_VERSION"); }
  bool isAtLeast(std::int32_t major, std::int32_t minor) { return version_.isAtLeast(major, minor); }

 private:
  KnownSystemVersion version_;
};

TEST_F(SystemVersionIsAtLeast, ComparesTheMajorVersionFirst) {
  useSystemVersion("11.0");
  EXPECT_TRUE(isAtLeast(10, 7));
  EXPECT_TRUE(isAtLeast(11, 0));
  EXPECT_FALSE(isAtLeast(11, 1));
  EXPECT_FALSE(isAtLeast(12, 0));
}

TEST_F(SystemVersionIsAtLeast, ComparesTheMinorVersionOfTheSameMajorVersion) {
  useSystemVersion("10.6.8");
  EXPECT_FALSE(isAtLeast(10, 7));
  EXPECT_TRUE(isAtLeast(10, 6));
  EXPECT_TRUE(isAtLeast(10, 5));
  EXPECT_TRUE(isAtLeast(9, 99));
}

TEST_F(SystemVersionIsAtLeast, IncludesTheVersionItself) {
  useSystemVersion("10.7.0");
  EXPECT_TRUE(isAtLeast(10, 7));
}

TEST_F(SystemVersionIsAtLeast, ComparesSignedNumbers) {
  useSystemVersion("10.7.0");
  EXPECT_TRUE(isAtLeast(-1, 7));
  EXPECT_TRUE(isAtLeast(10, std::numeric_limits<std::int32_t>::min()));
  EXPECT_FALSE(isAtLeast(10, std::numeric_limits<std::int32_t>::max()));
}

TEST_F(SystemVersionIsAtLeast, AsksOnceForAPartThatIsNotZero) {
  useSystemVersion("10.6.8");
  ASSERT_FALSE(isAtLeast(10, 7));
  useSystemVersion("10.9");
  EXPECT_FALSE(isAtLeast(10, 7));
  EXPECT_TRUE(KnownSystemVersion().isAtLeast(10, 7));
}

TEST_F(SystemVersionIsAtLeast, AsksAgainForAPartThatIsZero) {
  useSystemVersion("11.0");
  ASSERT_FALSE(isAtLeast(11, 3));
  useSystemVersion("12.4");
  EXPECT_TRUE(isAtLeast(11, 3));
  EXPECT_FALSE(isAtLeast(12, 0)) << "the major version was kept";
}

struct FlagsRow {
  const char* version;
  platform::FSEventStreamCreateFlags flags;
};

class WatchCreationFlagsDeathTest : public testing::TestWithParam<FlagsRow> {};

/// In a process of its own, since a process asks for its version once.
TEST_P(WatchCreationFlagsDeathTest, DependOnTheSystemsVersion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        useSystemVersion(GetParam().version);
        fmt::print(stderr, "flags {}\n", watchCreationFlags());
        std::exit(0);
      },
      testing::ExitedWithCode(0), "^flags " + std::to_string(GetParam().flags) + "\n$");
}

TEST(SystemVersionOfTheProcessDeathTest, IsAskedForOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        useSystemVersion("10.6.8");
        const bool first = systemVersionIsAtLeast(10, 7);
        useSystemVersion("10.9");
        std::exit(!first && !systemVersionIsAtLeast(10, 7) ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(FileWatcherServiceXPC, WatchCreationFlagsDeathTest,
                         testing::Values(FlagsRow{"10.5", 5}, FlagsRow{"10.5.8", 5}, FlagsRow{"10.6", 13}, FlagsRow{"10.6.8", 13},
                                         FlagsRow{"10.7", 29}, FlagsRow{"10.10.2", 29}, FlagsRow{"11.0", 29}, FlagsRow{"14.0", 29}));

}  // namespace
}  // namespace kestrine::test
