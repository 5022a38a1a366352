#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Result.h"
#include "platform/xpc/channel/Credentials.h"
#include "platform/xpc/channel/Frame.h"
#include "platform/xpc/channel/OutgoingFrame.h"

// Internal to the channel: one recvmsg and one sendmsg with what travels beside the bytes (unix(7)).
namespace platform::xpc {

/// Makes the kernel deliver the sender's credentials on this socket.
void enableCredentials(int socket);

struct Received {
  std::size_t bytes = 0;
  std::vector<FileHandle> descriptors;
  /// Nothing when the kernel had none.
  std::optional<Credentials> credentials;
};
/// Reads what is there into `buffer`; nothing when there is nothing yet. 0 bytes are the end of the stream. Never blocks.
Result<std::optional<Received>, WireError> receiveSome(int socket, std::span<std::byte> buffer);
/// Writes what fits of `frames` (at least one), with the first one's descriptors at its first byte and, when asked, this process's
/// credentials. The others have no descriptors and nothing written. The number of bytes; nothing when the socket takes none now. Never
/// blocks.
Result<std::optional<std::size_t>, WireError> sendSome(int socket, std::span<const OutgoingFrame* const> frames, bool withCredentials);
/// How many frames one call takes.
inline constexpr std::size_t kMaximumFramesAtOnce = 64;

}  // namespace platform::xpc
