#pragma once

#include <sys/types.h>

#include <cstdint>

// Internal to the channel: who is at the other end of a socket.
namespace platform::xpc {

/// What a process without an audit session has (audit(7)).
inline constexpr std::uint32_t kNoAuditSession = 0xFFFFFFFFU;

struct Credentials {
  pid_t pid = 0;
  uid_t euid = 0;
  gid_t egid = 0;
  std::uint32_t asid = kNoAuditSession;
};

/// Whether a client believes a server with these: this user's own, or root's.
bool isBelieved(const Credentials& server);
/// The audit session of the process `pid`; kNoAuditSession when it has none or is gone.
std::uint32_t auditSession(pid_t pid);
/// User and group of whoever made the other end listen or connect (SO_PEERCRED, unix(7)). Its pid is left out: an inherited listener was
/// made by the launcher.
Credentials socketOwner(int socket);
/// The process that connected the other end (SO_PEERCRED), whatever it says of itself; 0 when it has no number here.
pid_t connectingProcess(int socket);

}  // namespace platform::xpc
