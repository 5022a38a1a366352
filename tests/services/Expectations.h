#pragma once

#include <gtest/gtest.h>

#include "platform/foundation/base/Exception.h"
#include "tests/services/ExpectedKeys.h"

namespace kestrine::test {

/// Expects that `action` throws the platform's exception for a wrong argument.
template <class Action>
void expectInvalidArgument(const Action& action) {
  try {
    action();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
  }
}

/// Expects every property of an answer's record to be nil.
template <class Record>
void expectUnset(const Record& record) {
  for (const auto& [property, member, key] : readKeys<Record>()) EXPECT_TRUE((record.*member).isNil()) << property;
}

}  // namespace kestrine::test
