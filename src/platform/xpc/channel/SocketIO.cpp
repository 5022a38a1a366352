#include "platform/xpc/channel/SocketIO.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/foundation/base/SystemError.h"

namespace platform::xpc {

namespace {

constexpr std::size_t kDescriptorSpace = CMSG_SPACE(kMaximumDescriptors * sizeof(int));
constexpr std::size_t kControlSpace = kDescriptorSpace + CMSG_SPACE(sizeof(ucred));

/// Takes ownership of every descriptor that the kernel installed, also of those of a message that is then refused.
void takeControl(msghdr& message, Received& received) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level != SOL_SOCKET) continue;
    if (part->cmsg_type == SCM_RIGHTS) {
      const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      for (std::size_t i = 0; i < count; ++i) {
        int descriptor = -1;
        std::memcpy(&descriptor, CMSG_DATA(part) + i * sizeof(int), sizeof descriptor);
        received.descriptors.emplace_back(descriptor);
      }
    } else if (part->cmsg_type == SCM_CREDENTIALS) {
      ucred sender{};
      std::memcpy(&sender, CMSG_DATA(part), sizeof sender);
      // A process of another pid namespace appears as 0, and so does a sender that gave none.
      if (sender.pid != 0) received.credentials = Credentials{.pid = sender.pid, .euid = sender.uid, .egid = sender.gid};
    }
  }
}

/// Fills the control block of the first bytes of a frame.
void putControl(msghdr& message, const OutgoingFrame& frame, bool withCredentials) {
  std::size_t used = 0;
  const auto part = [&](int type, std::size_t size) {
    auto* header = reinterpret_cast<cmsghdr*>(static_cast<char*>(message.msg_control) + used);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = type;
    header->cmsg_len = CMSG_LEN(size);
    used += CMSG_SPACE(size);
    return CMSG_DATA(header);
  };
  if (withCredentials) {
    const ucred own{.pid = getpid(), .uid = geteuid(), .gid = getegid()};
    std::memcpy(part(SCM_CREDENTIALS, sizeof own), &own, sizeof own);
  }
  if (!frame.descriptors.empty()) {
    unsigned char* place = part(SCM_RIGHTS, frame.descriptors.size() * sizeof(int));
    for (const auto& handle : frame.descriptors) {
      const int descriptor = handle->fileDescriptor();
      std::memcpy(place, &descriptor, sizeof descriptor);
      place += sizeof descriptor;
    }
  }
  message.msg_controllen = used;
  if (used == 0) message.msg_control = nullptr;
}

}  // namespace

void enableCredentials(int socket) {
  const int on = 1;
  setsockopt(socket, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
}

Result<std::optional<Received>, WireError> receiveSome(int socket, std::span<std::byte> buffer) {
  alignas(cmsghdr) std::array<char, kControlSpace> control{};
  iovec place{.iov_base = buffer.data(), .iov_len = buffer.size()};
  msghdr message{};
  message.msg_iov = &place;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  ssize_t size = 0;
  do {
    size = recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
  } while (size < 0 && errno == EINTR);
  if (size < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) return std::optional<Received>();
    return WireError{errnoText(errno)};
  }
  Received received;
  received.bytes = static_cast<std::size_t>(size);
  takeControl(message, received);
  if ((message.msg_flags & MSG_CTRUNC) != 0) return WireError{"more descriptors came than a message may hold or this process can take"};
  return std::optional(std::move(received));
}

Result<std::optional<std::size_t>, WireError> sendSome(int socket, std::span<const OutgoingFrame* const> frames, bool withCredentials) {
  alignas(cmsghdr) std::array<char, kControlSpace> control;
  std::array<iovec, kMaximumFramesAtOnce> places;
  const std::size_t count = std::min(frames.size(), places.size());
  for (std::size_t i = 0; i < count; ++i) {
    const OutgoingFrame& frame = *frames[i];
    // The interface predates const; sendmsg only reads.
    places[i] = {.iov_base = const_cast<std::byte*>(frame.bytes.data() + frame.written), .iov_len = frame.bytes.size() - frame.written};
  }
  msghdr message{};
  message.msg_iov = places.data();
  message.msg_iovlen = count;
  if (frames.front()->written == 0) {
    message.msg_control = control.data();
    putControl(message, *frames.front(), withCredentials);
  }
  ssize_t size = 0;
  do {
    size = sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (size < 0 && errno == EINTR);
  if (size >= 0) return std::optional(static_cast<std::size_t>(size));
  if (errno == EAGAIN || errno == EWOULDBLOCK) return std::optional<std::size_t>();
  return WireError{errnoText(errno)};
}

}  // namespace platform::xpc
