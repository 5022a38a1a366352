#include "platform/foundation/base/ApplicationIdentifier.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace platform {
namespace {

// Before any test has set it.
const std::string kAtFirst = applicationIdentifier();

TEST(ApplicationIdentifier, IsTheProgramsFileNameAtFirst) { EXPECT_EQ(kAtFirst, "foundation_tests"); }

TEST(ApplicationIdentifier, IsWhatWasSet) {
  setApplicationIdentifier("Ostrabyte.Something");
  EXPECT_EQ(applicationIdentifier(), "Ostrabyte.Something");
  setApplicationIdentifier("foundation_tests");
}

TEST(ApplicationIdentifier, MayBeReadWhileItIsSet) {
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 200; ++i) {
        setApplicationIdentifier("foundation_tests");
        EXPECT_EQ(applicationIdentifier(), "foundation_tests");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace platform
