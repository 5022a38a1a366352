#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/TrustedPath.h"

namespace platform {

/// A descriptor that log lines are written to without ever waiting long for it. A pipe that nobody empties, a full disk or a closed
/// descriptor costs lines, which are counted, and once a short wait. SIGPIPE must be blocked on the calling thread. One thread.
class DescriptorSink {
 public:
  explicit DescriptorSink(int descriptor) : descriptor_(descriptor) {}

  /// `line` ends with a line end. False when it was lost, or cut short.
  bool write(std::string_view line);

 private:
  bool writeAll(std::string_view text);
  /// False when the descriptor takes nothing and the patience for it is used up.
  bool waitUntilWritable();

  int descriptor_;
  /// The last wait was in vain: later lines do not wait until one goes through.
  bool stuck_ = false;
  bool midLine_ = false;
};

/// A file that lines are appended to and that is renamed to "<file>.old" before it would grow beyond its limit. It is one that no other
/// user can have put there (TrustedPath.h), and where something else than a file has its name, a pipe that nobody empties costs lines and
/// no time. One thread; one process a file.
class FileSink {
 public:
  /// An empty name: nothing is written.
  FileSink(std::string file, std::size_t limit) : file_(std::move(file)), limit_(limit) {}

  /// A line longer than the limit is cut. Returns why it could not be written, empty when it was.
  std::string write(std::string_view line);

 private:
  std::string open();
  std::string beginAnew();

  std::string file_;
  std::size_t limit_;
  /// Where the file really is; closed like `handle_` before it was opened.
  TrustedPlace place_;
  FileHandle handle_;
};

}  // namespace platform
