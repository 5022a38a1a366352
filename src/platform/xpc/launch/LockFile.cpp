#include "platform/xpc/launch/LockFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>
#include <utility>

#include "platform/foundation/base/TrustedPath.h"

namespace platform::xpc {

namespace {

struct flock wholeFile(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

}  // namespace

Result<LockFile, int> LockFile::open(int folder, const std::string& name, bool create) {
  FileHandle handle(openat(folder, name.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | (create ? O_CREAT : 0), 0600));
  if (!handle.isOpen()) return errno;
  struct stat status {};
  if (fstat(handle.fileDescriptor(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode) || refuseFile(handle.fileDescriptor(), name)) return EPERM;
  return LockFile(std::move(handle));
}

LockFile::~LockFile() {
  if (handle_.isOpen()) unlock();
}

// Of the two errors that POSIX has for a lock that is held, Linux has EAGAIN only; EACCES comes from a security module.
int LockFile::tryLock() {
  auto whole = wholeFile(F_WRLCK);
  int result = 0;
  do {
    result = fcntl(handle_.fileDescriptor(), F_OFD_SETLK, &whole);
  } while (result != 0 && errno == EINTR);
  locked_ = locked_ || result == 0;
  return result == 0 ? 0 : errno;
}

// Tried again and again rather than waited for: the kernel's waiting has no time limit.
int LockFile::lock(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const int error = tryLock();
    if (error != kHeldBySomebodyElse || std::chrono::steady_clock::now() >= deadline) return error;
    std::this_thread::sleep_for(kLockRetry);
  }
}

// Said explicitly: a process that was forked at this moment and has not yet run its program still has the handle, and would keep the lock.
void LockFile::unlock() {
  if (!std::exchange(locked_, false)) return;
  auto whole = wholeFile(F_UNLCK);
  fcntl(handle_.fileDescriptor(), F_OFD_SETLK, &whole);
}

Result<bool, int> LockFile::isHeld() const {
  auto whole = wholeFile(F_WRLCK);
  if (fcntl(handle_.fileDescriptor(), F_OFD_GETLK, &whole) != 0) return errno;
  return whole.l_type != F_UNLCK;
}

// The kernel names no holder of such a lock, but for each descriptor of a process the locks that it holds (proc(5)):
// "lock:\t1: OFDLCK ADVISORY WRITE -1 00:1b:4711 0 EOF".
bool LockFile::isHeldBy(int process) const {
  struct stat status {};
  if (fstat(handle_.fileDescriptor(), &status) != 0) return false;
  std::error_code error;
  const std::string folder = "/proc/" + std::to_string(process);
  for (std::filesystem::directory_iterator each(folder + "/fd", error), end; !error && each != end; each.increment(error)) {
    struct stat other {};
    if (stat(each->path().c_str(), &other) != 0 || other.st_dev != status.st_dev || other.st_ino != status.st_ino) continue;
    std::ifstream about(folder + "/fdinfo/" + each->path().filename().string());
    for (std::string line; std::getline(about, line);) {
      if (line.starts_with("lock:") && line.find("OFDLCK") != std::string::npos && line.find("WRITE") != std::string::npos) return true;
    }
  }
  return false;
}

std::string LockFile::text() const {
  std::array<char, 256> buffer{};
  const ssize_t size = pread(handle_.fileDescriptor(), buffer.data(), buffer.size(), 0);
  return {buffer.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
}

int LockFile::setText(const std::string& text) const {
  if (ftruncate(handle_.fileDescriptor(), 0) != 0) return errno;
  const ssize_t written = pwrite(handle_.fileDescriptor(), text.data(), text.size(), 0);
  if (written < 0) return errno;
  return written == static_cast<ssize_t>(text.size()) ? 0 : ENOSPC;
}

}  // namespace platform::xpc
