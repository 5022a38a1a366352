#include "platform/network/message/BodyCollector.h"

#include <utility>

#include "platform/foundation/base/DescriptorIO.h"
#include "platform/foundation/base/SystemError.h"
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
  if (auto error = write({piece.data(), piece.size()})) return error;
  length_ += piece.size();
  return std::nullopt;
}

std::optional<Error> BodyCollector::openFile() {
  auto file = makeNamelessFile();
  if (!file) return URLError(NSURLErrorCannotCreateFile, {}, errnoText(file.error()));
  file_ = *std::move(file);
  return write(std::exchange(memory_, {}));
}

std::optional<Error> BodyCollector::write(std::string_view bytes) const {
  const int failure = writeAll(file_.fileDescriptor(), bytes);
  if (failure == 0) return std::nullopt;
  return URLError(NSURLErrorCannotWriteToFile, {}, errnoText(failure));
}

Bytes BodyCollector::takeBytes() {
  const auto length = std::exchange(length_, 0);
  if (!file_.isOpen()) return Bytes(std::exchange(memory_, {}));
  return Bytes::ofDescriptor(std::make_shared<const FileHandle>(std::move(file_)), length);
}

std::shared_ptr<const FileHandle> BodyCollector::takeFile() {
  length_ = 0;
  if (place_ == Place::File && !file_.isOpen()) {
    if (auto empty = makeNamelessFile()) file_ = *std::move(empty);
  }
  return file_.isOpen() ? std::make_shared<const FileHandle>(std::move(file_)) : nullptr;
}

}  // namespace platform::network
