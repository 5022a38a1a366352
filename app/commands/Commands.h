#pragma once

#include "app/cli/Command.h"

namespace kestrine {

/// The sub-commands that start, stop and examine the service. Each stands in a file of its name.
extern const Command kStartCommand;
extern const Command kStopCommand;
extern const Command kStatusCommand;
extern const Command kFollowCommand;
extern const Command kDefaultsCommand;
extern const Command kEventsCommand;

}  // namespace kestrine
