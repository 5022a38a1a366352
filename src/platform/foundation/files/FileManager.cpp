#include "platform/foundation/files/FileManager.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <filesystem>

namespace platform {

namespace fs = std::filesystem;

namespace {

std::error_code lastError() { return {errno, std::generic_category()}; }

/// Permissions and times of `status`, as they are on the original; on a link nothing but the times.
std::error_code dress(const std::string& path, const struct stat& status) {
  if (!S_ISLNK(status.st_mode) && chmod(path.c_str(), status.st_mode & 07777) != 0) return lastError();
  const std::array<timespec, 2> times = {status.st_atim, status.st_mtim};
  return utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) == 0 ? std::error_code() : lastError();
}

std::error_code copyItem(const std::string& source, const std::string& destination);

std::error_code copyFolder(const std::string& source, const std::string& destination) {
  // Readable by nobody else until it has its own permissions.
  if (mkdir(destination.c_str(), S_IRWXU) != 0) return lastError();
  std::error_code error;
  for (fs::directory_iterator item(source, error), end; !error && item != end; item.increment(error)) {
    error = copyItem(item->path().string(), destination + "/" + item->path().filename().string());
    if (error) return error;
  }
  return error;
}

std::error_code copyItem(const std::string& source, const std::string& destination) {
  struct stat status {};
  if (lstat(source.c_str(), &status) != 0) return lastError();
  std::error_code error;
  switch (status.st_mode & S_IFMT) {
    case S_IFREG:
      fs::copy_file(source, destination, fs::copy_options::none, error);
      break;
    case S_IFLNK:
      fs::copy_symlink(source, destination, error);
      break;
    case S_IFDIR:
      error = copyFolder(source, destination);
      break;
    default:
      error = std::make_error_code(std::errc::not_supported);
  }
  return error ? error : dress(destination, status);
}

/// Whether `path` is `folder` or lies in it, by what the file system says of each folder on the way up.
bool liesIn(const fs::path& path, const std::string& folder) {
  std::error_code error;
  fs::path place = fs::weakly_canonical(path, error);
  for (; !error && place.has_relative_path(); place = place.parent_path()) {
    if (fs::equivalent(place, folder, error)) return true;
    // A place that does not exist yet is no folder that does.
    error.clear();
  }
  return false;
}

}  // namespace

bool fileExistsAtPath(const std::string& path, bool* isDirectory) {
  struct stat status {};
  const bool exists = stat(path.c_str(), &status) == 0;
  if (isDirectory != nullptr) *isDirectory = exists && S_ISDIR(status.st_mode);
  return exists;
}

std::error_code copyItemAtPath_toPath(const std::string& source, const std::string& destination) {
  struct stat status {};
  // Asked beforehand, so that a failure after this removes nothing but what was made here.
  if (lstat(destination.c_str(), &status) == 0) return std::make_error_code(std::errc::file_exists);
  bool isDirectory = false;
  fileExistsAtPath(source, &isDirectory);
  if (isDirectory && !fs::is_symlink(source) && liesIn(destination, source)) return std::make_error_code(std::errc::invalid_argument);
  const std::error_code error = copyItem(source, destination);
  if (error && error != std::errc::file_exists) {
    std::error_code ignored;
    fs::remove_all(destination, ignored);
  }
  return error;
}

}  // namespace platform
