#include "util/ServicesUtilities.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace kestrine::test {
namespace {

struct NumberRow {
  double appKitVersionNumber;
  bool is10_7;
  bool isLessThan10_10;
};

class AppKitVersionNumber : public testing::TestWithParam<NumberRow> {};

TEST_P(AppKitVersionNumber, IsPlacedAmongTheReleasesByItsWholePart) {
  EXPECT_EQ(ServicesUtilities::is10_7(GetParam().appKitVersionNumber), GetParam().is10_7);
  EXPECT_EQ(ServicesUtilities::isLessThan10_10(GetParam().appKitVersionNumber), GetParam().isLessThan10_10);
}

INSTANTIATE_TEST_SUITE_P(ServicesUtilities, AppKitVersionNumber,
                         testing::Values(NumberRow{0, false, false}, NumberRow{1038, false, false}, NumberRow{1038.36, false, false},
                                         NumberRow{1137.999, false, false}, NumberRow{1138, true, true}, NumberRow{1138.3, true, true},
                                         NumberRow{1138.999, true, true}, NumberRow{1139, false, true}, NumberRow{1187, false, true},
                                         NumberRow{1265, false, true}, NumberRow{1342.999, false, true}, NumberRow{1343, false, false},
                                         NumberRow{1343.14, false, false}, NumberRow{2487, false, false}));

struct ReleaseRow {
  const char* version;
  bool is10_7;
  bool isLessThan10_10;
};

class Release : public testing::TestWithParam<ReleaseRow> {
 protected:
  void SetUp() override { setenv("KESTRINE_SYSTEM_VERSION", GetParam().version, 1); }
  void TearDown() override { unsetenv("KESTRINE_SYSTEM_VERSION"); }
};

TEST_P(Release, IsRecognisedFromTheSystemsVersion) {
  EXPECT_EQ(ServicesUtilities::is10_7(), GetParam().is10_7);
  EXPECT_EQ(ServicesUtilities::isLessThan10_10(), GetParam().isLessThan10_10);
}

INSTANTIATE_TEST_SUITE_P(ServicesUtilities, Release,
                         testing::Values(ReleaseRow{"10.6", false, false}, ReleaseRow{"10.6.8", false, false},
                                         ReleaseRow{"10.7", true, true}, ReleaseRow{"10.7.5", true, true}, ReleaseRow{"10.8", false, true},
                                         ReleaseRow{"10.9.5", false, true}, ReleaseRow{"10.10", false, false},
                                         ReleaseRow{"10.10.5", false, false}, ReleaseRow{"11.0", false, false},
                                         ReleaseRow{"14.3.1", false, false}));

TEST(ServicesUtilities, TakesACurrentReleaseWhereNoVersionIsChosen) {
  unsetenv("KESTRINE_SYSTEM_VERSION");
  EXPECT_FALSE(ServicesUtilities::is10_7());
  EXPECT_FALSE(ServicesUtilities::isLessThan10_10());
}

}  // namespace
}  // namespace kestrine::test
