#pragma once

#include <string>
#include <string_view>

namespace platform {

/// A text of somebody else's for a line of the log or a terminal: control characters, line ends among them, and bytes that are no UTF-8
/// stand there as "\012", so that it is one line, begins none of its own and does nothing to who reads it. Everything else stays.
std::string printable(std::string_view text);

}  // namespace platform
