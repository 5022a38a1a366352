#pragma once

#include <string>
#include <string_view>

#include "app/call/CallOperation.h"

namespace kestrine {

/// "RestStatusSuccess" for 0.
std::string_view statusName(RestTaskStatus status);

/// Line by line for people: the status, the error, and each property as a JSON value, or the word unset.
std::string answerText(const CallAnswer& answer);

/// One JSON object for programs: "operation", "status" (number), "statusName", and "error" or "result" where there is one. What is unset is
/// left out of the result.
std::string answerJSON(const CallOperation& operation, const CallAnswer& answer);

}  // namespace kestrine
