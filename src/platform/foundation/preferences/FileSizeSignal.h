#pragma once

#include <csignal>

namespace platform {

/// While it stands, a write beyond the process's limit of file sizes (setrlimit(2)) fails with EFBIG and nothing else: the signal that
/// comes with it, which ends a process that does not expect it, is taken away. Used by one thread, for that thread.
class FileSizeSignalTaken {
 public:
  FileSizeSignalTaken() noexcept;
  ~FileSizeSignalTaken();
  FileSizeSignalTaken(const FileSizeSignalTaken&) = delete;
  FileSizeSignalTaken& operator=(const FileSizeSignalTaken&) = delete;

  /// A write has failed so: the signal is there.
  void exceeded() noexcept { isExceeded_ = true; }

 private:
  sigset_t former_;
  bool wasPending_;
  bool isExceeded_ = false;
};

}  // namespace platform
