#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/log/Log.h"
#include "tests/support/TemporaryDirectory.h"

namespace platform {

/// While it lives, what this process writes to its standard error goes elsewhere. Begins and ends with the log flushed, so that no line of
/// another time is caught.
class RedirectedStandardError {
 public:
  explicit RedirectedStandardError(int to) {
    flushLog();
    saved_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (saved_ < 0 || dup2(to, STDERR_FILENO) < 0) throw std::runtime_error("standard error cannot be redirected");
  }
  ~RedirectedStandardError() {
    flushLog();
    dup2(saved_, STDERR_FILENO);
    close(saved_);
  }
  RedirectedStandardError(const RedirectedStandardError&) = delete;
  RedirectedStandardError& operator=(const RedirectedStandardError&) = delete;

 private:
  int saved_ = -1;
};

/// Catches the log in a file.
class CapturedStandardError {
 public:
  /// What was logged so far, all of it.
  [[nodiscard]] std::string text() const {
    flushLog();
    return kestrine::test::readFile(folder_ / "log");
  }

 private:
  static int fileIn(const kestrine::test::TemporaryDirectory& folder) {
    return open((folder / "log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  }

  kestrine::test::TemporaryDirectory folder_;
  FileHandle file_{fileIn(folder_)};
  RedirectedStandardError redirected_{file_.fileDescriptor()};
};

}  // namespace platform
