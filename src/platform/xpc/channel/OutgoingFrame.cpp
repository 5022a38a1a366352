#include "platform/xpc/channel/OutgoingFrame.h"

#include <utility>

namespace platform::xpc {

OutgoingFrame OutgoingFrame::make(FrameKind kind, Encoded value) {
  const auto header = frameHeader(kind, value.bytes.size(), value.descriptors.size());
  OutgoingFrame frame;
  frame.bytes.reserve(header.size() + value.bytes.size());
  frame.bytes.assign(header.begin(), header.end());
  frame.bytes.insert(frame.bytes.end(), value.bytes.begin(), value.bytes.end());
  frame.descriptors = std::move(value.descriptors);
  return frame;
}

}  // namespace platform::xpc
