#include "platform/reachability/ReachabilitySchedule.h"

#include <linux/rtnetlink.h>
#include <sys/epoll.h>

#include <cassert>
#include <utility>
#include <vector>

#include "platform/concurrency/queue/SerialQueue.h"

namespace platform {

namespace {

// Longer than the kernel holds its lock for one change, shorter than anybody waits for.
constexpr double kSettleSeconds = 0.25;

const std::vector<unsigned>& groups() {
  static const auto& list = *new std::vector<unsigned>{RTNLGRP_LINK,        RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV4_RULE,
                                                       RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV6_ROUTE,  RTNLGRP_IPV6_RULE};
  return list;
}

}  // namespace

std::shared_ptr<ReachabilitySchedule> ReachabilitySchedule::begin(const ReachabilityEndpoint& endpoint,
                                                                  const std::shared_ptr<RunLoop>& runLoop, Changed changed) {
  auto socket = NetlinkSocket::open(groups());
  if (!socket) return nullptr;
  // Looked at after the socket listens: a change in between is seen, at worst twice.
  const auto flags = endpoint.needsResolving() ? NetworkReachabilityFlags{0} : endpoint.flags();
  if (!flags) return nullptr;
  std::shared_ptr<ReachabilitySchedule> schedule(
      new ReachabilitySchedule(endpoint, runLoop, *std::move(socket), *flags, std::move(changed)));
  schedule->addTo(*runLoop);
  return schedule;
}

ReachabilitySchedule::ReachabilitySchedule(const ReachabilityEndpoint& endpoint, const std::shared_ptr<RunLoop>& runLoop,
                                           NetlinkSocket socket, NetworkReachabilityFlags flags, Changed changed)
    : endpoint_(endpoint), runLoop_(runLoop), socket_(std::move(socket)), changed_(std::move(changed)), flags_(flags) {}

void ReachabilitySchedule::assertOnRunLoop() const {
  const auto runLoop = runLoop_.lock();
  assert(!runLoop || runLoop->isCurrent());
}

void ReachabilitySchedule::addTo(RunLoop& runLoop) {
  // The items hold this object, and so its socket, until `end` or the end of the run loop's thread.
  const auto self = shared_from_this();
  readable_ = RunLoopDescriptor::create(socket_.fileDescriptor(), EPOLLIN, [self](unsigned) {
    self->assertOnRunLoop();
    self->socketIsReadable();
  });
  if (endpoint_.needsResolving()) {
    answered_ = RunLoopSource::create([self] {
      self->assertOnRunLoop();
      self->takeResolved();
    });
    runLoop.add(answered_);
    resolve();
  }
  runLoop.add(readable_);
}

void ReachabilitySchedule::end() {
  std::shared_ptr<RunLoopTimer> timer;
  {
    const MutexLock lock(mutex_);
    state_ = State::Ended;
    timer = std::move(timer_);
  }
  readable_->invalidate();
  if (timer) timer->invalidate();
  if (answered_) answered_->invalidate();
}

void ReachabilitySchedule::socketIsReadable() {
  socket_.drain();
  lookAgainLater();
  look();
}

void ReachabilitySchedule::lookAgainLater() {
  const auto runLoop = runLoop_.lock();
  if (!runLoop) return;
  const auto timer = RunLoopTimer::create(kSettleSeconds, 0, [self = shared_from_this()] {
    self->assertOnRunLoop();
    self->look();
  });
  std::shared_ptr<RunLoopTimer> former;
  {
    const MutexLock lock(mutex_);
    if (state_ == State::Ended) return;
    former = std::exchange(timer_, timer);
  }
  if (former) former->invalidate();
  // When `end` comes in between, the timer is invalid by now and the loop does not take it.
  runLoop->add(timer);
}

void ReachabilitySchedule::look() {
  if (endpoint_.needsResolving()) {
    resolve();
  } else {
    told(endpoint_.flags());
  }
}

void ReachabilitySchedule::resolve() {
  {
    const MutexLock lock(mutex_);
    if (state_ == State::Resolving) state_ = State::Late;
    if (state_ != State::Waiting) return;
    state_ = State::Resolving;
  }
  askResolver();
}

void ReachabilitySchedule::askResolver() {
  // A resolver may take long, and nobody has to wait for it to let go of this object.
  runOnPoolThread([endpoint = endpoint_, observer = weak_from_this()] {
    const auto flags = endpoint.flags();
    if (const auto self = observer.lock()) self->resolved(flags);
  });
}

void ReachabilitySchedule::resolved(std::optional<NetworkReachabilityFlags> flags) {
  bool again = false;
  {
    const MutexLock lock(mutex_);
    if (state_ == State::Ended) return;
    answer_ = flags;
    again = state_ == State::Late;
    state_ = again ? State::Resolving : State::Waiting;
  }
  answered_->signal();
  if (again) askResolver();
}

void ReachabilitySchedule::takeResolved() {
  std::optional<NetworkReachabilityFlags> answer;
  {
    const MutexLock lock(mutex_);
    answer = answer_;
  }
  told(answer);
}

void ReachabilitySchedule::told(std::optional<NetworkReachabilityFlags> flags) {
  {
    const MutexLock lock(mutex_);
    if (state_ == State::Ended) return;
  }
  if (!flags) {
    // No socket to ask with at this moment: what is known stands until there is one.
    lookAgainLater();
    return;
  }
  if (*flags == flags_) return;
  flags_ = *flags;
  changed_(*flags);
}

}  // namespace platform
