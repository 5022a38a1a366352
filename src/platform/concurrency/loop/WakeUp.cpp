#include "platform/concurrency/loop/WakeUp.h"

namespace platform {

bool WakeUp::claim() {
  State asleep = State::Sleeping;
  return state_.compare_exchange_strong(asleep, State::Woken);
}

void WakeUp::fallAsleep() { state_ = State::Sleeping; }

void WakeUp::awake(bool wasReadable) {
  // Who has claimed rings perhaps only after this, when the sleeper has woken up for another reason: the next poll tells of that.
  if (state_.exchange(State::Awake) != State::Woken && !wasReadable) return;
  event_.clear();
}

}  // namespace platform
