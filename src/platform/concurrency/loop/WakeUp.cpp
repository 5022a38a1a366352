#include "platform/concurrency/loop/WakeUp.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

namespace platform {

WakeUp::WakeUp() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!event_.isOpen()) throw std::system_error(errno, std::system_category(), "eventfd");
}

bool WakeUp::claim() {
  State asleep = State::Sleeping;
  return state_.compare_exchange_strong(asleep, State::Woken);
}

// A write that fails because the counter is full means that the sleeper is awake already.
void WakeUp::ring() const { eventfd_write(event_.fileDescriptor(), 1); }

void WakeUp::fallAsleep() { state_ = State::Sleeping; }

void WakeUp::awake(bool wasReadable) {
  // Who has claimed rings perhaps only after this, when the sleeper has woken up for another reason: the next poll tells of that.
  if (state_.exchange(State::Awake) != State::Woken && !wasReadable) return;
  eventfd_t value = 0;
  eventfd_read(event_.fileDescriptor(), &value);
}

}  // namespace platform
