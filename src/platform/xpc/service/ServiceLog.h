#pragma once

// Internal to the channel: where a service's log goes.
namespace platform::xpc {

/// Sends the log to standard error and to syslog, but not to syslog when standard error is the journal already; and to the file that the
/// launcher named (ServiceLogFile.h), whose folder is made. While the process has one thread.
void openServiceLog();

}  // namespace platform::xpc
