#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

struct mnl_socket;
struct nlmsghdr;

namespace platform {

/// A socket to the kernel's routing side, rtnetlink(7), over libmnl. Internal to this room.
/// Threads: one at a time. The kernel answers for the network namespace of the thread that opened it.
class NetlinkSocket {
 public:
  /// How a request ended, in the kernel's words: 0, or an errno(3) such as ENETUNREACH for "no route".
  using Answer = int;
  using Visitor = std::function<void(const nlmsghdr& message)>;

  /// Opens a socket that belongs to the multicast groups `groups` (RTNLGRP_...). Empty when the system refuses.
  static std::optional<NetlinkSocket> open(const std::vector<unsigned>& groups = {});

  [[nodiscard]] int fileDescriptor() const;
  /// Room for what waits to be read, in bytes as SO_RCVBUF takes them; the kernel has a least size of its own.
  void setReceiveBuffer(int bytes);

  /// Sends `request`, whose length, type and flags are set, and calls `visitor` for each message of the answer. A dump that changed while
  /// it was read is asked for again, so a visitor may see a message twice.
  Answer ask(nlmsghdr& request, const Visitor& visitor);

  /// What `drain` found.
  enum class Drained { Nothing, Messages, Overrun };
  /// Throws away everything that waits, without sleeping. `Overrun` when the kernel had to drop messages since the last call.
  Drained drain();

 private:
  struct Close {
    void operator()(mnl_socket* socket) const;
  };
  explicit NetlinkSocket(mnl_socket* socket) : socket_(socket) {}

  /// Reads one answer to its end. `interrupted` tells of a dump that is not of one moment.
  Answer readAnswer(std::uint32_t sequence, const Visitor& visitor, bool& interrupted);

  std::unique_ptr<mnl_socket, Close> socket_;
  std::uint32_t sequence_ = 0;
};

}  // namespace platform
