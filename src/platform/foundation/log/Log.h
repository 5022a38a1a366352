#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace platform {

/// Writes one line to the system log: standard error in the platform's log-line form ("2026-11-21 08:38:00.123 name[pid:thread] text",
/// local time), and whatever else `LogDestination` names. Returns at once: a thread of the log's own writes, and what does not fit its
/// bounded queue (4096 lines, 4 MiB) is counted and said in a line of its own, "dropped N log lines". Text may hold line ends. Any thread.
///
/// While the system has no thread to give, lines go straight to standard error and nowhere else; it never throws for want of one.
///
/// A standard error that nobody reads, or that is closed, costs the lines that it does not take within a second and nothing else: the
/// writing thread has SIGPIPE blocked. What happens to the process's own writes is the process's business.
///
/// The process's normal end (exit, or the return of main) waits for the lines for a few seconds; _exit and a deadly signal lose what is
/// queued. A child made by fork without exec has no writing thread: its lines go straight to standard error and nowhere else, and its
/// flushLog returns at once.
void NSLog(std::string_view text);

/// Where the log goes besides standard error. Set once at the start of a process.
struct LogDestination {
  /// syslog(3) too, as LOG_USER and LOG_NOTICE.
  bool syslog = false;
  /// A file that is kept below `fileLimit` bytes (it is renamed to "<file>.old" and begun anew); empty for none. One process a file.
  std::string file;
  std::size_t fileLimit = 4U << 20U;
};
void setLogDestination(const LogDestination& destination);

/// Whether standard error is already connected to the journal, as $JOURNAL_STREAM tells (systemd.exec(5)): syslog would repeat each line
/// there.
bool standardErrorIsTheJournal();

/// Returns when every line logged before the call has been written. Any thread.
void flushLog();
/// The same for a process that is about to end, which waits a second at most for a disk or a reader that takes none.
void flushLogAtEnd();

}  // namespace platform
