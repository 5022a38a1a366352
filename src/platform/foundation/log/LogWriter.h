#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "platform/foundation/log/LogQueue.h"
#include "platform/foundation/log/LogSinks.h"

namespace platform {

/// The thread behind NSLog and all that it writes to. There is one in a process; it begins with the first line, sleeps on a condition
/// variable while there is nothing to write, and is never joined: the process's normal end waits for the lines instead.
class LogWriter {
 public:
  static LogWriter& shared();

  void log(std::string_view text);
  void setDestination(const LogDestination& destination);
  void flush(std::optional<int> limit);

 private:
  LogWriter() = default;
  void startOnce();
  void run();
  void write(const LogQueue::Batch& batch);
  void writeLine(const LogLine& line);
  void writeStandardError(std::string_view text);
  void reportFileError(int error);

  LogQueue queue_;
  std::once_flag started_;

  // The writing thread's own.
  DescriptorSink standardError_{2};
  std::uint64_t lostOnStandardError_ = 0;
  FileSink file_{{}, 0};
  std::string fileName_;
  bool syslog_ = false;
  int fileError_ = 0;
};

}  // namespace platform
