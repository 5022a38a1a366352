#include "platform/foundation/preferences/PreferencesFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "platform/foundation/base/DescriptorIO.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/base/TrustedPath.h"
#include "platform/foundation/files/HomeDirectory.h"
#include "platform/foundation/files/Paths.h"
#include "platform/foundation/preferences/FileSizeSignal.h"
#include "platform/foundation/preferences/PreferencesError.h"
#include "platform/foundation/preferences/PreferencesWrites.h"
#include "platform/foundation/preferences/UnflushedFolders.h"

namespace platform {

namespace {

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

/// mkdirat, announced. 0 or an errno.
int makeFolder(int folder, const std::string& parent, const std::string& name) {
  struct stat above {};
  if (fstat(folder, &above) != 0) return errno;
  Expected event(above.st_dev, above.st_ino, name);
  if (mkdirat(folder, name.c_str(), 0700) != 0) return errno;
  event.happened();
  UnflushedFolders::shared().add(parent);
  if (geteuid() == 0 && above.st_uid != 0) {
    const FileHandle made(openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (made.isOpen()) giveToOwnerOf(above, made.fileDescriptor());
  }
  return 0;
}

[[noreturn]] void throwRefusal(const PathRefusal& refusal, const std::string& step) {
  if (refusal.isDistrust) throw PreferencesFailure(PreferencesError::Kind::Refused, refusal.reason);
  throwError(refusal.error, step);
}

}  // namespace

void throwLastError(const std::string& step) { throwError(errno, step); }
void throwError(int error, const std::string& step) { throw std::system_error(error, std::generic_category(), step); }

std::string preferencesFolder() {
  // The XDG Base Directory Specification has a relative path ignored.
  const char* configured = std::getenv("XDG_CONFIG_HOME");
  const std::string base =
      configured != nullptr && configured[0] == '/' ? configured : stringByAppendingPathComponent(NSHomeDirectory(), ".config");
  return stringByAppendingPathComponent(base, "Preferences");
}

PreferencesFolder::PreferencesFolder(const std::string& path, bool make) {
  TrustedWay way{.allowsHost = true, .mayEndInShared = true};
  bool isMaking = false;
  if (make) {
    way.makeFolder = [&isMaking](auto&&... place) {
      const int error = makeFolder(place...);
      isMaking = error != 0;
      return error;
    };
  }
  auto folder = openTrustedFolder(absolutePath(path), way);
  if (!folder) throwRefusal(folder.error(), isMaking ? "making the folder" : "opening the folder");
  folder_ = *std::move(folder);
  if (fstat(descriptor(), &status_) != 0) throwLastError("opening the folder");
  if (make) UnflushedFolders::shared().flushAbove(path);
}

FileHandle openPreferencesForReading(const std::string& path) {
  const auto place = findTrustedPlace(absolutePath(path), {.allowsHost = true});
  if (!place && place.error().error == ENOENT) return FileHandle();
  if (!place) throwRefusal(place.error(), "opening");
  auto file = openTrustedFile(*place, O_RDONLY);
  if (!file && file.error().error == ENOENT) return FileHandle();
  if (!file) throwRefusal(file.error(), "opening");
  return *std::move(file);
}

FileHandle PreferencesFolder::openLock(const std::string& lockName, bool writable) const {
  const int flags = (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  FileHandle file;
  while (!file.isOpen()) {
    // Closing it after writing is an event.
    if (writable) PreferencesWrites::shared().recordOwnName(status_.st_dev, status_.st_ino, lockName);
    file = FileHandle(openat(descriptor(), lockName.c_str(), flags));
    if (file.isOpen()) break;
    if (errno != ENOENT) throwLastError("opening the lock file");
    PreferencesWrites::shared().recordOwnName(status_.st_dev, status_.st_ino, lockName);
    file = FileHandle(openat(descriptor(), lockName.c_str(), flags | O_CREAT | O_EXCL, 0600));
    if (file.isOpen()) {
      giveToOwnerOf(status_, file.fileDescriptor());
      static_cast<void>(!fchmod(file.fileDescriptor(), 0600));
    } else if (errno != EEXIST) {
      throwLastError("opening the lock file");
    }
  }
  return file;
}

bool PreferencesFolder::isCalled(int file, const std::string& name) const {
  struct stat opened {};
  struct stat named {};
  if (fstat(file, &opened) != 0) throwLastError("looking at the lock file");
  if (!S_ISREG(opened.st_mode)) throwError(ENOTSUP, "the lock file is no regular file");
  // Somebody who may hold it for ever.
  if (const auto refusal = refuseFile(file, name, status_.st_uid)) throwRefusal(*refusal, "looking at the lock file");
  // Root once made it for itself, and the folder's owner cannot open it.
  if (opened.st_uid == 0) giveToOwnerOf(status_, file);
  if (fstatat(descriptor(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return false;
    throwLastError("looking at the lock file");
  }
  return opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// The file is opened for reading before the descriptor that wrote it closes, and has its final name only after that: a watcher that looks
// at the final name sees the rename and nothing else.
template <class Fill>
FileHandle PreferencesFolder::writtenBy(const Fill& fill, const std::string& temporaryName, const PreferencesAttributes& attributes) const {
  PreferencesWrites::shared().recordOwnName(status_.st_dev, status_.st_ino, temporaryName);
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW;
  FileHandle file(openat(descriptor(), temporaryName.c_str(), kFlags, 0600));
  if (!file.isOpen() && errno == EEXIST) {
    // Of a process that had our number and was killed: who holds the lock is the only writer.
    removeLeftover(temporaryName);
    file = FileHandle(openat(descriptor(), temporaryName.c_str(), kFlags, 0600));
  }
  if (!file.isOpen()) throwLastError("making the temporary file");
  try {
    FileSizeSignalTaken signal;
    const int error = fill(file.fileDescriptor());
    if (error == EFBIG) signal.exceeded();
    if (error != 0) throwError(error, "writing the temporary file");
    attributes.putOn(file.fileDescriptor());
    if (fsync(file.fileDescriptor()) != 0) throwLastError("flushing the temporary file");
    FileHandle reader(openat(descriptor(), temporaryName.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    // A mode that lets not even its owner read is no reason to lose what is to be written.
    if (!reader.isOpen() && errno != EACCES) throwLastError("opening the temporary file");
    return reader;
  } catch (...) {
    removeLeftover(temporaryName);
    throw;
  }
}

FileHandle PreferencesFolder::write(const std::string& temporaryName, const std::string& bytes,
                                    const PreferencesAttributes& attributes) const {
  return writtenBy([&bytes](int file) { return writeAll(file, bytes); }, temporaryName, attributes);
}

FileHandle PreferencesFolder::copy(const std::string& temporaryName, int source, const PreferencesAttributes& attributes) const {
  const auto fill = [source](int file) {
    std::string piece(std::size_t{1} << 20U, '\0');
    for (off_t at = 0;;) {
      const ssize_t count = pread(source, piece.data(), piece.size(), at);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return errno;
      if (count == 0) return 0;
      at += count;
      if (const int error = writeAll(file, std::string_view(piece).substr(0, static_cast<std::size_t>(count))); error != 0) return error;
    }
  };
  return writtenBy(fill, temporaryName, attributes);
}

void PreferencesFolder::rename(const std::string& temporaryName, const std::string& finalName) const {
  Expected event(status_.st_dev, status_.st_ino, finalName);
  if (renameat(descriptor(), temporaryName.c_str(), descriptor(), finalName.c_str()) != 0) throwLastError("renaming the temporary file");
  event.happened();
}

bool PreferencesFolder::renameToFree(const std::string& name, const std::string& newName) const {
  if (faccessat(descriptor(), newName.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) return false;
  Expected gone(status_.st_dev, status_.st_ino, name);
  Expected come(status_.st_dev, status_.st_ino, newName);
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
  Expected event(status_.st_dev, status_.st_ino, name);
  if (unlinkat(descriptor(), name.c_str(), 0) == 0) {
    event.happened();
  } else if (errno != ENOENT) {
    throwLastError("removing the file");
  }
}

void PreferencesFolder::removeLeftover(const std::string& name) const noexcept {
  PreferencesWrites::shared().recordOwnName(status_.st_dev, status_.st_ino, name);
  unlinkat(descriptor(), name.c_str(), 0);
}

void PreferencesFolder::flush() const { flushOrThrow(descriptor(), "flushing the folder"); }

void flushOrThrow(int descriptor, const std::string& step) {
  // A file system that gave up after an error may call the flush of a folder well done (xfs does), but not let it be looked at.
  struct stat status {};
  if (fsync(descriptor) == 0 ? fstat(descriptor, &status) == 0 : errno == EINVAL || errno == ENOSYS) return;
  throw PreferencesFailure(PreferencesError::Kind::NotFlushed, step + ": " + errnoText(errno));
}

std::vector<std::string> PreferencesFolder::names() const {
  // A descriptor of its own, because reading moves the position and closedir closes.
  FileHandle own(openat(descriptor(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!own.isOpen()) throwLastError("listing the folder");
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(fdopendir(own.fileDescriptor()), closedir);
  if (!folder) throwLastError("listing the folder");
  own.release();
  std::vector<std::string> found;
  while (const dirent* entry = readdir(folder.get())) {
    const bool mayBeLink = entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN;
    if (!mayBeLink || faccessat(descriptor(), entry->d_name, F_OK, 0) == 0) found.emplace_back(entry->d_name);
  }
  return found;
}

}  // namespace platform
