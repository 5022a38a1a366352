#include "platform/network/message/Bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/foundation/base/DescriptorIO.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/network/message/TemporaryFile.h"

namespace platform {

namespace {

/// A file up to this size is copied into memory, which is cheaper than a file of its own.
constexpr std::uint64_t kSmall = 64U << 10U;

Error systemError(int number, const std::string& what) { return {NSPOSIXErrorDomain, number, what + ": " + errnoText(number)}; }

struct Opened {
  std::shared_ptr<const FileHandle> file;
  std::uint64_t length = 0;
};

/// Without blocking on what is no regular file, such as a pipe.
Result<Opened, Error> openRegular(const std::string& path) {
  FileHandle file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file.isOpen() || fstat(file.fileDescriptor(), &status) != 0) return systemError(errno, path);
  if (!S_ISREG(status.st_mode)) return systemError(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, path);
  return Opened{std::make_shared<const FileHandle>(std::move(file)), static_cast<std::uint64_t>(status.st_size)};
}

}  // namespace

struct Bytes::File {
  std::shared_ptr<const FileHandle> handle;
  std::uint64_t length = 0;
};

Bytes::Bytes(std::string_view text) : Bytes(std::string(text)) {}
Bytes::Bytes(std::string text) : memory_(std::make_shared<const std::string>(std::move(text))) {}
Bytes::Bytes(const Data& data) : Bytes(std::string(reinterpret_cast<const char*>(data.data()), data.size())) {}

Bytes Bytes::ofDescriptor(std::shared_ptr<const FileHandle> file, std::uint64_t length) {
  Bytes bytes;
  bytes.file_ = std::make_shared<const File>(File{std::move(file), length});
  return bytes;
}

Result<Bytes, Error> Bytes::dataWithContentsOfFile(const std::string& path) {
  auto opened = openRegular(path);
  if (!opened) return std::move(opened).error();
  return ofDescriptor(std::move(opened->file), opened->length);
}

Result<Bytes, Error> Bytes::snapshotOfFile(const std::string& path) {
  const auto opened = openRegular(path);
  if (!opened) return opened.error();
  const auto there = ofDescriptor(opened->file, opened->length);
  if (opened->length <= kSmall) {
    try {
      return Bytes(there.text());
    } catch (const Exception&) {
      return systemError(ENODATA, path);
    }
  }
  auto copy = network::makeNamelessFile();
  const int failure = copy ? network::copyFile(opened->file->fileDescriptor(), copy->fileDescriptor(), opened->length) : copy.error();
  if (failure != 0) return systemError(failure, path);
  return ofDescriptor(std::make_shared<const FileHandle>(*std::move(copy)), opened->length);
}

std::uint64_t Bytes::length() const { return memory_ ? memory_->size() : file_ ? file_->length : 0; }

bool Bytes::isInMemory() const { return !file_; }

std::size_t Bytes::read(std::uint64_t offset, std::span<char> room) const {
  if (offset >= length()) return 0;
  const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(room.size(), length() - offset));
  if (memory_) return memory_->copy(room.data(), wanted, static_cast<std::size_t>(offset));
  std::size_t got = 0;
  while (got < wanted) {
    const auto count = pread(file_->handle->fileDescriptor(), room.data() + got, wanted - got, static_cast<off_t>(offset + got));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw Exception(NSFileReadException, "a file cannot be read: " + errnoText(errno));
    if (count == 0) throw Exception(NSFileReadException, "a file has become shorter while it was read");
    got += static_cast<std::size_t>(count);
  }
  return got;
}

std::string Bytes::text() const {
  if (memory_) return *memory_;
  std::string text(static_cast<std::size_t>(length()), '\0');
  read(0, text);
  return text;
}

Data Bytes::data() const {
  Data data(static_cast<std::size_t>(length()));
  read(0, {reinterpret_cast<char*>(data.data()), data.size()});
  return data;
}

std::optional<Error> Bytes::writeToFile(const std::string& path) const {
  const FileHandle file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (!file.isOpen()) return systemError(errno, path);
  int failure = 0;
  if (file_) {
    failure = network::copyFile(file_->handle->fileDescriptor(), file.fileDescriptor(), file_->length);
  } else if (memory_) {
    failure = writeAll(file.fileDescriptor(), *memory_);
  }
  return failure == 0 ? std::nullopt : std::optional(systemError(failure, path));
}

bool operator==(const Bytes& a, const Bytes& b) {
  if (a.length() != b.length()) return false;
  if (a.memory_ == b.memory_ && a.file_ == b.file_) return true;
  if (a.memory_ && b.memory_) return *a.memory_ == *b.memory_;
  std::array<char, 65536> left;
  std::array<char, 65536> right;
  for (std::uint64_t offset = 0; offset < a.length(); offset += left.size()) {
    const auto size = a.read(offset, left);
    b.read(offset, right);
    if (std::memcmp(left.data(), right.data(), size) != 0) return false;
  }
  return true;
}

}  // namespace platform
