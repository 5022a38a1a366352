#pragma once

#include <chrono>

#include "app/client/WatchStart.h"

namespace kestrine {

/// Asks the service once to watch the base folder of the preferences, starting it where it does not run, and waits for its answer, which
/// it gives in its status. Asks nothing where a watch of that very folder stands, and waits for one that is being started by somebody else.
/// Blocks. Any thread.
WatchStart requestWatch(std::chrono::milliseconds limit);

}  // namespace kestrine
