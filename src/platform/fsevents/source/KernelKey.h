#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace platform::fsevents {

/// How the kernel names a marked folder: inotify's watch descriptor, or fanotify's file handle with the file system that it belongs to.
/// Bytes that only their source understands; a value, kept small because every folder of a tree holds one.
class KernelKey {
 public:
  /// A file handle has at most 128 bytes (MAX_HANDLE_SZ, name_to_handle_at(2)); the rest is the source's own.
  static constexpr std::size_t kCapacity = 128 + 4;

  KernelKey() noexcept {}  // NOLINT(modernize-use-equals-default): the bytes stay uninitialised on purpose

  void clear() noexcept { length_ = 0; }
  /// Appends; what does not fit is left out, which no caller can reach.
  void append(const void* bytes, std::size_t count) noexcept {
    if (count > kCapacity - length_) count = kCapacity - length_;
    std::memcpy(bytes_.data() + length_, bytes, count);
    length_ = static_cast<std::uint8_t>(length_ + count);
  }
  [[nodiscard]] std::string_view view() const noexcept { return {bytes_.data(), length_}; }
  [[nodiscard]] bool empty() const noexcept { return length_ == 0; }

 private:
  std::uint8_t length_ = 0;
  std::array<char, kCapacity> bytes_;
};

}  // namespace platform::fsevents
