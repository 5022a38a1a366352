#include "platform/xpc/channel/Credentials.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <string>

#include "platform/foundation/base/FileHandle.h"

namespace platform::xpc {

bool isBelieved(const Credentials& server) { return server.euid == geteuid() || server.euid == 0; }

std::uint32_t auditSession(pid_t pid) {
  const FileHandle file(open(("/proc/" + std::to_string(pid) + "/sessionid").c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, 16> text{};
  const ssize_t size = file.isOpen() ? read(file.fileDescriptor(), text.data(), text.size()) : -1;
  std::uint32_t session = kNoAuditSession;
  if (size <= 0 || std::from_chars(text.data(), text.data() + size, session).ec != std::errc{}) return kNoAuditSession;
  return session;
}

namespace {

ucred peerOf(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer : ucred{};
}

}  // namespace

pid_t connectingProcess(int socket) { return peerOf(socket).pid; }

Credentials socketOwner(int socket) {
  const ucred peer = peerOf(socket);
  return {.pid = 0, .euid = peer.uid, .egid = peer.gid, .asid = kNoAuditSession};
}

}  // namespace platform::xpc
