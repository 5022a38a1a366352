#include "platform/xpc/channel/ReceiveBudget.h"

#include <atomic>
#include <utility>

namespace platform::xpc {

namespace {

struct Totals {
  std::atomic<std::size_t> descriptors{0};
  std::atomic<std::size_t> bytes{0};
};

Totals& totals() {
  static auto& all = *new Totals;
  return all;
}

}  // namespace

ReceiveBudget::ReceiveBudget(std::size_t descriptors, std::size_t bytes) : descriptors_(descriptors), bytes_(bytes) {
  totals().descriptors += descriptors_;
  totals().bytes += bytes_;
}

ReceiveBudget::ReceiveBudget(ReceiveBudget&& other) noexcept
    : descriptors_(std::exchange(other.descriptors_, 0)), bytes_(std::exchange(other.bytes_, 0)) {}

ReceiveBudget& ReceiveBudget::operator=(ReceiveBudget&& other) noexcept {
  std::swap(descriptors_, other.descriptors_);
  std::swap(bytes_, other.bytes_);
  return *this;
}

ReceiveBudget::~ReceiveBudget() {
  totals().descriptors -= descriptors_;
  totals().bytes -= bytes_;
}

std::size_t ReceiveBudget::totalDescriptors() { return totals().descriptors; }
std::size_t ReceiveBudget::totalBytes() { return totals().bytes; }

}  // namespace platform::xpc
