#pragma once

#include <string>

namespace platform {

/// What an error number of a system call means, in the C library's words: "No such file or directory". Any thread.
std::string errnoText(int number);

}  // namespace platform
