#pragma once

#include <sys/types.h>

#include <cstddef>

namespace kestrine::test {

/// What a process uses at this moment, from /proc (proc(5)). A figure that cannot be read is 0.
struct ProcessFigures {
  /// Kilobytes: what belongs to it alone and to no file, and all that is in memory.
  std::size_t anonymous = 0;
  std::size_t resident = 0;
  std::size_t descriptors = 0;
  std::size_t threads = 0;
  /// Watches and marks that the kernel holds for it.
  std::size_t kernelMarks = 0;
};

ProcessFigures figuresOf(pid_t process);

}  // namespace kestrine::test
