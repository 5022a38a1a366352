#pragma once

#include <sys/types.h>

#include <cstddef>

namespace platform::xpc {

/// A share of what this process may have received and not yet dealt with, counted for each process that sends and over all of them, so that
/// peers together cannot use up the process's descriptors or memory, and none the share of the others. Held by what was received, until its
/// handler has returned or is inside its run loop.
///
/// | of                  | descriptors | bytes   | beyond it                                                      |
/// |---------------------|-------------|---------|----------------------------------------------------------------|
/// | one sending process | 256         | 128 MiB | its connection is closed                                       |
/// | all of them         | 512         | 256 MiB | is closed whose process has more than one frame's worth        |
/// | all of them         | 1024        | 512 MiB | the connection is closed                                       |
///
/// Threads: a share belongs to one thread at a time; the totals may be asked for on any.
class ReceiveBudget {
 public:
  static constexpr std::size_t kMaximumDescriptors = 256;
  static constexpr std::size_t kMaximumBytes = std::size_t{128} << 20U;
  /// A connection that holds no more than this is not closed for what the others hold.
  static constexpr std::size_t kExemptBytes = std::size_t{64} << 10U;

  ReceiveBudget() = default;
  /// `sender` is a process number; 0 for those that have none here.
  ReceiveBudget(pid_t sender, std::size_t descriptors, std::size_t bytes);
  ReceiveBudget(ReceiveBudget&& other) noexcept;
  ReceiveBudget& operator=(ReceiveBudget&& other) noexcept;
  ReceiveBudget(const ReceiveBudget&) = delete;
  ReceiveBudget& operator=(const ReceiveBudget&) = delete;
  ~ReceiveBudget();

  [[nodiscard]] std::size_t descriptors() const { return descriptors_; }
  [[nodiscard]] std::size_t bytes() const { return bytes_; }
  /// Whether there is more than the table allows for a connection of the sender's that holds this much of it.
  [[nodiscard]] static bool isTooMuch(pid_t sender, std::size_t descriptors, std::size_t bytes);
  /// Over all connections.
  [[nodiscard]] static std::size_t totalDescriptors();
  [[nodiscard]] static std::size_t totalBytes();

 private:
  pid_t sender_ = 0;
  std::size_t descriptors_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace platform::xpc
