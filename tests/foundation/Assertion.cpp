#include "platform/foundation/process/Assertion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "platform/foundation/base/Exception.h"
#include "tests/foundation/CapturedStandardError.h"

namespace platform {
namespace {

/// Puts the default back when a test is over.
struct RestoredHandler {
  ~RestoredHandler() { setAssertionHandler({}); }
};

TEST(Assertion, ThatHoldsCallsNobodyAndEvaluatesOnce) {
  const RestoredHandler restored;
  int calls = 0;
  int evaluations = 0;
  setAssertionHandler([&](const AssertionFailure&) { ++calls; });
  const auto holds = [&] { return ++evaluations > 0; };
  PLATFORM_ASSERT(holds(), std::string("never said"));
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(evaluations, 1) << "evaluated more than once";
}

TEST(Assertion, TellsTheHandlerWhereItStandsAndGoesOnWhenThatReturns) {
  const RestoredHandler restored;
  std::optional<AssertionFailure> failure;
  setAssertionHandler([&](const AssertionFailure& told) { failure = told; });
  const int line = __LINE__ + 1;
  PLATFORM_ASSERT(false, std::string("what it says"));
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->line, line);
  EXPECT_EQ(failure->file, __FILE__);
  EXPECT_EQ(failure->function, "TestBody");
  EXPECT_EQ(failure->description, "what it says");
}

TEST(Assertion, LogsAndThrowsByDefault) {
  const CapturedStandardError captured;
  try {
    handleFailure({"currentStatus", "Some/File", 256, "nothing to ask"});
    ADD_FAILURE() << "nothing was thrown";
  } catch (const Exception& exception) {
    EXPECT_EQ(exception.name(), "NSInternalInconsistencyException");
    EXPECT_EQ(exception.reason(), "nothing to ask");
  }
  EXPECT_THAT(captured.text(), testing::HasSubstr("*** Assertion failure in currentStatus, Some/File:256: nothing to ask\n"));
}

TEST(Assertion, AnEmptyHandlerRestoresTheDefault) {
  const RestoredHandler restored;
  const CapturedStandardError captured;
  setAssertionHandler([](const AssertionFailure&) {});
  setAssertionHandler({});
  EXPECT_THROW(handleFailure({}), Exception);
}

TEST(Assertion, ReplacingTheHandlerReturnsTheFormerOne) {
  const RestoredHandler restored;
  int first = 0;
  EXPECT_FALSE(setAssertionHandler([&](const AssertionFailure&) { ++first; }));
  const AssertionHandler former = setAssertionHandler([](const AssertionFailure&) {});
  ASSERT_TRUE(former);
  former({});
  EXPECT_EQ(first, 1);
}

TEST(Assertion, AHandlerMayReplaceItselfAndThrow) {
  const RestoredHandler restored;
  setAssertionHandler([](const AssertionFailure& failure) {
    setAssertionHandler([](const AssertionFailure&) {});
    throw Exception("Mine", failure.description);
  });
  EXPECT_THROW(handleFailure({"f", "F", 1, "d"}), Exception);
  EXPECT_NO_THROW(handleFailure({"f", "F", 1, "d"}));
}

TEST(Exception, KeepsNameAndReason) {
  const Exception exception(NSRangeException, "too far");
  EXPECT_EQ(exception.name(), "NSRangeException");
  EXPECT_EQ(exception.reason(), "too far");
  EXPECT_STREQ(exception.what(), "too far");
  EXPECT_STREQ(NSInvalidArgumentException, "NSInvalidArgumentException");
  EXPECT_STREQ(NSInternalInconsistencyException, "NSInternalInconsistencyException");
}

}  // namespace
}  // namespace platform
