#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/foundation/base/Error.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/network/message/Bytes.h"

namespace platform::network {

/// Gathers the body of a reply: in memory while it is small, in a file without a name when it grows. One thread at a time.
class BodyCollector {
 public:
  enum class Place { MemoryFirst, File };
  explicit BodyCollector(Place place) : place_(place) {}

  /// The error says that there is no room, or no file.
  std::optional<Error> append(std::span<const char> piece);
  [[nodiscard]] std::uint64_t length() const { return length_; }
  /// All of it; the collector is empty afterwards.
  Bytes takeBytes();
  /// All of it as an open file, an empty one when nothing came; nothing when there is none, because it cannot be made or the bytes are in
  /// memory.
  std::shared_ptr<const FileHandle> takeFile();

 private:
  std::optional<Error> openFile();
  [[nodiscard]] std::optional<Error> write(std::string_view bytes) const;

  const Place place_;
  std::string memory_;
  FileHandle file_;
  std::uint64_t length_ = 0;
};

}  // namespace platform::network
