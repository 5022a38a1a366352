#pragma once

#include <cstddef>

namespace platform::xpc {

/// A share of what this process may have received and not yet dealt with, counted over all connections, so that peers together cannot use
/// up the process's descriptors or memory. Held by what was received, until its handler has returned.
///
/// Threads: a share belongs to one thread at a time; the totals may be asked for on any.
class ReceiveBudget {
 public:
  static constexpr std::size_t kMaximumDescriptors = 256;
  static constexpr std::size_t kMaximumBytes = std::size_t{128} << 20U;
  /// A connection that holds no more than this is not closed for what the others hold.
  static constexpr std::size_t kExemptBytes = std::size_t{64} << 10U;

  ReceiveBudget() = default;
  ReceiveBudget(std::size_t descriptors, std::size_t bytes);
  ReceiveBudget(ReceiveBudget&& other) noexcept;
  ReceiveBudget& operator=(ReceiveBudget&& other) noexcept;
  ReceiveBudget(const ReceiveBudget&) = delete;
  ReceiveBudget& operator=(const ReceiveBudget&) = delete;
  ~ReceiveBudget();

  [[nodiscard]] std::size_t descriptors() const { return descriptors_; }
  [[nodiscard]] std::size_t bytes() const { return bytes_; }
  /// Over all connections.
  [[nodiscard]] static std::size_t totalDescriptors();
  [[nodiscard]] static std::size_t totalBytes();

 private:
  std::size_t descriptors_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace platform::xpc
