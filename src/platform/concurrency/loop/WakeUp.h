#pragma once

#include <atomic>

#include "platform/foundation/base/EventDescriptor.h"

namespace platform {

/// How others wake the one thread that sleeps in a poll of `descriptor` (an eventfd): with one write per sleep, and with none while it is
/// awake, since it looks at what it was given before it sleeps.
///
/// | state    | event       | then     | who                                                          |
/// |----------|-------------|----------|--------------------------------------------------------------|
/// | Awake    | fallAsleep  | Sleeping | the sleeper, under the lock under which it found nothing to do |
/// | Sleeping | claim       | Woken    | who claims has to ring                                       |
/// | any      | awake       | Awake    | the sleeper, after its poll                                  |
///
/// Who gives the sleeper something claims after that, before it lets go of the same lock; it may ring when it has. Then nothing given is
/// slept over.
class WakeUp {
 public:
  /// Throws std::system_error when the system has no descriptors left.
  WakeUp() = default;

  /// Readable when the sleeper is to wake up.
  [[nodiscard]] int descriptor() const { return event_.descriptor(); }

  /// Any thread. Whether the caller has to ring.
  [[nodiscard]] bool claim();
  void ring() const { event_.ring(); }

  void fallAsleep();
  /// `wasReadable`: what the poll told of the descriptor.
  void awake(bool wasReadable);

 private:
  enum class State { Awake, Sleeping, Woken };

  const EventDescriptor event_;
  std::atomic<State> state_ = State::Awake;
};

}  // namespace platform
