#include "platform/foundation/base/Result.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace platform {
namespace {

using Text = Result<std::string, int>;

TEST(Result, OfASuccessIsTheValue) {
  Text result = std::string("text");
  ASSERT_TRUE(result);
  EXPECT_TRUE(result.isOk());
  EXPECT_EQ(*result, "text");
  EXPECT_EQ(result->size(), 4U);
  result.value() += "s";
  const Text copy = result;
  EXPECT_EQ(copy.value(), "texts");
  EXPECT_EQ(copy->size(), 5U);
  EXPECT_EQ(*copy, "texts");
}

TEST(Result, OfAFailureIsTheError) {
  const Text result = 5;
  ASSERT_FALSE(result);
  EXPECT_FALSE(result.isOk());
  EXPECT_EQ(result.error(), 5);
}

TEST(Result, RefusesToGiveWhatItIsNot) {
  Text failure = 5;
  const Text success = std::string("text");
  EXPECT_THROW(static_cast<void>(failure.value()), std::bad_variant_access);
  EXPECT_THROW(static_cast<void>(*failure), std::bad_variant_access);
  EXPECT_THROW(static_cast<void>(failure->size()), std::bad_variant_access);
  EXPECT_THROW(static_cast<void>(success.error()), std::bad_variant_access);
}

TEST(Result, HandsOnWhatCanOnlyBeMoved) {
  using Owner = std::unique_ptr<int>;
  Result<Owner, std::string> made = std::make_unique<int>(3);
  const Owner owner = *std::move(made);
  EXPECT_EQ(*owner, 3);
  Result<int, Owner> refused = std::make_unique<int>(4);
  const Owner reason = std::move(refused).error();
  EXPECT_EQ(*reason, 4);
}

}  // namespace
}  // namespace platform
