#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace platform {

/// A universally unique identifier of 16 bytes in network order (RFC 4122). A value.
class UUID {
 public:
  using Bytes = std::array<std::uint8_t, 16>;

  /// All bytes zero.
  UUID() = default;
  explicit UUID(const Bytes& bytes) : bytes_(bytes) {}
  /// A new random UUID (version 4).
  static UUID random();

  [[nodiscard]] const Bytes& bytes() const noexcept { return bytes_; }
  /// 36 characters, hexadecimal in upper case with hyphens.
  [[nodiscard]] std::string string() const;

  // NOLINTNEXTLINE(modernize-use-nullptr): takes the 0 of a rewritten comparison for a pointer
  friend auto operator<=>(const UUID&, const UUID&) = default;

 private:
  Bytes bytes_{};
};

}  // namespace platform
