#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "tests/fsevents/support/StreamTest.h"

namespace kestrine::test {

/// An event with the time of its delivery (CLOCK_MONOTONIC, nanoseconds).
struct TimedEvent {
  FSEvent event;
  std::int64_t time = 0;
};

/// A stream in a second process (the program StreamHelper.cpp beside the tests), for what cannot be done to the test's own: stopping it by
/// a signal, lowering its limits, changes by somebody else. The events wait in that process until they are asked for, so its handler is
/// never held up. Every call throws std::runtime_error when the process does not answer within a minute. Killed and reaped when destroyed.
/// Threads: one.
class StreamProcess {
 public:
  struct Options {
    std::vector<std::string> paths = {};  // none: no stream, only commands
    std::vector<std::string> exclusions = {};
    std::string source = "auto";
    platform::FSEventStreamCreateFlags flags = kFileEvents;
    double latency = 0.03;
    /// Lines of shell that run before the program in a user namespace of its own, as its root; empty for none.
    std::string inNamespace = {};
    /// Without the right to kernel queues of any length, which root has.
    bool hasOrdinaryQueue = false;
  };
  explicit StreamProcess(const Options& options);
  ~StreamProcess();
  StreamProcess(const StreamProcess&) = delete;
  StreamProcess& operator=(const StreamProcess&) = delete;

  /// What the stream said when it started: the source's name, or empty and `error()` says why not.
  [[nodiscard]] const std::string& source() const { return source_; }
  [[nodiscard]] const std::string& error() const { return error_; }

  [[nodiscard]] pid_t pid() const { return pid_; }
  /// SIGSTOP, and returns when the process has stopped; SIGCONT.
  void halt() const;
  void goOn() const;

  /// What was delivered since the last call, after a flush and without.
  std::vector<FSEvent> flush();
  std::vector<FSEvent> delivered();
  std::vector<TimedEvent> flushTimed();
  /// What is told, after a flush, of what `work` did while the process was halted, so that all of it was in the queue at once.
  std::vector<FSEvent> toldOf(const std::function<void()>& work);
  /// The same until `path` is told with all `flags`, or some seconds have passed: everything that was delivered.
  std::vector<FSEvent> until(const std::string& path, FSEventStreamEventFlags flags);
  /// Numbers of the stream's status: "foldersMarked", or the number of entries of "losses" and "unreadable".
  /// In all of the stream's regions.
  std::size_t foldersCompared();
  std::size_t statusNumber(const std::string& key);

  /// Changes made by that process.
  void write(const std::string& path);
  void makeFolder(const std::string& path);
  void move(const std::string& from, const std::string& to);

  /// What it wrote to its log so far.
  [[nodiscard]] std::string log() const;

  /// Whether this machine lets this user make user namespaces whose limits can be lowered; else why not.
  static std::string whyNoNamespaces();

 private:
  void send(const std::string& line) const;
  std::string line();
  std::vector<std::string> request(const std::string& line);
  std::vector<TimedEvent> timedEventsOf(const std::string& command);
  std::vector<FSEvent> eventsOf(const std::string& command);

  TemporaryDirectory folder_;
  pid_t pid_ = -1;
  platform::FileHandle input_;
  platform::FileHandle output_;
  std::string unread_;
  std::string source_;
  std::string error_;
};

/// Whether some event covers `path` (or asks for a rescan at or above it).
bool covered(const std::vector<FSEvent>& events, const std::string& path);
/// The flags of all events of `path` together.
FSEventStreamEventFlags flagsOf(const std::vector<FSEvent>& events, const std::string& path);

}  // namespace kestrine::test
