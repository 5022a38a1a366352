#pragma once

#include <functional>
#include <string_view>

namespace platform {

/// Runs `block`. An exception that leaves it, of whatever type, ends here: the log says `where`, ": " and what it was. `where` reads as
/// "an exception left a handler of a URL task". False when there was one. Any thread.
bool runContained(std::string_view where, const std::function<void()>& block);

}  // namespace platform
