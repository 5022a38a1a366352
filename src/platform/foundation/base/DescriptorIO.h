#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/foundation/base/Result.h"

namespace platform {

/// Reads from the descriptor's place to its end, but not (much) further than `limit` bytes: a text that is longer than `limit` says that
/// there was more. Goes on after an interruption. An errno value when it fails, EAGAIN included. Any thread.
Result<std::string, int> readAll(int descriptor, std::size_t limit);

/// Writes all of it, however many calls that takes; goes on after an interruption. 0, or an errno value (EAGAIN included), and then some of
/// it may have been written. Any thread.
[[nodiscard]] int writeAll(int descriptor, std::string_view bytes);

}  // namespace platform
