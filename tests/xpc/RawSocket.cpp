#include "tests/xpc/RawSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace kestrine::test {

namespace {

using platform::FileHandle;

constexpr int kWaitMilliseconds = 60'000;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) throw std::runtime_error("the path is too long for this test");
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return address;
}

FileHandle newSocket() { return FileHandle(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

bool waitReadable(const FileHandle& socket) {
  pollfd wanted{.fd = socket.fileDescriptor(), .events = POLLIN, .revents = 0};
  return poll(&wanted, 1, kWaitMilliseconds) == 1;
}

}  // namespace

std::string little32(std::uint64_t value) { return little64(value).substr(0, 4); }

std::string little64(std::uint64_t value) {
  std::string bytes;
  for (int i = 0; i < 8; ++i) bytes += static_cast<char>((value >> (8 * i)) & 0xFFU);
  return bytes;
}

std::string encodedText(const std::string& text) { return "\x07" + little32(text.size()) + text; }

std::string encodedDictionary(const std::vector<std::pair<std::string, std::string>>& entries) {
  std::string bytes = "\x0c" + little32(entries.size());
  for (const auto& [key, value] : entries) bytes += little32(key.size()) + key + encodedText(value);
  return bytes;
}

std::string frame(int kind, const std::string& payload, int descriptors) {
  std::string bytes = little32(payload.size());
  bytes += static_cast<char>(kind);
  bytes += '\x01';
  return bytes + little32(static_cast<std::uint64_t>(descriptors)).substr(0, 2) + payload;
}

std::string commandFrame(const std::string& text) { return frame(kMessage, encodedDictionary({{"command", text}})); }

std::vector<FileHandle> nullDescriptors(std::size_t count) {
  std::vector<FileHandle> handles;
  for (std::size_t i = 0; i < count; ++i) handles.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
  return handles;
}

std::pair<FileHandle, FileHandle> socketPair() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) throw std::runtime_error("no socket pair");
  return {FileHandle(ends[0]), FileHandle(ends[1])};
}

FileHandle listenAt(const std::string& path) {
  FileHandle listener = newSocket();
  const sockaddr_un address = addressOf(path);
  if (bind(listener.fileDescriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener.fileDescriptor(), 512) != 0) {
    throw std::runtime_error("cannot listen at " + path + ": " + std::strerror(errno));
  }
  return listener;
}

FileHandle connectTo(const std::string& path) {
  FileHandle socket = newSocket();
  const sockaddr_un address = addressOf(path);
  if (connect(socket.fileDescriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("cannot connect to " + path + ": " + std::strerror(errno));
  }
  return socket;
}

bool sendBytes(const FileHandle& socket, const std::string& bytes, const std::vector<int>& descriptors, bool credentials) {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(253 * sizeof(int)) + CMSG_SPACE(sizeof(ucred))> control{};
  std::size_t used = 0;
  const auto add = [&](int type, const void* data, std::size_t size) {
    auto* part = reinterpret_cast<cmsghdr*>(control.data() + used);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = type;
    part->cmsg_len = CMSG_LEN(size);
    std::memcpy(CMSG_DATA(part), data, size);
    used += CMSG_SPACE(size);
  };
  const ucred own{.pid = getpid(), .uid = geteuid(), .gid = getegid()};
  if (credentials) add(SCM_CREDENTIALS, &own, sizeof own);
  if (!descriptors.empty()) add(SCM_RIGHTS, descriptors.data(), descriptors.size() * sizeof(int));

  for (std::size_t sent = 0; sent < bytes.size();) {
    iovec place{.iov_base = const_cast<char*>(bytes.data() + sent), .iov_len = bytes.size() - sent};
    msghdr message{};
    message.msg_iov = &place;
    message.msg_iovlen = 1;
    if (sent == 0 && used > 0) {
      message.msg_control = control.data();
      message.msg_controllen = used;
    }
    const ssize_t size = sendmsg(socket.fileDescriptor(), &message, MSG_NOSIGNAL);
    if (size < 0) return false;
    sent += static_cast<std::size_t>(size);
  }
  return true;
}

std::string readBytes(const FileHandle& socket, std::size_t size) {
  std::string bytes(size, '\0');
  std::size_t got = 0;
  while (got < size && waitReadable(socket)) {
    const ssize_t more = recv(socket.fileDescriptor(), bytes.data() + got, size - got, 0);
    if (more <= 0) break;
    got += static_cast<std::size_t>(more);
  }
  bytes.resize(got);
  return bytes;
}

std::optional<RawFrame> readFrame(const FileHandle& socket) {
  const std::string header = readBytes(socket, 8);
  if (header.size() < 8) return std::nullopt;
  std::uint32_t size = 0;
  for (int i = 3; i >= 0; --i) size = (size << 8U) | static_cast<unsigned char>(header[static_cast<std::size_t>(i)]);
  RawFrame read{header[4], readBytes(socket, size)};
  if (read.payload.size() < size) return std::nullopt;
  return read;
}

bool isClosed(const FileHandle& socket) {
  std::array<char, 65536> buffer{};
  while (waitReadable(socket)) {
    if (recv(socket.fileDescriptor(), buffer.data(), buffer.size(), 0) <= 0) return true;
  }
  return false;
}

}  // namespace kestrine::test
