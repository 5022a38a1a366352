#pragma once

#include <string>
#include <string_view>

namespace platform {

/// Writes one line to the system log: standard error in the platform's log-line form ("2026-11-21 08:38:00.123 name[pid:thread] text"),
/// and whatever else `LogDestination` names. Returns at once: a thread of the log's own writes, and what does not fit its bounded queue is
/// counted and said in a line of its own. Text may hold line ends. Any thread.
void NSLog(std::string_view text);

/// Where the log goes besides standard error. Set once at the start of a process.
struct LogDestination {
  bool syslog = false;
  /// A file that is kept below `fileLimit` bytes (it is renamed to "<file>.old" and begun anew); empty for none.
  std::string file;
  std::size_t fileLimit = 4U << 20U;
};
void setLogDestination(const LogDestination& destination);

/// Returns when every line logged before the call has been written. Any thread.
void flushLog();

}  // namespace platform
