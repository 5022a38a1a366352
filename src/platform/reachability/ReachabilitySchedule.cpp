#include "platform/reachability/ReachabilitySchedule.h"

#include <linux/rtnetlink.h>
#include <sys/epoll.h>

#include <utility>
#include <vector>

#include "platform/concurrency/SerialQueue.h"

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
  std::shared_ptr<ReachabilitySchedule> schedule(new ReachabilitySchedule(endpoint, runLoop, *std::move(socket), std::move(changed)));
  if (!endpoint.needsResolving()) {
    // Looked at after the socket listens: a change in between is seen, at worst twice.
    const auto flags = endpoint.flags();
    if (!flags) return nullptr;
    schedule->flags_ = *flags;
  }
  schedule->addTo(*runLoop);
  return schedule;
}

ReachabilitySchedule::ReachabilitySchedule(const ReachabilityEndpoint& endpoint, const std::shared_ptr<RunLoop>& runLoop,
                                           NetlinkSocket socket, Changed changed)
    : endpoint_(endpoint), runLoop_(runLoop), socket_(std::move(socket)), changed_(std::move(changed)) {}

void ReachabilitySchedule::addTo(RunLoop& runLoop) {
  // The items hold this object, and so its socket, until `end` or the end of the run loop's thread.
  const auto self = shared_from_this();
  readable_ = RunLoopDescriptor::create(socket_.fileDescriptor(), EPOLLIN, [self](unsigned) { self->socketIsReadable(); });
  if (endpoint_.needsResolving()) {
    answered_ = RunLoopSource::create([self] { self->takeResolved(); });
    runLoop.add(answered_);
    resolveElsewhere();
  }
  runLoop.add(readable_);
}

void ReachabilitySchedule::end() {
  std::shared_ptr<RunLoopTimer> timer;
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
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
  const auto timer = RunLoopTimer::create(kSettleSeconds, 0, [self = shared_from_this()] { self->look(); });
  std::shared_ptr<RunLoopTimer> former;
  {
    const std::lock_guard lock(mutex_);
    if (ended_) return;
    former = std::exchange(timer_, timer);
  }
  if (former) former->invalidate();
  // When `end` comes in between, the timer is invalid by now and the loop does not take it.
  runLoop->add(timer);
}

void ReachabilitySchedule::look() {
  if (endpoint_.needsResolving()) {
    resolveElsewhere();
  } else {
    told(endpoint_.flags());
  }
}

void ReachabilitySchedule::resolveElsewhere() {
  {
    const std::lock_guard lock(mutex_);
    if (ended_) return;
    // What changes while a resolver is at work, it may have missed.
    resolveAgain_ = resolving_;
    if (std::exchange(resolving_, true)) return;
  }
  // A resolver may take long, and nobody has to wait for it to let go of this object.
  runOnPoolThread([endpoint = endpoint_, observer = weak_from_this()] {
    const auto flags = endpoint.flags();
    if (const auto self = observer.lock()) self->resolved(flags);
  });
}

void ReachabilitySchedule::resolved(std::optional<NetworkReachabilityFlags> flags) {
  bool again = false;
  {
    const std::lock_guard lock(mutex_);
    resolving_ = false;
    answer_ = flags;
    again = std::exchange(resolveAgain_, false);
  }
  answered_->signal();
  if (again) resolveElsewhere();
}

void ReachabilitySchedule::takeResolved() {
  std::optional<NetworkReachabilityFlags> answer;
  {
    const std::lock_guard lock(mutex_);
    answer = answer_;
  }
  told(answer);
}

void ReachabilitySchedule::told(std::optional<NetworkReachabilityFlags> flags) {
  {
    const std::lock_guard lock(mutex_);
    if (ended_) return;
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
