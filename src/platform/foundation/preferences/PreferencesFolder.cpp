#include "platform/foundation/preferences/PreferencesFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "platform/foundation/base/DescriptorIO.h"
#include "platform/foundation/files/FileManager.h"
#include "platform/foundation/files/HomeDirectory.h"
#include "platform/foundation/files/Paths.h"
#include "platform/foundation/preferences/PreferencesWrites.h"

namespace platform {

namespace {

FileHandle openFolder(const std::string& path) { return FileHandle(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); }

/// Announces the event for as long as the call that causes it has not failed.
class Expected {
 public:
  Expected(dev_t device, ino_t inode, const std::string& name) : device_(device), inode_(inode), name_(name) {
    PreferencesWrites::shared().expectEvent(device_, inode_, name_);
  }
  ~Expected() {
    if (!happened_) PreferencesWrites::shared().cancelEvent(device_, inode_, name_);
  }
  Expected(const Expected&) = delete;
  Expected& operator=(const Expected&) = delete;
  void happened() { happened_ = true; }

 private:
  const dev_t device_;
  const ino_t inode_;
  const std::string& name_;
  bool happened_ = false;
};

/// mkdir, announced. 0 or an errno.
int makeFolder(const std::string& path) {
  struct stat above {};
  if (stat(stringByDeletingLastPathComponent(path).c_str(), &above) != 0) return errno;
  const std::string name = lastPathComponent(path);
  Expected event(above.st_dev, above.st_ino, name);
  if (mkdir(path.c_str(), 0700) != 0) return errno;
  event.happened();
  return 0;
}

}  // namespace

void throwLastError(const std::string& step) { throwError(errno, step); }
void throwError(int error, const std::string& step) { throw std::system_error(error, std::generic_category(), step); }

std::string preferencesFolder() {
  // The XDG Base Directory Specification has a relative path ignored.
  const char* configured = std::getenv("XDG_CONFIG_HOME");
  const std::string base = configured != nullptr && configured[0] == '/' ? configured : NSHomeDirectory() + "/.config";
  return base + "/Preferences";
}

PreferencesLock::~PreferencesLock() {
  if (file_.isOpen()) flock(file_.fileDescriptor(), LOCK_UN);
}

PreferencesFolder::PreferencesFolder(const std::string& path, bool make) : folder_(openFolder(path)) {
  if (!folder_.isOpen() && errno == ENOENT && make) {
    if (const int error = makeFolders(path, makeFolder); error != 0) throwError(error, "making the folder");
    folder_ = openFolder(path);
  }
  struct stat status {};
  if (!folder_.isOpen() || fstat(descriptor(), &status) != 0) throwLastError("opening the folder");
  device_ = status.st_dev;
  inode_ = status.st_ino;
}

FileHandle PreferencesFolder::openLock(const std::string& lockName) const {
  FileHandle file(openat(descriptor(), lockName.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!file.isOpen() && errno == ENOENT) {
    PreferencesWrites::shared().recordOwnName(device_, inode_, lockName);
    file = FileHandle(openat(descriptor(), lockName.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
  }
  if (!file.isOpen()) throwLastError("opening the lock file");
  return file;
}

PreferencesLock PreferencesFolder::lock(const std::string& lockName) const {
  while (true) {
    FileHandle file = openLock(lockName);
    int result = 0;
    do {
      result = flock(file.fileDescriptor(), LOCK_EX);
      if (result != 0 && errno == EBADF) {
        // Network file systems lock for writing only what is open for writing.
        file = FileHandle(openat(descriptor(), lockName.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
        PreferencesWrites::shared().recordOwnName(device_, inode_, lockName);
        if (!file.isOpen()) throwLastError("opening the lock file");
        result = flock(file.fileDescriptor(), LOCK_EX);
      }
    } while (result != 0 && errno == EINTR);
    if (result != 0) throwLastError("taking the lock");
    // Somebody may have removed the lock file while we waited; then others lock another one.
    if (isCalled(file, lockName)) return PreferencesLock(std::move(file));
  }
}

bool PreferencesFolder::isCalled(const FileHandle& file, const std::string& name) const {
  struct stat opened {};
  struct stat named {};
  if (fstat(file.fileDescriptor(), &opened) != 0) throwLastError("looking at the lock file");
  if (fstatat(descriptor(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return false;
    throwLastError("looking at the lock file");
  }
  return opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// The file is opened for reading before the descriptor that wrote it closes, and has its final name only after that: a watcher that looks
// at the final name sees the rename and nothing else.
FileHandle PreferencesFolder::write(const std::string& temporaryName, const std::string& bytes) const {
  PreferencesWrites::shared().recordOwnName(device_, inode_, temporaryName);
  const FileHandle file(openat(descriptor(), temporaryName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file.isOpen()) throwLastError("making the temporary file");
  try {
    if (const int error = writeAll(file.fileDescriptor(), bytes); error != 0) throwError(error, "writing the temporary file");
    if (fsync(file.fileDescriptor()) != 0) throwLastError("syncing the temporary file");
    FileHandle reader(openat(descriptor(), temporaryName.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!reader.isOpen()) throwLastError("opening the temporary file");
    return reader;
  } catch (...) {
    removeLeftover(temporaryName);
    throw;
  }
}

void PreferencesFolder::rename(const std::string& temporaryName, const std::string& finalName) const {
  Expected event(device_, inode_, finalName);
  if (renameat(descriptor(), temporaryName.c_str(), descriptor(), finalName.c_str()) != 0) throwLastError("renaming the temporary file");
  event.happened();
}

bool PreferencesFolder::renameToFree(const std::string& name, const std::string& newName) const {
  if (faccessat(descriptor(), newName.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) return false;
  Expected gone(device_, inode_, name);
  Expected come(device_, inode_, newName);
  if (renameat2(descriptor(), name.c_str(), descriptor(), newName.c_str(), RENAME_NOREPLACE) != 0) {
    if (errno == EEXIST) return false;
    // Some file systems cannot promise that; the lock keeps other writers away all the same.
    if (errno != EINVAL || renameat(descriptor(), name.c_str(), descriptor(), newName.c_str()) != 0)
      throwLastError("moving the file aside");
  }
  gone.happened();
  come.happened();
  return true;
}

void PreferencesFolder::remove(const std::string& name) const {
  Expected event(device_, inode_, name);
  if (unlinkat(descriptor(), name.c_str(), 0) == 0) {
    event.happened();
  } else if (errno != ENOENT) {
    throwLastError("removing the file");
  }
}

void PreferencesFolder::removeLeftover(const std::string& name) const noexcept {
  PreferencesWrites::shared().recordOwnName(device_, inode_, name);
  unlinkat(descriptor(), name.c_str(), 0);
}

void PreferencesFolder::sync() const {
  if (fsync(descriptor()) != 0 && errno != EINVAL && errno != ENOSYS) throwLastError("syncing the folder");
}

std::vector<std::string> PreferencesFolder::names() const {
  // A descriptor of its own, because reading moves the position and closedir closes.
  FileHandle own(openat(descriptor(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!own.isOpen()) throwLastError("listing the folder");
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(fdopendir(own.fileDescriptor()), closedir);
  if (!folder) throwLastError("listing the folder");
  own.release();
  std::vector<std::string> found;
  while (const dirent* entry = readdir(folder.get())) found.emplace_back(entry->d_name);
  return found;
}

}  // namespace platform
