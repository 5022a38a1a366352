#include "platform/reachability/NetlinkSocket.h"

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace platform {

namespace {

// The kernel fills at most a page, or 32 KiB of a dump, in one message.
constexpr std::size_t kBufferSize = 32U << 10U;
constexpr int kAttempts = 8;

/// What an NLMSG_ERROR or NLMSG_DONE says, as an errno(3). Both begin with the negative number; an NLMSG_DONE may be without.
int errorIn(const nlmsghdr& message) {
  if (mnl_nlmsg_get_payload_len(&message) < sizeof(int)) return 0;
  return -*static_cast<const int*>(mnl_nlmsg_get_payload(&message));
}

}  // namespace

void NetlinkSocket::Close::operator()(mnl_socket* socket) const { mnl_socket_close(socket); }

std::optional<NetlinkSocket> NetlinkSocket::open(const std::vector<unsigned>& groups) {
  mnl_socket* opened = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
  if (opened == nullptr) return std::nullopt;
  NetlinkSocket socket(opened);
  if (mnl_socket_bind(opened, 0, MNL_SOCKET_AUTOPID) < 0) return std::nullopt;
  for (unsigned group : groups) {
    if (mnl_socket_setsockopt(opened, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0) return std::nullopt;
  }
  return socket;
}

int NetlinkSocket::fileDescriptor() const { return mnl_socket_get_fd(socket_.get()); }

void NetlinkSocket::setReceiveBuffer(int bytes) { setsockopt(fileDescriptor(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes); }

NetlinkSocket::Answer NetlinkSocket::ask(nlmsghdr& request, const Visitor& visitor) {
  for (int attempt = 1;; ++attempt) {
    request.nlmsg_seq = ++sequence_;
    if (mnl_socket_sendto(socket_.get(), &request, request.nlmsg_len) < 0) return errno;
    bool interrupted = false;
    const Answer answer = readAnswer(request.nlmsg_seq, visitor, interrupted);
    const bool incomplete = interrupted || answer == ENOBUFS;
    if (!incomplete || attempt == kAttempts) return answer;
  }
}

NetlinkSocket::Answer NetlinkSocket::readAnswer(std::uint32_t sequence, const Visitor& visitor, bool& interrupted) {
  alignas(nlmsghdr) std::array<char, kBufferSize> buffer;
  for (;;) {
    const ssize_t received = mnl_socket_recvfrom(socket_.get(), buffer.data(), buffer.size());
    if (received < 0 && errno == EINTR) continue;
    if (received < 0) return errno;
    int left = static_cast<int>(received);
    for (auto* message = reinterpret_cast<nlmsghdr*>(buffer.data()); mnl_nlmsg_ok(message, left);
         message = mnl_nlmsg_next(message, &left)) {
      // What an abandoned answer left behind has an older number.
      if (message->nlmsg_seq != sequence) continue;
      if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0) interrupted = true;
      if (message->nlmsg_type == NLMSG_ERROR || message->nlmsg_type == NLMSG_DONE) return errorIn(*message);
      if (message->nlmsg_type >= NLMSG_MIN_TYPE) visitor(*message);
      // One message that is not part of several is a whole answer.
      if ((message->nlmsg_flags & NLM_F_MULTI) == 0) return 0;
    }
  }
}

NetlinkSocket::Drained NetlinkSocket::drain() {
  std::array<char, 1> byte;
  Drained drained = Drained::Nothing;
  for (;;) {
    // Each message is cut to one byte: what it says does not matter, only that it came.
    if (recv(fileDescriptor(), byte.data(), byte.size(), MSG_DONTWAIT | MSG_TRUNC) >= 0) {
      if (drained == Drained::Nothing) drained = Drained::Messages;
    } else if (errno == ENOBUFS) {
      drained = Drained::Overrun;
    } else if (errno != EINTR) {
      return drained;
    }
  }
}

}  // namespace platform
