#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>

namespace kestrine::bench {

/// A process that makes the changes which the watcher under measurement is to see; it costs the watcher no processor time.
/// Forked in the constructor, before the watcher has threads, and waiting there until it is told to begin.
class Writer {
 public:
  /// The child makes `files` files of a few bytes, named "f<number>" and spread evenly over the folders "d0" to "d<folders - 1>" of `path`.
  static Writer burst(const std::string& path, int files, int folders);
  /// The child makes one empty file in `path` each time it is told to begin, until this object is destroyed.
  static Writer singleFiles(const std::string& path);

  Writer(Writer&& other) noexcept;
  Writer& operator=(Writer&&) = delete;
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;
  ~Writer();

  /// Tells the child to make its burst or its next file. Does not wait.
  void begin();
  /// Readable when the child has ended.
  [[nodiscard]] int endDescriptor() const { return endDescriptor_; }
  [[nodiscard]] bool hasEnded() const;
  /// When the child was about to make its latest single file, in seconds of `now()`.
  [[nodiscard]] double changedAt() const { return changedAt_->load(); }

 private:
  Writer();
  /// Returns true in the child.
  bool fork();
  /// In the child: whether there is something to do.
  [[nodiscard]] bool waitForBegin() const;

  pid_t child_ = -1;
  int endDescriptor_ = -1;
  int command_[2] = {-1, -1};
  std::atomic<double>* changedAt_ = nullptr;
};

}  // namespace kestrine::bench
