#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/foundation/base/Error.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Result.h"
#include "platform/foundation/value/Object.h"

namespace platform {

/// Bytes that are either in memory or in a file, so that a body of gigabytes costs no memory: the platform's data object for bodies of
/// requests and replies. (`Data` is the plain vector that an Object holds; `data()` makes one.)
///
/// A file is read through a descriptor and never mapped: a file that shrinks or goes away meanwhile is an error of the read, not a signal.
/// Bodies that this layer receives and snapshots lie in files without a name, which nobody else can change and which are gone with the
/// last copy of the value.
///
/// A value: immutable, cheap to copy (shared), any thread.
class Bytes {
 public:
  /// No bytes.
  Bytes() = default;
  explicit Bytes(std::string_view text);
  explicit Bytes(std::string text);
  explicit Bytes(const Data& data);

  /// The first `length` bytes of an open file, read where it is; whoever else may write it can spoil them.
  static Bytes ofDescriptor(std::shared_ptr<const FileHandle> file, std::uint64_t length);
  /// The regular file at `path` as it is now, without copying: what is read later is what it holds then. An error (of
  /// NSPOSIXErrorDomain) when it cannot be opened or is no regular file.
  static Result<Bytes, Error> dataWithContentsOfFile(const std::string& path);
  /// The same, but a copy of its own, made by the kernel (shared extents where the file system can): later changes, also an overwriting
  /// of `path` itself with these bytes, leave it alone.
  static Result<Bytes, Error> snapshotOfFile(const std::string& path);

  [[nodiscard]] std::uint64_t length() const;
  [[nodiscard]] bool empty() const { return length() == 0; }
  [[nodiscard]] bool isInMemory() const;

  /// Copies bytes from `offset` on into `room`; as many as there are and fit. Throws Exception(NSFileReadException) when the file does not
  /// hold any more what it held, or cannot be read.
  std::size_t read(std::uint64_t offset, std::span<char> room) const;
  /// All of it in memory; both throw like `read`.
  [[nodiscard]] std::string text() const;
  [[nodiscard]] Data data() const;

  /// Writes all of it to `path`, which is created with mode 0666 less the umask or overwritten in place, not atomically. Copied by the
  /// kernel when it lies in a file. The error says what failed; what was written until then stays.
  [[nodiscard]] std::optional<Error> writeToFile(const std::string& path) const;

  /// By content. Throws like `read` when both lie in files.
  friend bool operator==(const Bytes& a, const Bytes& b);

 private:
  struct File;
  std::shared_ptr<const std::string> memory_;
  std::shared_ptr<const File> file_;
};

/// The name of the exception for a file that could not be read as it was.
inline constexpr const char* NSFileReadException = "NSFileReadException";
/// The domain of errors of the system's own calls; the code is errno.
inline constexpr const char* NSPOSIXErrorDomain = "NSPOSIXErrorDomain";

}  // namespace platform
