#pragma once

#include "platform/foundation/value/Object.h"

namespace kestrine {

/// The flag as it was found.
struct FlagReading {
  /// Nil when it was never written.
  platform::Object value;
  bool raised = false;
  /// It was raised and could not be reset; the log says why. The flag stays raised.
  bool resetFailed = false;
};

/// Looks at the flag and leaves it.
FlagReading readFlag();

/// Looks at the flag and, when it is raised, writes "0", as one step that no other writer comes between: a change that is made after this
/// call returned raises it again. Any thread, any number of processes; of several that take it, one gets it.
FlagReading takeFlag();

/// Raises it again, for a taker that could not hand on what it took. False, with the reason in the log, when it cannot be written.
bool putFlagBack();

}  // namespace kestrine
