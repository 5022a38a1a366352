#pragma once

#include <span>
#include <string_view>

namespace kestrine {

/// What the `kestrine` command ends with, for scripts. The numbers are final: scripts depend on them.
enum class ExitCode : int {
  Ok = 0,
  Failed = 1,
  Usage = 2,
  NotRunning = 3,
  NotWatching = 4,
  UnusableBase = 5,
  TimedOut = 6,
  NoService = 7,
  NotFound = 8,
  Damaged = 9,
};

/// An exit code and when a command gives it.
struct ExitNote {
  ExitCode code;
  std::string_view meaning;
};

/// Every exit code with its general meaning, in order.
std::span<const ExitNote> exitCodes();

}  // namespace kestrine
