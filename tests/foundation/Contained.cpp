#include "platform/foundation/log/Contained.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "platform/foundation/base/Exception.h"
#include "tests/foundation/CapturedStandardError.h"

namespace platform {
namespace {

using testing::EndsWith;

/// The log's line of a block that throws.
std::string lineOf(const std::function<void()>& block) {
  const CapturedStandardError captured;
  EXPECT_FALSE(runContained("an exception left a test", block));
  return captured.text();
}

TEST(Contained, SaysWhatWasThrown) {
  EXPECT_THAT(lineOf([] { throw Exception(NSRangeException, "beyond the end"); }),
              EndsWith("] an exception left a test: NSRangeException: beyond the end\n"));
  EXPECT_THAT(lineOf([] { throw std::runtime_error("a reason"); }), EndsWith("] an exception left a test: a reason\n"));
  EXPECT_THAT(lineOf([] { throw 5; }), EndsWith("] an exception left a test: of an unknown type\n"));
}

TEST(Contained, SaysNothingOfABlockThatEnds) {
  const CapturedStandardError captured;
  int runs = 0;
  EXPECT_TRUE(runContained("an exception left a test", [&runs] { ++runs; }));
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(captured.text(), "");
}

}  // namespace
}  // namespace platform
