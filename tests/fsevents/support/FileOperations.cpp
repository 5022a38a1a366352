#include "tests/fsevents/support/FileOperations.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/foundation/base/FileHandle.h"

namespace kestrine::test {

namespace fs = std::filesystem;
using platform::FileHandle;

namespace {

constexpr mode_t kFolderMode = 0755;
constexpr mode_t kFileMode = 0644;

void check(bool fine, const std::string& what) {
  if (!fine) throw std::system_error(errno, std::generic_category(), what);
}

// Step by step, so that no single call sees more than a name.
FileHandle openFolder(const fs::path& path) {
  FileHandle folder(::open(path.is_absolute() ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (const auto& name : path.relative_path()) {
    if (name.empty()) continue;
    folder = FileHandle(::openat(folder.fileDescriptor(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    check(folder.isOpen(), "open " + name.string());
  }
  return folder;
}

}  // namespace

void makeFolders(const std::string& path) { fs::create_directories(path); }

void moveItem(const std::string& from, const std::string& to) {
  check(::rename(from.c_str(), to.c_str()) == 0, "rename " + from + " to " + to);
}

void exchangeItems(const std::string& one, const std::string& other) {
  check(::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0, "exchange " + one + " and " + other);
}

void removeItem(const std::string& path) { check(::remove(path.c_str()) == 0, "remove " + path); }

void removeTree(const std::string& path) { fs::remove_all(path); }

void setMode(const std::string& path, mode_t mode) { check(::chmod(path.c_str(), mode) == 0, "chmod " + path); }

void makeHardLink(const std::string& existing, const std::string& name) {
  check(::link(existing.c_str(), name.c_str()) == 0, "link " + existing + " as " + name);
}

void makeLink(const std::string& target, const std::string& name) {
  check(::symlink(target.c_str(), name.c_str()) == 0, "symlink " + name);
}

void touchFile(const std::string& path) {
  const FileHandle file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kFileMode));
  check(file.isOpen(), "create " + path);
}

std::string makeDeepFolders(const std::string& top, const std::vector<std::string>& names) {
  std::string path = top;
  auto folder = openFolder(top);
  for (const auto& name : names) {
    check(::mkdirat(folder.fileDescriptor(), name.c_str(), kFolderMode) == 0, "mkdir " + name);
    folder = FileHandle(::openat(folder.fileDescriptor(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    check(folder.isOpen(), "open " + name);
    path += "/" + name;
  }
  return path;
}

void writeDeepFile(const std::string& folder, const std::string& name, const std::string& text) {
  const auto parent = openFolder(folder);
  const FileHandle file(::openat(parent.fileDescriptor(), name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kFileMode));
  check(file.isOpen(), "create " + name);
  check(::write(file.fileDescriptor(), text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write " + name);
}

WorkingDirectory::WorkingDirectory(const std::string& path) : before_(fs::current_path()) { fs::current_path(path); }

WorkingDirectory::~WorkingDirectory() {
  std::error_code ignored;  // the former one may be out of this user's reach
  fs::current_path(before_, ignored);
}

}  // namespace kestrine::test
