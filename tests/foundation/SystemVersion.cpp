#include "platform/foundation/process/SystemVersion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

namespace platform {
namespace {

OperatingSystemVersion versionFor(const std::string& text) {
  setenv("KESTRINE_SYSTEM_VERSION", text.c_str(), 1);
  return systemVersion();
}

TEST(SystemVersion, IsACurrentReleaseByDefault) {
  unsetenv("KESTRINE_SYSTEM_VERSION");
  EXPECT_EQ(systemVersion(), (OperatingSystemVersion{14, 0, 0}));
}

TEST(SystemVersion, IsReadFromTheEnvironmentAnewAtEachCall) {
  EXPECT_EQ(versionFor("10.7.5"), (OperatingSystemVersion{10, 7, 5}));
  EXPECT_EQ(versionFor("10.10"), (OperatingSystemVersion{10, 10, 0}));
  EXPECT_EQ(versionFor("13"), (OperatingSystemVersion{13, 0, 0}));
  EXPECT_EQ(versionFor("10.06.08"), (OperatingSystemVersion{10, 6, 8}));
}

TEST(SystemVersion, IsTheDefaultForATextThatIsNone) {
  for (const char* text :
       {"", ".", "10.", ".7", "10..7", "10.7.5.1", "ten", "10.7x", " 10.7", "10.7 ", "-1.0", "10.-7", "+10", "1000", "10.7.99999999999"}) {
    EXPECT_EQ(versionFor(text), (OperatingSystemVersion{14, 0, 0})) << "\"" << text << "\"";
  }
}

/// In a process of its own, since what is said once is said by whoever asks first.
TEST(SystemVersionDeathTest, SaysOnceThatATextIsNone) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        for (const char* text : {"Lion", "Lion", "Tiger"}) versionFor(text);
        std::exit(0);
      },
      testing::ExitedWithCode(0), "^[^\n]*KESTRINE_SYSTEM_VERSION is no version: \"Lion\"; taken as 14\\.0\\.0\n$");
}

TEST(AppKitVersionNumber, RoundsDownToTheReleasesNumber) {
  struct Case {
    OperatingSystemVersion version;
    double floor;
  };
  const std::vector<Case> cases = {
      {{10, 6, 0}, 1038},  {{10, 6, 8}, 1038},  {{10, 7, 0}, 1138},  {{10, 7, 5}, 1138},  {{10, 7, 99}, 1138},
      {{10, 8, 5}, 1187},  {{10, 9, 5}, 1265},  {{10, 10, 0}, 1343}, {{10, 10, 5}, 1343}, {{10, 11, 6}, 1404},
      {{10, 12, 6}, 1504}, {{10, 13, 6}, 1561}, {{10, 14, 6}, 1671}, {{10, 15, 7}, 1894}, {{11, 0, 0}, 2022},
      {{11, 7, 10}, 2022}, {{12, 6, 0}, 2113},  {{13, 4, 1}, 2299},  {{14, 0, 0}, 2487},  {{14, 5, 2}, 2487},
  };
  for (const Case& c : cases) {
    const double number = appKitVersionNumber(c.version);
    EXPECT_EQ(std::floor(number), c.floor) << c.version.major << "." << c.version.minor << "." << c.version.patch;
  }
  EXPECT_EQ(appKitVersionNumber({10, 7, 0}), 1138.0);
  EXPECT_GT(appKitVersionNumber({10, 7, 5}), 1138.0);
}

TEST(AppKitVersionNumber, OfAnOlderReleaseIsBelowTheTable) {
  for (const OperatingSystemVersion version : {OperatingSystemVersion{10, 5, 8}, {10, 0, 0}, {9, 2, 2}, {0, 0, 0}, {-1, -1, -1}}) {
    EXPECT_LT(appKitVersionNumber(version), 1038);
    EXPECT_GE(appKitVersionNumber(version), 0);
  }
}

TEST(AppKitVersionNumber, GrowsWithTheVersion) {
  double last = 0;
  for (const int major : {10, 11, 12, 13, 14, 15, 16, 26}) {
    for (int minor = 0; minor <= 20; ++minor) {
      for (const int patch : {0, 1, 2, 5, 9, 10, 50}) {
        const double number = appKitVersionNumber({major, minor, patch});
        EXPECT_GT(number, last) << major << "." << minor << "." << patch;
        last = number;
      }
    }
  }
}

TEST(AppKitVersionNumber, NeverReachesTheNextRelease) {
  EXPECT_LT(appKitVersionNumber({10, 7, 1000000}), 1139);
  EXPECT_LT(appKitVersionNumber({10, 1000000, 1000000}), 2022);
  EXPECT_LT(appKitVersionNumber({13, 1000000, 1000000}), 2300);
  EXPECT_GT(appKitVersionNumber({15, 0, 0}), 2488);
}

}  // namespace
}  // namespace platform
