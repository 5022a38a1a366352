#include "platform/fsevents/folders/PathOpener.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace platform::fsevents {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

/// openat2(2); an empty handle and ENOSYS or EPERM where the kernel is too old for it or a filter forbids it.
FileHandle openWithin(int root, const char* relative, int flags) {
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags);
  how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
  return FileHandle(static_cast<int>(::syscall(SYS_openat2, root, relative, &how, sizeof how)));
}

FileHandle openStep(int parent, const char* name, int flags) {
  FileHandle opened = openWithin(parent, name, flags);
  if (opened.isOpen() || (errno != ENOSYS && errno != EPERM)) return opened;
  return FileHandle(::openat(parent, name, flags));
}

/// Component by component, for paths beyond PATH_MAX and where openat2(2) is refused.
FileHandle openStepwise(int root, std::string_view relative) {
  FileHandle at;
  while (!relative.empty()) {
    const std::size_t end = relative.find('/', 1);
    const std::string name(relative.substr(1, end == std::string_view::npos ? end : end - 1));
    relative = end == std::string_view::npos ? std::string_view{} : relative.substr(end);
    const int flags = relative.empty() ? kFolderFlags : O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    FileHandle next = openStep(at.isOpen() ? at.fileDescriptor() : root, name.c_str(), flags);
    if (!next.isOpen()) return next;
    at = std::move(next);
  }
  return at;
}

}  // namespace

FileHandle openFolderIn(int parent, const char* name) { return openStep(parent, name, kFolderFlags); }

FileHandle openFolderBelow(int root, std::string_view relative) {
  if (relative.empty()) return openFolderIn(root, ".");
  if (relative.size() < PATH_MAX - 1) {
    FileHandle folder = openWithin(root, std::string(relative.substr(1)).c_str(), kFolderFlags);
    if (folder.isOpen() || (errno != ENOSYS && errno != EPERM)) return folder;
  }
  return openStepwise(root, relative);
}

FSEventStreamEventFlags kindOfMode(unsigned mode) {
  if (S_ISDIR(mode)) return kFSEventStreamEventFlagItemIsDir;
  if (S_ISLNK(mode)) return kFSEventStreamEventFlagItemIsSymlink;
  return kFSEventStreamEventFlagItemIsFile;
}

bool isGone(int error) { return error == ENOENT || error == ENOTDIR || error == ELOOP; }
bool isRefused(int error) { return error == EACCES || error == EPERM; }
bool isCovered(int error) { return error == EXDEV; }
bool isShortage(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS; }

FSEventStreamEventFlags kindOfItem(const std::string& path) {
  struct stat info {};
  if (path.size() < PATH_MAX) return ::lstat(path.c_str(), &info) == 0 ? kindOfMode(info.st_mode) : 0;
  const std::size_t cut = path.rfind('/');
  const FileHandle root(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  const FileHandle folder = openStepwise(root.fileDescriptor(), std::string_view(path).substr(0, cut));
  if (!folder.isOpen()) return 0;
  return ::fstatat(folder.fileDescriptor(), path.c_str() + cut + 1, &info, AT_SYMLINK_NOFOLLOW) == 0 ? kindOfMode(info.st_mode) : 0;
}

}  // namespace platform::fsevents
