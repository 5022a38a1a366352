#include "platform/network/message/BodyCollector.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/network/message/TemporaryFile.h"
#include "platform/network/message/URLError.h"

namespace platform::network {

namespace {

constexpr std::size_t kMemoryAtMost = 4U << 20U;

}  // namespace

std::optional<Error> BodyCollector::append(std::span<const char> piece) {
  if (place_ == Place::MemoryFirst && !file_.isOpen() && memory_.size() + piece.size() <= kMemoryAtMost) {
    memory_.append(piece.data(), piece.size());
    length_ += piece.size();
    return std::nullopt;
  }
  if (!file_.isOpen()) {
    if (auto error = openFile()) return error;
  }
  if (!writeAll(file_.fileDescriptor(), piece.data(), piece.size())) {
    return URLError(NSURLErrorCannotWriteToFile, {}, std::generic_category().message(errno));
  }
  length_ += piece.size();
  return std::nullopt;
}

std::optional<Error> BodyCollector::openFile() {
  file_ = makeNamelessFile();
  if (!file_.isOpen()) return URLError(NSURLErrorCannotCreateFile, {}, std::generic_category().message(errno));
  const auto held = std::exchange(memory_, {});
  if (writeAll(file_.fileDescriptor(), held.data(), held.size())) return std::nullopt;
  return URLError(NSURLErrorCannotWriteToFile, {}, std::generic_category().message(errno));
}

Bytes BodyCollector::takeBytes() {
  const auto length = std::exchange(length_, 0);
  if (!file_.isOpen()) return Bytes(std::exchange(memory_, {}));
  return Bytes::ofDescriptor(std::make_shared<const FileHandle>(std::move(file_)), length);
}

std::shared_ptr<const FileHandle> BodyCollector::takeFile() {
  length_ = 0;
  if (place_ == Place::File && !file_.isOpen()) file_ = makeNamelessFile();
  return file_.isOpen() ? std::make_shared<const FileHandle>(std::move(file_)) : nullptr;
}

}  // namespace platform::network
