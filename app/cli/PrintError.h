#pragma once

#include <string_view>

namespace kestrine {

/// Writes `text` to standard error as it stands. What cannot be written is dropped: a message that nobody can read is no reason for a
/// command to end otherwise than it would. Any thread.
void printError(std::string_view text);

}  // namespace kestrine
