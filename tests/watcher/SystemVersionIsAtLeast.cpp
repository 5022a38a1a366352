#include "watcher/systemVersionIsAtLeast.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <string>

#include "watcher/FileWatcherServiceXPC.h"

namespace kestrine::test {
namespace {

void useSystemVersion(const std::string& version) { setenv("KESTRINE_SYSTEM_VERSION", version.c_str(), 1); }

// Whoever runs all cases in one process must find no version that an earlier case left behind.
class SystemVersionIsAtLeast : public testing::Test {
 protected:
  void SetUp() override { resetSystemVersionCachesForTest(); }
  void TearDown() override {
    unsetenv("KESTRINE_SYSTEM_VERSION");
    resetSystemVersionCachesForTest();
  }
};

TEST_F(SystemVersionIsAtLeast, ComparesTheMajorVersionFirst) {
  useSystemVersion("11.0");
  EXPECT_TRUE(systemVersionIsAtLeast(10, 7));
  EXPECT_TRUE(systemVersionIsAtLeast(11, 0));
  EXPECT_FALSE(systemVersionIsAtLeast(11, 1));
  EXPECT_FALSE(systemVersionIsAtLeast(12, 0));
}

TEST_F(SystemVersionIsAtLeast, ComparesTheMinorVersionOfTheSameMajorVersion) {
  useSystemVersion("10.6.8");
  EXPECT_FALSE(systemVersionIsAtLeast(10, 7));
  EXPECT_TRUE(systemVersionIsAtLeast(10, 6));
  EXPECT_TRUE(systemVersionIsAtLeast(10, 5));
  EXPECT_TRUE(systemVersionIsAtLeast(9, 99));
}

TEST_F(SystemVersionIsAtLeast, IncludesTheVersionItself) {
  useSystemVersion("10.7.0");
  EXPECT_TRUE(systemVersionIsAtLeast(10, 7));
}

TEST_F(SystemVersionIsAtLeast, ComparesSignedNumbers) {
  useSystemVersion("10.7.0");
  EXPECT_TRUE(systemVersionIsAtLeast(-1, 7));
  EXPECT_TRUE(systemVersionIsAtLeast(10, std::numeric_limits<std::int32_t>::min()));
  EXPECT_FALSE(systemVersionIsAtLeast(10, std::numeric_limits<std::int32_t>::max()));
}

TEST_F(SystemVersionIsAtLeast, AsksOnceForAPartThatIsNotZero) {
  useSystemVersion("10.6.8");
  ASSERT_FALSE(systemVersionIsAtLeast(10, 7));
  useSystemVersion("10.9");
  EXPECT_FALSE(systemVersionIsAtLeast(10, 7));
  resetSystemVersionCachesForTest();
  EXPECT_TRUE(systemVersionIsAtLeast(10, 7));
}

TEST_F(SystemVersionIsAtLeast, AsksAgainForAPartThatIsZero) {
  useSystemVersion("11.0");
  ASSERT_FALSE(systemVersionIsAtLeast(11, 3));
  useSystemVersion("12.4");
  EXPECT_TRUE(systemVersionIsAtLeast(11, 3));
  EXPECT_FALSE(systemVersionIsAtLeast(12, 0)) << "the major version was kept";
}

struct FlagsRow {
  const char* version;
  platform::FSEventStreamCreateFlags flags;
};

class WatchCreationFlags : public SystemVersionIsAtLeast, public testing::WithParamInterface<FlagsRow> {};

TEST_P(WatchCreationFlags, DependOnTheSystemsVersion) {
  useSystemVersion(GetParam().version);
  EXPECT_EQ(watchCreationFlags(), GetParam().flags);
}

INSTANTIATE_TEST_SUITE_P(FileWatcherServiceXPC, WatchCreationFlags,
                         testing::Values(FlagsRow{"10.5", 5}, FlagsRow{"10.5.8", 5}, FlagsRow{"10.6", 13}, FlagsRow{"10.6.8", 13},
                                         FlagsRow{"10.7", 29}, FlagsRow{"10.10.2", 29}, FlagsRow{"11.0", 29}, FlagsRow{"14.0", 29}));

}  // namespace
}  // namespace kestrine::test
