#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/xpc/channel/Frame.h"
#include "platform/xpc/value/WireFormat.h"

namespace platform::xpc {

/// A frame on its way out.
struct OutgoingFrame {
  std::vector<std::byte> bytes;
  std::vector<std::shared_ptr<const FileHandle>> descriptors;
  std::size_t written = 0;

  /// A frame without a payload, or with an encoded value.
  static OutgoingFrame make(FrameKind kind, Encoded value = {});
};

}  // namespace platform::xpc
