#include "tests/fsevents/support/fuse/FuseServer.h"

#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace kestrine::test {

namespace {

constexpr std::uint32_t kMinorVersion = 31;
constexpr std::uint32_t kLargestWrite = 1U << 17U;
// The kernel refuses to be read with less than its largest question.
constexpr std::size_t kQuestionSize = kLargestWrite + 4096;

}  // namespace

const FuseServer::Operation* FuseServer::find(std::uint32_t code) {
  static constexpr Operation kOperations[] = {
      {FUSE_INIT, "begin", &FuseServer::begin, -1},
      {FUSE_STATFS, "statfs", &FuseServer::statistics, -1},
      {FUSE_LOOKUP, "lookup", &FuseServer::lookup, 0},
      {FUSE_GETATTR, "getattr", &FuseServer::attributes, -1},
      {FUSE_SETATTR, "setattr", &FuseServer::setAttributes, -1},
      {FUSE_MKNOD, "mknod", &FuseServer::makeNode, sizeof(fuse_mknod_in)},
      {FUSE_MKDIR, "mkdir", &FuseServer::makeFolder, sizeof(fuse_mkdir_in)},
      {FUSE_SYMLINK, "symlink", &FuseServer::makeLink, 0},
      {FUSE_LINK, "link", &FuseServer::makeHardLink, sizeof(fuse_link_in)},
      {FUSE_READLINK, "readlink", &FuseServer::readLink, -1},
      {FUSE_UNLINK, "unlink", &FuseServer::removeFile, 0},
      {FUSE_RMDIR, "rmdir", &FuseServer::removeFolder, 0},
      {FUSE_RENAME, "rename", &FuseServer::rename, sizeof(fuse_rename_in)},
      {FUSE_RENAME2, "rename", &FuseServer::renameWithFlags, sizeof(fuse_rename2_in)},
      {FUSE_OPEN, "open", &FuseServer::open, -1},
      {FUSE_CREATE, "create", &FuseServer::create, sizeof(fuse_create_in)},
      {FUSE_READ, "read", &FuseServer::read, -1},
      {FUSE_WRITE, "write", &FuseServer::write, -1},
      {FUSE_RELEASE, "release", &FuseServer::close, -1},
      {FUSE_FSYNC, "fsync", &FuseServer::synchronise, -1},
      {FUSE_OPENDIR, "opendir", &FuseServer::openFolder, -1},
      {FUSE_READDIR, "readdir", &FuseServer::readFolder, -1},
      {FUSE_RELEASEDIR, "releasedir", &FuseServer::closeFolder, -1},
      {FUSE_FSYNCDIR, "fsyncdir", &FuseServer::synchronise, -1},
  };
  for (const Operation& operation : kOperations) {
    if (operation.code == code) return &operation;
  }
  return nullptr;
}

bool FuseServer::serveOne() {
  alignas(fuse_in_header) static std::array<char, kQuestionSize> bytes;
  const ssize_t count = ::read(device_.fileDescriptor(), bytes.data(), bytes.size());
  // ENOENT: the one who asked has gone meanwhile.
  if (count < 0) return errno == EINTR || errno == EAGAIN || errno == ENOENT;
  const auto& header = *reinterpret_cast<const fuse_in_header*>(bytes.data());
  const std::string_view body(bytes.data() + sizeof header, static_cast<std::size_t>(count) - sizeof header);
  switch (header.opcode) {
    case FUSE_FORGET:
    case FUSE_BATCH_FORGET:
    case FUSE_INTERRUPT:
      return true;  // no answer is waited for
    default:
      break;
  }
  reply_.clear();
  if (const Operation* operation = find(header.opcode)) {
    answer(*operation, header, body);
  } else {
    send(header.unique, ENOSYS);
  }
  return true;
}

void FuseServer::answer(const Operation& operation, const fuse_in_header& header, std::string_view body) {
  Question question{header, body, {}};
  if (operation.code != FUSE_INIT && operation.code != FUSE_STATFS) {
    const std::string* path = nodes_.pathOf(header.nodeid);
    if (path == nullptr) {
      send(header.unique, ESTALE);
      return;
    }
    question.path = *path;
  }
  if (operation.nameAfter >= 0) {
    if (!question.path.empty()) question.path += '/';
    question.path += question.name(static_cast<std::size_t>(operation.nameAfter));
  }
  int error = faults_.ask(operation.name, question.path);
  if (error == 0) error = (this->*operation.answer)(question);
  send(header.unique, error);
}

void FuseServer::send(std::uint64_t unique, int error) {
  if (error != 0) reply_.clear();
  fuse_out_header header{static_cast<std::uint32_t>(sizeof header + reply_.size()), -error, unique};
  std::array<iovec, 2> parts{iovec{&header, sizeof header}, iovec{reply_.data(), reply_.size()}};
  // It fails when the one who asked was interrupted, or the file system has gone: then nobody waits for it.
  [[maybe_unused]] const ssize_t written = ::writev(device_.fileDescriptor(), parts.data(), parts.size());
}

int FuseServer::begin(const Question& question) {
  fuse_init_out out{};
  out.major = FUSE_KERNEL_VERSION;
  out.minor = kMinorVersion;
  out.max_readahead = question.part<fuse_init_in>().max_readahead;
  out.max_write = kLargestWrite;
  out.time_gran = 1;
  put(out);
  return 0;
}

}  // namespace kestrine::test
