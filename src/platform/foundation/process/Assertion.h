#pragma once

#include <functional>
#include <string>

namespace platform {

/// A failed assertion: where it stands and what it says.
struct AssertionFailure {
  std::string function;
  std::string file;
  int line = 0;
  std::string description;
  /// The object whose method asserts, for handlers that want to look at it; null where nobody said.
  const void* object = nullptr;
};

/// What a failed assertion calls. The default logs the failure and throws Exception(NSInternalInconsistencyException); a handler may also
/// return, and the code after the assertion then runs.
using AssertionHandler = std::function<void(const AssertionFailure&)>;

/// Replaces the process's handler and returns the former one; an empty handler restores the default. Any thread.
AssertionHandler setAssertionHandler(AssertionHandler handler);
/// Calls the handler in force.
void handleFailure(const AssertionFailure& failure);

}  // namespace platform

/// Calls the handler when `condition` is false. `text` is a std::string.
#define PLATFORM_ASSERT(condition, text)                                                 \
  do {                                                                                   \
    if (!(condition)) ::platform::handleFailure({__func__, __FILE__, __LINE__, (text)}); \
  } while (false)
