#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/xpc/channel/Credentials.h"
#include "platform/xpc/channel/Frame.h"

// Internal to the channel: one recvmsg and one sendmsg with what travels beside the bytes (unix(7)).
namespace platform::xpc {

/// A frame on its way out.
struct OutgoingFrame {
  std::vector<std::byte> bytes;
  std::vector<std::shared_ptr<const FileHandle>> descriptors;
  std::size_t written = 0;

  /// A frame without a payload, or with an encoded value.
  static OutgoingFrame make(FrameKind kind, Encoded value = {});
};

/// Makes the kernel deliver the sender's credentials on this socket.
void enableCredentials(int socket);

struct Received {
  std::size_t bytes = 0;
  std::vector<FileHandle> descriptors;
  /// Nothing when the kernel had none.
  std::optional<Credentials> credentials;
};
enum class Blocked { Yes };
/// Reads what is there into `buffer`. 0 bytes are the end of the stream. Never blocks.
std::variant<Received, Blocked, WireError> receive(int socket, std::span<std::byte> buffer);
/// Writes what fits of `frames` (at least one), with the first one's descriptors at its first byte and, when asked, this process's
/// credentials. The others have no descriptors and nothing written. Never blocks.
std::variant<std::size_t, Blocked, WireError> transmit(int socket, std::span<const OutgoingFrame* const> frames, bool withCredentials);
/// How many frames one call takes.
inline constexpr std::size_t kMaximumFramesAtOnce = 64;

}  // namespace platform::xpc
