#include "platform/foundation/base/TrustedPath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <iterator>
#include <utility>
#include <vector>

#include "platform/foundation/base/Ownership.h"
#include "platform/foundation/base/SystemError.h"

namespace platform {

namespace {

/// As many as the kernel follows, path_resolution(7).
constexpr int kLinksAtMost = 40;

PathRefusal failed(int error) { return {error, errnoText(error)}; }
PathRefusal distrusted(std::string reason) { return {EPERM, std::move(reason), true}; }

/// The way to one path.
class Walk {
 public:
  explicit Walk(const TrustedWay& way) : way_(way) {}

  /// Goes to the end, or with `stopsBeforeLast` to the folder in which the last name stands that is no link.
  std::optional<PathRefusal> go(const std::string& path, bool stopsBeforeLast) {
    if (!path.starts_with('/')) return failed(EINVAL);
    push(path);
    if (auto refusal = beginAtRoot()) return refusal;
    while (!names_.empty()) {
      const bool isLast = names_.size() == 1;
      const std::string name = std::move(names_.back());
      names_.pop_back();
      if (isLast && stopsBeforeLast && name != "..") {
        bool isLink = false;
        if (auto refusal = followIfLink(name, isLink)) return refusal;
        if (isLink) continue;
        last_ = name;
        return refuseEnd();
      }
      if (auto refusal = enter(name)) return refusal;
    }
    if (stopsBeforeLast) return failed(EISDIR);
    return refuseEnd();
  }

  [[nodiscard]] std::string pathOf(const std::string& name) const { return path_ == "/" ? "/" + name : path_ + "/" + name; }
  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] const std::string& last() const { return last_; }
  [[nodiscard]] int folder() const { return folder_.fileDescriptor(); }
  /// Who else may write to the folder at the end, which is sticky then.
  [[nodiscard]] const std::optional<std::string>& others() const { return others_; }
  [[nodiscard]] std::optional<uid_t> host() const { return host_; }

 private:
  /// The names of a path go before those that are left; the next one stands last.
  void push(const std::string& path) {
    std::vector<std::string> names;
    for (std::size_t begin = 0; begin < path.size();) {
      const std::size_t end = std::min(path.find('/', begin), path.size());
      const std::string name = path.substr(begin, end - begin);
      if (!name.empty() && name != ".") names.push_back(name);
      begin = end + 1;
    }
    names_.insert(names_.end(), std::make_move_iterator(names.rbegin()), std::make_move_iterator(names.rend()));
  }

  std::optional<PathRefusal> beginAtRoot() {
    FileHandle root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root.isOpen()) return failed(errno);
    return arrive(std::move(root), "/");
  }

