// What every test program begins with.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/Keeper.h"
#include "tests/support/Shortage.h"

int main(int count, char** arguments) {
  testing::InitGoogleMock(&count, arguments);
  // A list is no test.
  const auto keeper = testing::GTEST_FLAG(list_tests) ? nullptr : std::make_unique<kestrine::test::Keeper>();
  testing::UnitTest::GetInstance()->listeners().Append(new kestrine::test::ShortageListener);
  return RUN_ALL_TESTS();
}
