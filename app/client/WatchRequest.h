#pragma once

#include <chrono>

#include "app/client/WatchStart.h"

namespace kestrine {

/// Asks the service once to watch the base folder of the preferences, starting it where it does not run, and waits for its answer, which
/// it gives in its status. Asks nothing where a watch of that very folder stands, and waits for one that is being started by somebody else.
///
/// | state  | waits for                                  | it stands | it failed   | it is gone                     | the service ends or
/// is not to be had |
/// |--------|--------------------------------------------|-----------|-------------|--------------------------------|--------------------------------------|
/// | Joined | the watch that somebody else asked for     | Watching  | NotWatching | Asked: went with whoever asked | NoService | | Asked
/// | a watch later than those that were there   | Watching  | NotWatching | -                              | NoService |
///
/// Either ends with TimedOut at the limit. Blocks. Any thread.
WatchStart requestWatch(std::chrono::milliseconds limit);

}  // namespace kestrine
