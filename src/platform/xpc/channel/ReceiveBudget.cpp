#include "platform/xpc/channel/ReceiveBudget.h"

#include <unordered_map>
#include <utility>

#include "platform/foundation/base/Mutex.h"
#include "platform/xpc/value/WireFormat.h"

namespace platform::xpc {

namespace {

struct Share {
  std::size_t descriptors = 0;
  std::size_t bytes = 0;
};

struct Shares {
  Share all;
  /// Of those that hold something.
  std::unordered_map<pid_t, Share> ofSenders;

  [[nodiscard]] Share of(pid_t sender) const {
    const auto found = ofSenders.find(sender);
    return found == ofSenders.end() ? Share() : found->second;
  }
};

Guarded<Shares>& shares() {
  static auto& all = *new Guarded<Shares>;
  return all;
}

/// What every sender may hold, whatever the others do: a whole frame.
constexpr std::size_t kFrameBytes = kMaximumPayloadBytes + ReceiveBudget::kExemptBytes;

/// One row of the header's table after the other.
constexpr bool exceeds(std::size_t mine, std::size_t all, std::size_t limit, std::size_t frame) {
  return mine > limit || (all > 2 * limit && mine > frame) || all > 4 * limit;
}

}  // namespace

ReceiveBudget::ReceiveBudget(pid_t sender, std::size_t descriptors, std::size_t bytes)
    : sender_(sender), descriptors_(descriptors), bytes_(bytes) {
  if (descriptors_ == 0 && bytes_ == 0) return;
  shares().with([this](Shares& now) {
    for (Share* share : {&now.all, &now.ofSenders[sender_]}) {
      share->descriptors += descriptors_;
      share->bytes += bytes_;
    }
  });
}

ReceiveBudget::ReceiveBudget(ReceiveBudget&& other) noexcept
    : sender_(other.sender_), descriptors_(std::exchange(other.descriptors_, 0)), bytes_(std::exchange(other.bytes_, 0)) {}

ReceiveBudget& ReceiveBudget::operator=(ReceiveBudget&& other) noexcept {
  std::swap(sender_, other.sender_);
  std::swap(descriptors_, other.descriptors_);
  std::swap(bytes_, other.bytes_);
  return *this;
}

ReceiveBudget::~ReceiveBudget() {
  if (descriptors_ == 0 && bytes_ == 0) return;
  shares().with([this](Shares& now) {
    const auto mine = now.ofSenders.find(sender_);
    for (Share* share : {&now.all, &mine->second}) {
      share->descriptors -= descriptors_;
      share->bytes -= bytes_;
    }
    if (mine->second.descriptors == 0 && mine->second.bytes == 0) now.ofSenders.erase(mine);
  });
}

bool ReceiveBudget::isTooMuch(pid_t sender, std::size_t descriptors, std::size_t bytes) {
  const auto [all, mine] = shares().with([sender](const Shares& now) { return std::pair(now.all, now.of(sender)); });
  if (descriptors > 0 && exceeds(mine.descriptors, all.descriptors, kMaximumDescriptors, xpc::kMaximumDescriptors)) return true;
  return bytes > kExemptBytes && exceeds(mine.bytes, all.bytes, kMaximumBytes, kFrameBytes);
}

std::size_t ReceiveBudget::totalDescriptors() {
  return shares().with([](const Shares& now) { return now.all.descriptors; });
}
std::size_t ReceiveBudget::totalBytes() {
  return shares().with([](const Shares& now) { return now.all.bytes; });
}

}  // namespace platform::xpc
