#include "tests/support/TemporaryDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "tests/support/TestFolder.h"

namespace kestrine::test {

namespace {

constexpr int kOpenFolder = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

/// The folder on `name` in `parent`, but not what is mounted there: that belongs to others.
platform::FileHandle openUnmounted(int parent, const char* name) {
  open_how how{};
  how.flags = kOpenFolder;
  how.resolve = RESOLVE_NO_XDEV;
  platform::FileHandle folder(static_cast<int>(syscall(SYS_openat2, parent, name, &how, sizeof how)));
  if (folder.isOpen() || (errno != ENOSYS && errno != EPERM)) return folder;
  folder = platform::FileHandle(openat(parent, name, kOpenFolder));
  struct stat above {};
  struct stat status {};
  const bool isMounted =
      folder.isOpen() && fstat(parent, &above) == 0 && fstat(folder.fileDescriptor(), &status) == 0 && above.st_dev != status.st_dev;
  return isMounted ? platform::FileHandle() : std::move(folder);
}

/// The same, given all permissions first when it refuses.
platform::FileHandle openFolder(int parent, const char* name) {
  platform::FileHandle folder = openUnmounted(parent, name);
  if (!folder.isOpen() && errno == EACCES && fchmodat(parent, name, 0700, 0) == 0) folder = openUnmounted(parent, name);
  return folder;
}

struct Entry {
  std::string name;
  bool isFolder;
};

/// The last folder comes last; nothing is listed twice, so the caller may remove while it looks.
std::vector<Entry> entriesOf(int folder) {
  std::vector<Entry> entries;
  const int copy = openat(folder, ".", kOpenFolder);
  DIR* const stream = copy < 0 ? nullptr : fdopendir(copy);
  if (stream == nullptr) return entries;
  while (const dirent* entry = readdir(stream)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    struct stat status {};
    const bool isFolder = fstatat(folder, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
    entries.push_back({name, isFolder});
  }
  closedir(stream);
  return entries;
}

/// One folder on the way down. Only the deepest is open: a deep tree must not use up the descriptors.
struct Level {
  std::string name;
  std::vector<std::string> foldersLeft;
};

/// Removes what is not a folder and returns the folders' names.
std::vector<std::string> removeFiles(int folder) {
  std::vector<std::string> folders;
  fchmod(folder, 0700);
  for (Entry& entry : entriesOf(folder)) {
    if (entry.isFolder) {
      folders.push_back(std::move(entry.name));
    } else {
      unlinkat(folder, entry.name.c_str(), 0);
    }
  }
  return folders;
}

/// Empties the folder `top` without recursion and without a path longer than one name.
void emptyFolder(platform::FileHandle top) {
  platform::FileHandle current = std::move(top);
  std::vector<Level> levels;
  levels.push_back({"", removeFiles(current.fileDescriptor())});
  for (;;) {
    Level& level = levels.back();
    if (!level.foldersLeft.empty()) {
      std::string name = std::move(level.foldersLeft.back());
      level.foldersLeft.pop_back();
      platform::FileHandle folder = openFolder(current.fileDescriptor(), name.c_str());
      if (!folder.isOpen()) continue;
      current = std::move(folder);
      levels.push_back({std::move(name), removeFiles(current.fileDescriptor())});
      continue;
    }
    if (levels.size() == 1) return;
    platform::FileHandle parent(openat(current.fileDescriptor(), "..", kOpenFolder));
    if (!parent.isOpen()) return;
    unlinkat(parent.fileDescriptor(), level.name.c_str(), AT_REMOVEDIR);
    current = std::move(parent);
    levels.pop_back();
  }
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
  std::string name = testFolder() + "/" + testFolderPrefix() + "XXXXXX";
  if (mkdtemp(name.data()) == nullptr) fail("mkdtemp " + name);
  char* const canonical = realpath(name.c_str(), nullptr);
  if (canonical == nullptr) fail("realpath " + name);
  path_ = canonical;
  std::free(canonical);
}

TemporaryDirectory::~TemporaryDirectory() { removeFolder(path_); }

void removeFolder(const std::string& path) {
  const std::size_t cut = path.rfind('/');
  const platform::FileHandle above(
      open(cut == std::string::npos ? "." : path.substr(0, cut + 1).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  platform::FileHandle folder = openFolder(above.fileDescriptor(), path.c_str() + (cut == std::string::npos ? 0 : cut + 1));
  if (folder.isOpen()) emptyFolder(std::move(folder));
  rmdir(path.c_str());
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  if (!file.flush()) fail("write " + path);
}

void appendFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::app);
  file << text;
  if (!file.flush()) fail("append " + path);
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) fail("read " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

void makeFolder(const std::string& path) {
  if (mkdir(path.c_str(), 0777) != 0) fail("mkdir " + path);
}

}  // namespace kestrine::test
