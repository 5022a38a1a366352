#pragma once

#include <atomic>

namespace kestrine::test {

/// What this test program's fsync(2) does: everything in it calls the one of FlushControl.cpp. Any thread.
struct FlushControl {
  static std::atomic<int> files;
  static std::atomic<int> folders;
  /// So many flushes of folders fail from now on, with EIO.
  static std::atomic<int> foldersToFail;

  static void reset() {
    files = 0;
    folders = 0;
    foldersToFail = 0;
  }
};

}  // namespace kestrine::test
