#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace kestrine::bench {

/// The least that any watcher must do with the kernel, and nothing else: one watch per folder set in one walk on one thread, and a
/// queue that is read. No tables, no paths, no answer to races.
class Floor {
 public:
  virtual ~Floor() = default;
  static std::unique_ptr<Floor> fanotify();
  static std::unique_ptr<Floor> inotify();

  /// Sets a watch on every folder at and below `path`; returns how many.
  virtual std::size_t watch(const std::string& path) = 0;
  /// Reads the queue until it is empty; returns how many events there were.
  virtual std::size_t drain() = 0;

  [[nodiscard]] int descriptor() const { return descriptor_; }
  [[nodiscard]] bool hasOverflowed() const { return overflowed_; }

 protected:
  explicit Floor(int descriptor) : descriptor_(descriptor) {}
  int descriptor_;
  bool overflowed_ = false;
};

/// The names of the subfolders of an open folder, one after the other, each ended by a NUL, read by getdents64(2).
/// `buffer` is working space that outlives the call, so that a walk allocates it once.
std::string subfolders(int folder, std::vector<char>& buffer);

}  // namespace kestrine::bench
