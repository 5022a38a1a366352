#pragma once

#include <string>

namespace platform {

/// Names the calling thread, for debuggers and ps(1); the system takes 15 bytes. Asks the system nothing when it has that name already.
void nameThisThread(const std::string& name);

}  // namespace platform
