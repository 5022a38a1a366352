#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/log/LogQueue.h"
#include "platform/foundation/log/LogSinks.h"

namespace platform {

/// The thread behind NSLog and all that it writes to. There is one in a process; it begins with the first line, sleeps on a condition
/// variable while there is nothing to write, and is never joined: the process's normal end waits for the lines instead. While the system
/// has no thread to give, each line goes straight to standard error, and the next one asks for the thread again.
class LogWriter {
 public:
  static LogWriter& shared();

  void log(std::string_view text);
  void setDestination(const LogDestination& destination);
  void flush(std::optional<int> limit);

 private:
  LogWriter() = default;
  void prepareOnce();
  /// Whether there is a writing thread, made now if there was none; not while the system has no thread to give.
  bool isServed() EXCLUDES(starting_);
  void run();
  void beWritingThread() const ASSERT_CAPABILITY(writing_) {}
  void write(const LogQueue::Batch& batch) REQUIRES(writing_);
  void writeLine(const LogLine& line) REQUIRES(writing_);
  void writeStandardError(std::string_view text) REQUIRES(writing_);
  void reportFileError(std::string reason) REQUIRES(writing_);

  LogQueue queue_;
  std::once_flag prepared_;
  Mutex starting_;
  std::atomic<bool> isServed_ = false;

  /// What only the writing thread touches.
  ThreadRole writing_;
  DescriptorSink standardError_ GUARDED_BY(writing_){2};
  std::uint64_t lostOnStandardError_ GUARDED_BY(writing_) = 0;
  FileSink file_ GUARDED_BY(writing_){{}, 0};
  std::string fileName_ GUARDED_BY(writing_);
  bool syslog_ GUARDED_BY(writing_) = false;
  std::string fileError_ GUARDED_BY(writing_);
};

}  // namespace platform
