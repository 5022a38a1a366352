#include "platform/fsevents/source/ChangeSource.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace platform::fsevents {
namespace {

constexpr std::size_t kReadSize = std::size_t{64} << 10U;
/// A backlog's memory is given back once it was larger than this.
constexpr std::size_t kKeptCapacity = std::size_t{256} << 10U;

void clearAndShrink(std::vector<char>& bytes) {
  bytes.clear();
  if (bytes.capacity() > kKeptCapacity) bytes.shrink_to_fit();
}

}  // namespace

bool ChangeSource::drain() {
  bool any = false;
  std::array<char, kReadSize> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): read fills what is used
  while (!isBacklogFull()) {
    const ssize_t count = ::read(queue_.fileDescriptor(), buffer.data(), buffer.size());
    if (count > 0) {
      any = true;
      backlog_.insert(backlog_.end(), buffer.data(), buffer.data() + count);
      read_ += static_cast<std::uint64_t>(count);
      readings_.push_back({read_, Clock::now()});
      continue;
    }
    if (count < 0 && errno == EINTR) continue;
    break;
  }
  return any;
}

std::optional<ChangeSource::Clock::time_point> ChangeSource::dispatch(const Visitor& visit) {
  while (true) {
    while (begin_ < current_.size()) {
      std::optional<Clock::time_point> wait;
      isDispatching_ = true;
      const std::size_t used = dispatchOne(current_.data() + begin_, current_.size() - begin_, visit, wait);
      isDispatching_ = false;
      if (std::exchange(clearsAfterVisit_, false)) {
        clearBacklog();
        return std::nullopt;
      }
      if (!wait) {
        begin_ += used;
        handedOver_ += used;
        continue;
      }
      if (backlog_.empty()) return wait;
      current_.insert(current_.end(), backlog_.begin(), backlog_.end());
      clearAndShrink(backlog_);
    }
    begin_ = 0;
    clearAndShrink(current_);
    if (backlog_.empty()) {
      forgetReadings();
      return std::nullopt;
    }
    current_.swap(backlog_);
  }
}

void ChangeSource::forgetReadings() {
  handedOver_ = read_;
  readings_.clear();
}

ChangeSource::Clock::time_point ChangeSource::readAt() {
  while (readings_.size() > 1 && readings_.front().end <= handedOver_) readings_.pop_front();
  return readings_.empty() ? Clock::time_point{} : readings_.front().time;
}

void ChangeSource::clearBacklog() {
  if (isDispatching_) {
    clearAndShrink(backlog_);
    clearsAfterVisit_ = true;
    return;
  }
  begin_ = 0;
  clearAndShrink(current_);
  clearAndShrink(backlog_);
  forgetReadings();
}

}  // namespace platform::fsevents
