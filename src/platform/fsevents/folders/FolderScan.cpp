#include "platform/fsevents/folders/FolderScan.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>

#include "platform/fsevents/folders/PathOpener.h"

namespace platform::fsevents {
namespace {

constexpr std::size_t kListingSize = std::size_t{32} << 10U;

FSEventStreamEventFlags kindOfEntry(const dirent64& entry, int folder) {
  if (entry.d_type == DT_UNKNOWN) {
    struct stat info {};
    return ::fstatat(folder, entry.d_name, &info, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) == 0 ? kindOfMode(info.st_mode)
                                                                                              : FSEventStreamEventFlags{0};
  }
  if (entry.d_type == DT_DIR) return kFSEventStreamEventFlagItemIsDir;
  return entry.d_type == DT_LNK ? kFSEventStreamEventFlagItemIsSymlink : kFSEventStreamEventFlagItemIsFile;
}

}  // namespace

int scanFolder(int folder, bool foldersOnly, const std::function<void(const char* name, FSEventStreamEventFlags kind)>& visit) {
  alignas(dirent64) std::array<char, kListingSize> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): the kernel fills it
  while (true) {
    const ssize_t count = ::getdents64(folder, buffer.data(), buffer.size());
    if (count < 0) return errno;
    if (count == 0) return 0;
    for (ssize_t at = 0; at < count;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer.data() + at);
      at += entry->d_reclen;
      const char* name = entry->d_name;
      if (isDots(name)) continue;
      if (foldersOnly && entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN) continue;
      const FSEventStreamEventFlags kind = kindOfEntry(*entry, folder);
      if (!foldersOnly || kind == kFSEventStreamEventFlagItemIsDir) visit(name, kind);
    }
  }
}

}  // namespace platform::fsevents
