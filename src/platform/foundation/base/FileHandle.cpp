#include "platform/foundation/base/FileHandle.h"

#include <unistd.h>

#include <utility>

namespace platform {

FileHandle& FileHandle::operator=(FileHandle&& other) noexcept {
  if (this != &other) {
    closeFile();
    descriptor_ = other.release();
  }
  return *this;
}

FileHandle::~FileHandle() { closeFile(); }

int FileHandle::release() noexcept { return std::exchange(descriptor_, -1); }

void FileHandle::closeFile() noexcept {
  if (const int descriptor = release(); descriptor >= 0) ::close(descriptor);
}

}  // namespace platform
