#include "watcher/systemVersionIsAtLeast.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <string>

#include "watcher/FileWatcherServiceXPC.h"

namespace kestrine::test {
namespace {

void useSystemVersion(const std::string& version) { setenv("KESTRINE_SYSTEM_VERSION", version.c_str(), 1); }

/// Each case has a version of its own to know, since the process's may have been asked for by an earlier case.
class SystemVersion : public testing::Test {
 protected:
  void TearDown() override { unsetenv("KESTRINE_SYSTEM_VERSION"); }

  bool isAtLeast(std::int32_t major, std::int32_t minor) { return known_.isAtLeast(major, minor); }

  KnownSystemVersion known_;
};

TEST_F(SystemVersion, ComparesTheMajorVersionFirst) {
  useSystemVersion("11.0");
  EXPECT_TRUE(isAtLeast(10, 7));
  EXPECT_TRUE(isAtLeast(11, 0));
  EXPECT_FALSE(isAtLeast(11, 1));
  EXPECT_FALSE(isAtLeast(12, 0));
}

TEST_F(SystemVersion, ComparesTheMinorVersionOfTheSameMajorVersion) {
  useSystemVersion("10.6.8");
  EXPECT_FALSE(isAtLeast(10, 7));
  EXPECT_TRUE(isAtLeast(10, 6));
  EXPECT_TRUE(isAtLeast(10, 5));
  EXPECT_TRUE(isAtLeast(9, 99));
}

TEST_F(SystemVersion, IncludesTheVersionItself) {
  useSystemVersion("10.7.0");
  EXPECT_TRUE(isAtLeast(10, 7));
}

TEST_F(SystemVersion, ComparesSignedNumbers) {
  useSystemVersion("10.7.0");
  EXPECT_TRUE(isAtLeast(-1, 7));
  EXPECT_TRUE(isAtLeast(10, std::numeric_limits<std::int32_t>::min()));
  EXPECT_FALSE(isAtLeast(10, std::numeric_limits<std::int32_t>::max()));
}

TEST_F(SystemVersion, AsksOnceForAPartThatIsNotZero) {
  useSystemVersion("10.6.8");
  ASSERT_FALSE(isAtLeast(10, 7));
  useSystemVersion("10.9");
  EXPECT_FALSE(isAtLeast(10, 7));
  EXPECT_TRUE(KnownSystemVersion().isAtLeast(10, 7));
}

TEST_F(SystemVersion, AsksAgainForAPartThatIsZero) {
  useSystemVersion("11.0");
  ASSERT_FALSE(isAtLeast(11, 3));
  useSystemVersion("12.4");
  EXPECT_TRUE(isAtLeast(11, 3));
  EXPECT_FALSE(isAtLeast(12, 0)) << "the major version was kept";
}

TEST(SystemVersionIsAtLeast, IsAskedForOnceInTheProcess) {
  const bool first = systemVersionIsAtLeast(10, 7);
  setenv("KESTRINE_SYSTEM_VERSION", first ? "9.1" : "11.1", 1);
  EXPECT_EQ(systemVersionIsAtLeast(10, 7), first);
  EXPECT_TRUE(systemVersionIsAtLeast(0, 1));
  EXPECT_FALSE(systemVersionIsAtLeast(std::numeric_limits<std::int32_t>::max(), 0));
  unsetenv("KESTRINE_SYSTEM_VERSION");
}

struct FlagsRow {
  const char* version;
  platform::FSEventStreamCreateFlags flags;
};

class WatchCreationFlags : public SystemVersion, public testing::WithParamInterface<FlagsRow> {};

TEST_P(WatchCreationFlags, DependOnTheSystemsVersion) {
  useSystemVersion(GetParam().version);
  EXPECT_EQ(watchCreationFlags([this](std::int32_t major, std::int32_t minor) { return isAtLeast(major, minor); }), GetParam().flags);
}

INSTANTIATE_TEST_SUITE_P(FileWatcherServiceXPC, WatchCreationFlags,
                         testing::Values(FlagsRow{"10.5", 5}, FlagsRow{"10.5.8", 5}, FlagsRow{"10.6", 13}, FlagsRow{"10.6.8", 13},
                                         FlagsRow{"10.7", 29}, FlagsRow{"10.10.2", 29}, FlagsRow{"11.0", 29}, FlagsRow{"14.0", 29}));

}  // namespace
}  // namespace kestrine::test
