#pragma once

#include <atomic>
#include <functional>

namespace kestrine::test {

/// What this test program's fsync(2) does: everything in it calls the one of FlushControl.cpp. Any thread.
struct FlushControl {
  static std::atomic<int> files;
  static std::atomic<int> folders;
  /// So many flushes of folders fail from now on, with EIO.
  static std::atomic<int> foldersToFail;

  /// Called once, before a file is flushed; what happens on disk meanwhile. Whoever sets it keeps it. A pointer, since the jobs of the
  /// second process (UserDefaultsHelper.cpp) flush before other files' variables are made, and forked children before they could be.
  static std::atomic<const std::function<void()>*> beforeFile;

  static void reset() {
    beforeFile = nullptr;
    files = 0;
    folders = 0;
    foldersToFail = 0;
  }
};

}  // namespace kestrine::test
