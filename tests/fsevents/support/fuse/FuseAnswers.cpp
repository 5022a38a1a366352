#include <dirent.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>

#include "tests/fsevents/support/fuse/FuseServer.h"

// What the file system answers about files and folders: what the folder behind it does.

namespace kestrine::test {

namespace {

constexpr std::size_t kEntriesAtOnce = 16;

int result(int returned) { return returned < 0 ? errno : 0; }

// The folder itself has no name in itself.
const char* spelled(const std::string& path) { return path.empty() ? "." : path.c_str(); }

fuse_attr attributesOf(const struct statx& facts) {
  fuse_attr attr{};
  attr.ino = facts.stx_ino;
  attr.size = facts.stx_size;
  attr.blocks = facts.stx_blocks;
  attr.atime = static_cast<std::uint64_t>(facts.stx_atime.tv_sec);
  attr.mtime = static_cast<std::uint64_t>(facts.stx_mtime.tv_sec);
  attr.ctime = static_cast<std::uint64_t>(facts.stx_ctime.tv_sec);
  attr.atimensec = facts.stx_atime.tv_nsec;
  attr.mtimensec = facts.stx_mtime.tv_nsec;
  attr.ctimensec = facts.stx_ctime.tv_nsec;
  attr.mode = facts.stx_mode;
  attr.nlink = facts.stx_nlink;
  attr.uid = facts.stx_uid;
  attr.gid = facts.stx_gid;
  attr.blksize = facts.stx_blksize;
  return attr;
}

timespec timeOf(const fuse_setattr_in& in, std::uint32_t given, std::uint32_t now, std::uint64_t seconds, std::uint32_t nanoseconds) {
  if ((in.valid & now) != 0) return {0, UTIME_NOW};
  if ((in.valid & given) == 0) return {0, UTIME_OMIT};
  return {static_cast<time_t>(seconds), static_cast<long>(nanoseconds)};
}

}  // namespace

int FuseServer::facts(const std::string& path, struct statx& facts) const {
  return result(::statx(backing_.fileDescriptor(), spelled(path), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &facts));
}

int FuseServer::entry(const std::string& path) {
  struct statx found {};
  if (const int error = facts(path, found); error != 0) return error;
  fuse_entry_out out{};
  out.nodeid = nodes_.numberOf(path, found);
  out.attr = attributesOf(found);
  put(out);
  return 0;
}

int FuseServer::statistics(const Question&) {
  struct statvfs info {};
  if (::fstatvfs(backing_.fileDescriptor(), &info) != 0) return errno;
  fuse_statfs_out out{};
  out.st.blocks = info.f_blocks;
  out.st.bfree = info.f_bfree;
  out.st.bavail = info.f_bavail;
  out.st.files = info.f_files;
  out.st.ffree = info.f_ffree;
  out.st.bsize = static_cast<std::uint32_t>(info.f_bsize);
  out.st.namelen = NAME_MAX;
  out.st.frsize = static_cast<std::uint32_t>(info.f_frsize);
  put(out);
  return 0;
}

int FuseServer::lookup(const Question& question) { return entry(question.path); }

int FuseServer::attributes(const Question& question) {
  const auto& in = question.part<fuse_getattr_in>();
  struct statx found {};
  // An open file may have lost its name.
  const bool open = (in.getattr_flags & FUSE_GETATTR_FH) != 0;
  const int error =
      open ? result(::statx(static_cast<int>(in.fh), "", AT_EMPTY_PATH, STATX_BASIC_STATS, &found)) : facts(question.path, found);
  if (error != 0) return error;
  fuse_attr_out out{};
  out.attr = attributesOf(found);
  put(out);
  return 0;
}

int FuseServer::setAttributes(const Question& question) {
  const auto& in = question.part<fuse_setattr_in>();
  const int folder = backing_.fileDescriptor();
  const char* path = spelled(question.path);
  if ((in.valid & FATTR_MODE) != 0 && ::fchmodat(folder, path, in.mode & 07777U, 0) != 0) return errno;
  if ((in.valid & FATTR_SIZE) != 0) {
    const platform::FileHandle file(::openat(folder, path, O_WRONLY | O_CLOEXEC));
    if (!file.isOpen() || ::ftruncate(file.fileDescriptor(), static_cast<off_t>(in.size)) != 0) return errno;
  }
  if ((in.valid & (FATTR_ATIME | FATTR_MTIME)) != 0) {
    const timespec times[] = {timeOf(in, FATTR_ATIME, FATTR_ATIME_NOW, in.atime, in.atimensec),
                              timeOf(in, FATTR_MTIME, FATTR_MTIME_NOW, in.mtime, in.mtimensec)};
    if (::utimensat(folder, path, times, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  }
  struct statx found {};
  if (const int error = facts(question.path, found); error != 0) return error;
  fuse_attr_out out{};
  out.attr = attributesOf(found);
  put(out);
  return 0;
}

int FuseServer::makeNode(const Question& question) {
  const auto& in = question.part<fuse_mknod_in>();
  if (::mknodat(backing_.fileDescriptor(), question.path.c_str(), in.mode, in.rdev) != 0) return errno;
  return entry(question.path);
}

int FuseServer::makeFolder(const Question& question) {
  if (::mkdirat(backing_.fileDescriptor(), question.path.c_str(), question.part<fuse_mkdir_in>().mode) != 0) return errno;
  return entry(question.path);
}

int FuseServer::makeLink(const Question& question) {
  const char* target = question.name(std::strlen(question.name(0)) + 1);
  if (::symlinkat(target, backing_.fileDescriptor(), question.path.c_str()) != 0) return errno;
  return entry(question.path);
}

int FuseServer::makeHardLink(const Question& question) {
  const std::string* existing = nodes_.pathOf(question.part<fuse_link_in>().oldnodeid);
  if (existing == nullptr) return ESTALE;
  const int folder = backing_.fileDescriptor();
  if (::linkat(folder, existing->c_str(), folder, question.path.c_str(), 0) != 0) return errno;
  return entry(question.path);
}

int FuseServer::readLink(const Question& question) {
  std::string target(PATH_MAX, '\0');
  const ssize_t size = ::readlinkat(backing_.fileDescriptor(), question.path.c_str(), target.data(), target.size());
  if (size < 0) return errno;
  reply_.assign(target, 0, static_cast<std::size_t>(size));
  return 0;
}

int FuseServer::removeFile(const Question& question) { return result(::unlinkat(backing_.fileDescriptor(), question.path.c_str(), 0)); }

int FuseServer::removeFolder(const Question& question) {
  return result(::unlinkat(backing_.fileDescriptor(), question.path.c_str(), AT_REMOVEDIR));
}

int FuseServer::rename(const Question& question) {
  return renameTo(question, question.part<fuse_rename_in>().newdir, 0, question.name(sizeof(fuse_rename_in)));
}

int FuseServer::renameWithFlags(const Question& question) {
  const auto& in = question.part<fuse_rename2_in>();
  return renameTo(question, in.newdir, in.flags, question.name(sizeof(fuse_rename2_in)));
}

int FuseServer::renameTo(const Question& question, std::uint64_t folder, unsigned flags, const char* names) {
  const std::string* newFolder = nodes_.pathOf(folder);
  if (newFolder == nullptr) return ESTALE;
  const std::string to = (newFolder->empty() ? "" : *newFolder + "/") + (names + std::strlen(names) + 1);
  const int backing = backing_.fileDescriptor();
  if (::renameat2(backing, question.path.c_str(), backing, to.c_str(), flags) != 0) return errno;
  if ((flags & RENAME_EXCHANGE) != 0) {
    nodes_.exchanged(question.path, to);
  } else {
    nodes_.moved(question.path, to);
  }
  return 0;
}

int FuseServer::open(const Question& question) {
  const int flags = static_cast<int>(question.part<fuse_open_in>().flags) & (O_ACCMODE | O_TRUNC);
  const int file = ::openat(backing_.fileDescriptor(), question.path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW);
  if (file < 0) return errno;
  fuse_open_out out{};
  out.fh = static_cast<std::uint64_t>(file);
  put(out);
  return 0;
}

int FuseServer::create(const Question& question) {
  const auto& in = question.part<fuse_create_in>();
  const int flags = static_cast<int>(in.flags) & (O_ACCMODE | O_TRUNC | O_EXCL);
  const int file = ::openat(backing_.fileDescriptor(), question.path.c_str(), flags | O_CREAT | O_CLOEXEC | O_NOFOLLOW, in.mode);
  if (file < 0) return errno;
  if (const int error = entry(question.path); error != 0) {
    ::close(file);
    return error;
  }
  fuse_open_out out{};
  out.fh = static_cast<std::uint64_t>(file);
  put(out);
  return 0;
}

int FuseServer::read(const Question& question) {
  const auto& in = question.part<fuse_read_in>();
  reply_.resize(in.size);
  const ssize_t count = ::pread(static_cast<int>(in.fh), reply_.data(), in.size, static_cast<off_t>(in.offset));
  if (count < 0) return errno;
  reply_.resize(static_cast<std::size_t>(count));
  return 0;
}

int FuseServer::write(const Question& question) {
  const auto& in = question.part<fuse_write_in>();
  // Where a file was opened for appending the kernel has put the offset already.
  const ssize_t count = ::pwrite(static_cast<int>(in.fh), question.name(sizeof in), in.size, static_cast<off_t>(in.offset));
  if (count < 0) return errno;
  fuse_write_out out{};
  out.size = static_cast<std::uint32_t>(count);
  put(out);
  return 0;
}

int FuseServer::close(const Question& question) {
  ::close(static_cast<int>(question.part<fuse_release_in>().fh));
  return 0;
}

int FuseServer::synchronise(const Question&) { return 0; }

int FuseServer::openFolder(const Question& question) {
  const int folder = ::openat(backing_.fileDescriptor(), spelled(question.path), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
  if (folder < 0) return errno;
  DIR* const stream = ::fdopendir(folder);
  std::vector<Entry>& entries = listings_[++lastListing_];
  while (const dirent* found = ::readdir(stream)) entries.push_back({found->d_name, found->d_ino, found->d_type});
  ::closedir(stream);
  fuse_open_out out{};
  out.fh = lastListing_;
  put(out);
  return 0;
}

int FuseServer::readFolder(const Question& question) {
  const auto& in = question.part<fuse_read_in>();
  if (in.offset > 0) {
    if (const int error = faults_.ask("readdirRest", question.path); error != 0) return error;
  }
  const std::vector<Entry>& entries = listings_[in.fh];
  for (std::size_t at = in.offset; at < entries.size() && at < in.offset + kEntriesAtOnce; ++at) {
    const Entry& found = entries[at];
    const fuse_dirent head{found.inode, at + 1, static_cast<std::uint32_t>(found.name.size()), found.type};
    const std::size_t size = FUSE_REC_ALIGN(FUSE_NAME_OFFSET + found.name.size());
    if (reply_.size() + size > in.size) break;
    const std::size_t begin = reply_.size();
    reply_.append(reinterpret_cast<const char*>(&head), FUSE_NAME_OFFSET);
    reply_ += found.name;
    reply_.resize(begin + size);
  }
  return 0;
}

int FuseServer::closeFolder(const Question& question) {
  listings_.erase(question.part<fuse_release_in>().fh);
  return 0;
}

}  // namespace kestrine::test