  FileHandle look(const std::string& name) const { return FileHandle(openat(folder(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)); }

  std::optional<PathRefusal> enter(const std::string& name) {
    const std::string path = name == ".." ? path_ + "/.." : pathOf(name);
    FileHandle item = look(name);
    if (!item.isOpen() && errno == ENOENT && way_.makeFolder) {
      // Whoever was faster has made it too; it is looked at like any other.
      if (const int error = way_.makeFolder(folder(), path_, name); error != 0 && error != EEXIST) return failed(error);
      item = look(name);
    }
    if (!item.isOpen()) return failed(errno);
    struct stat status {};
    if (fstat(item.fileDescriptor(), &status) != 0) return failed(errno);
    if (S_ISLNK(status.st_mode)) return follow(item, status, path);
    if (!S_ISDIR(status.st_mode)) return failed(ENOTDIR);
    return arrive(std::move(item), path);
  }

  std::optional<PathRefusal> followIfLink(const std::string& name, bool& isLink) {
    const FileHandle item = look(name);
    if (!item.isOpen()) return errno == ENOENT ? std::nullopt : std::optional(failed(errno));
    struct stat status {};
    if (fstat(item.fileDescriptor(), &status) != 0) return failed(errno);
    isLink = S_ISLNK(status.st_mode);
    return isLink ? follow(item, status, pathOf(name)) : std::nullopt;
  }

  std::optional<PathRefusal> follow(const FileHandle& link, const struct stat& status, const std::string& path) {
    if (!isTrusted(status.st_uid)) return distrusted("'" + path + "' is a symbolic link that " + userText(status.st_uid) + " made");
    if (++followed_ > kLinksAtMost) return failed(ELOOP);
    std::array<char, PATH_MAX> text;
    const ssize_t size = readlinkat(link.fileDescriptor(), "", text.data(), text.size());
    if (size <= 0) return failed(size < 0 ? errno : ENOENT);
    const std::string target(text.data(), static_cast<std::size_t>(size));
    ledByHost_ = ledByHost_ || status.st_uid == host_;
    push(target);
    return target.starts_with('/') ? beginAtRoot() : std::nullopt;
  }

  std::optional<PathRefusal> arrive(FileHandle folder, const std::string& path) {
    struct stat status {};
    if (fstat(folder.fileDescriptor(), &status) != 0) return failed(errno);
    if (!isTrusted(status.st_uid)) return distrusted("'" + path + "' belongs to " + userText(status.st_uid));
    others_ = otherWriters(folder.fileDescriptor(), status);
    // In a sticky folder nobody can replace what is another's, and what comes next on the way is looked at.
    const bool isSticky = (status.st_mode & S_ISVTX) != 0;
    if (others_ && !isSticky) return distrusted("'" + path + "' is not safe: " + *others_ + "; 'chmod go-w' mends that");
    owner_ = status.st_uid;
    folder_ = std::move(folder);
    path_ = path;
    return std::nullopt;
  }

  bool isTrusted(uid_t user) {
    if (user == geteuid() || user == host_ || isOfTheSystem(user)) return true;
    if (!way_.allowsHost || geteuid() != 0 || host_) return false;
    host_ = user;
    return true;
  }

  /// Else a user could have root work in any folder.
  [[nodiscard]] std::optional<PathRefusal> refuseEnd() const {
    if (!ledByHost_ || owner_ == host_) return std::nullopt;
    return distrusted("'" + path_ + "' belongs to " + userText(owner_) + ", and " + userText(*host_) + " made the link to it");
  }

  const TrustedWay& way_;
  std::vector<std::string> names_;
  FileHandle folder_;
  std::string path_;
  std::string last_;
  uid_t owner_ = 0;
  std::optional<std::string> others_;
  std::optional<uid_t> host_;
  bool ledByHost_ = false;
  int followed_ = 0;
};

}  // namespace

TrustedWay::FolderMaker folderMaker(mode_t mode) {
  return [mode](int folder, const std::string& /*parent*/, const std::string& name) {
    return mkdirat(folder, name.c_str(), mode) == 0 ? 0 : errno;
  };
}

Result<FileHandle, PathRefusal> openTrustedFolder(const std::string& path, const TrustedWay& way) {
  Walk walk(way);
  if (auto refusal = walk.go(path, false)) return *std::move(refusal);
  if (const auto& others = walk.others(); others && !way.mayEndInShared) return distrusted("'" + walk.path() + "' is not safe: " + *others);
  FileHandle folder(openat(walk.folder(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.isOpen()) return failed(errno);
  return folder;
}

Result<TrustedPlace, PathRefusal> findTrustedPlace(const std::string& path, const TrustedWay& way) {
  Walk walk(way);
  if (auto refusal = walk.go(path, true)) return *std::move(refusal);
  FileHandle folder(openat(walk.folder(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder.isOpen()) return failed(errno);
  return TrustedPlace{std::move(folder), walk.last(), walk.pathOf(walk.last()), walk.host()};
}

std::optional<PathRefusal> refuseFile(int descriptor, const std::string& path, std::optional<uid_t> host) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return failed(errno);
  if (status.st_uid != geteuid() && status.st_uid != host && !isOfTheSystem(status.st_uid)) {
    return distrusted("'" + path + "' belongs to " + userText(status.st_uid));
  }
  if (!S_ISREG(status.st_mode)) return std::nullopt;
  if (const auto others = otherWriters(descriptor, status)) {
    return distrusted("'" + path + "' is not safe: " + *others + "; 'chmod go-w' mends that");
  }
  return std::nullopt;
}

Result<FileHandle, PathRefusal> openTrustedFile(const TrustedPlace& place, int flags, mode_t mode) {
  constexpr int kAlways = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  FileHandle file(openat(place.folder.fileDescriptor(), place.name.c_str(), flags | kAlways, mode));
  if (!file.isOpen()) return failed(errno);
  if (auto refusal = refuseFile(file.fileDescriptor(), place.path, place.host)) return *std::move(refusal);
  return file;
}

Result<FileHandle, PathRefusal> openTrustedFile(const std::string& path, int flags, mode_t mode) {
  const auto place = findTrustedPlace(path);
  if (!place) return place.error();
  return openTrustedFile(*place, flags, mode);
}

}  // namespace platform
