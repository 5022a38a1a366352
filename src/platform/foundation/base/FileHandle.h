#pragma once

namespace platform {

/// Owns one file descriptor and closes it when destroyed. Shared through `std::shared_ptr` where an Object holds it.
/// Threads: the descriptor may be read from any thread; its owner decides the lifetime.
class FileHandle {
 public:
  /// Takes ownership of `descriptor`; -1 means none.
  explicit FileHandle(int descriptor = -1) noexcept : descriptor_(descriptor) {}
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;
  FileHandle(FileHandle&& other) noexcept : descriptor_(other.release()) {}
  FileHandle& operator=(FileHandle&& other) noexcept;
  ~FileHandle();

  [[nodiscard]] int fileDescriptor() const noexcept { return descriptor_; }
  [[nodiscard]] bool isOpen() const noexcept { return descriptor_ >= 0; }
  /// Gives the descriptor up to the caller.
  int release() noexcept;
  /// Closes it now.
  void closeFile() noexcept;

 private:
  int descriptor_;
};

}  // namespace platform
