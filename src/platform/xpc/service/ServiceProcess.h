#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "platform/xpc/connection/Listener.h"

namespace platform::xpc {

/// What makes a process the service of a name. `main` calls `begin` before anything else and before it has a second thread. It is the
/// process itself, so there is one for as long as that lives and no object of it. Its parts have files of their own: SocketActivation,
/// ServiceLog, ServiceLocks, StatusSections, Termination.
/// Threads: `begin` and `serve` on the main thread.
class ServiceProcess {
 public:
  ServiceProcess() = delete;

  /// Sets the application identifier, the log's destination and the signals (SIGTERM ends the service in order, SIGPIPE and SIGXFSZ are
  /// ignored), takes the service's lock file and registers the status section "process" {pid, startedAt, identifier}. Ends the process with
  /// EX_TEMPFAIL (75) and a log line when another process is this service for longer than `formerProcessLimit`, and with EX_OSERR (71) when
  /// the lock file or socket cannot be had.
  static void begin(const std::string& identifier, std::chrono::milliseconds formerProcessLimit = std::chrono::seconds(10));

  /// What is to be done before the process ends, besides what the peers' handlers do: called once, on the main run loop, when SIGTERM has
  /// come. It must return by `limit`, which is before the process ends; nobody waits longer for it. Between `begin` and `serve`.
  static void setEndHandler(std::function<void(std::chrono::steady_clock::time_point limit)> handler);

  /// Serves until the process ends, running the main run loop (and so the main queue): peers reach `function` as a Listener's do. The
  /// listening socket is the one handed over (LISTEN_FDS), else one that the process binds itself.
  ///
  /// On SIGTERM the service stops accepting, removes its socket unless somebody else (systemd) made it, tells every peer's handler
  /// TerminationImminent, waits two seconds at most for the handlers and the end handler to return, and ends the process with status 0.
  [[noreturn]] static void serve(Listener::ConnectionFunction function);
};

}  // namespace platform::xpc
