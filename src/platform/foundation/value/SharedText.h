#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace platform {

/// The text of an Object: immutable, shared between copies, and in one block of memory with its count of owners, so that a text costs one
/// allocation. A std::string of it is made for who asks for one, with the first question, and kept.
///
/// Threads: different copies may be used on different threads at once.
class SharedText {
 public:
  explicit SharedText(std::string_view text);
  /// Keeps the string as it is.
  explicit SharedText(std::string&& text);
  SharedText(const SharedText& other) noexcept;
  SharedText(SharedText&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  SharedText& operator=(SharedText other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~SharedText() {
    if (block_ != nullptr) release();
  }

  [[nodiscard]] std::string_view view() const noexcept;
  /// Stays where it is while a copy of this lives.
  [[nodiscard]] const std::string& string() const;

  friend bool operator==(const SharedText& a, const SharedText& b) noexcept { return a.block_ == b.block_ || a.view() == b.view(); }

 private:
  struct Block;
  void release() noexcept;

  /// Null only in what was moved from.
  Block* block_;
};

}  // namespace platform
