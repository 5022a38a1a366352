#include "platform/fsevents/engine/StreamEngine.h"

#include <poll.h>
#include <pthread.h>

#include <algorithm>
#include <set>
#include <utility>

#include "platform/fsevents/event/LastSource.h"
#include "platform/fsevents/source/KernelLimits.h"
#include "platform/fsevents/tree/WatchedPath.h"

namespace platform::fsevents {
namespace {

/// In a storm wake-ups cost more than the work: the queue is read at most this often, which is far below the time in which it fills.
constexpr std::chrono::milliseconds kStormPause(20);
/// What a tree does again within this time belongs to changes that were read already; what it looks at less often belongs to none.
constexpr std::chrono::milliseconds kSettling(100);

}  // namespace

StreamEngine::StreamEngine(std::shared_ptr<EngineShared> shared, std::weak_ptr<EnginePool> pool)
    : StreamEngine(std::move(shared), std::nullopt, std::move(pool)) {}

StreamEngine::StreamEngine(std::shared_ptr<EngineShared> shared, EnginePlace place)
    : StreamEngine(std::move(shared), std::optional(std::move(place)), {}) {}

StreamEngine::StreamEngine(std::shared_ptr<EngineShared> shared, std::optional<EnginePlace> place, std::weak_ptr<EnginePool> pool)
    : shared_(std::move(shared)),
      pool_(std::move(pool)),
      watched_(std::make_shared<HangWatch::Watched>(
          pulse_, [this](const std::string& path) { hangs(path); }, [this](const std::string& path) { answers(path); })),
      window_(
          shared_->configuration, shared_->status, shared_->mailbox,
          shared_->configuration.asksForHistory() && (!place || place->isFromTheStart), [requests = requests_] { requests->refresh(); },
          [requests = requests_] { requests->wake(); }),
      trees_(window_, *shared_->status, *shared_->watch, *watched_),
      place_(std::move(place)) {}

void StreamEngine::requestStop() {
  pulse_->stop = true;
  requests_->requestStop();
}

void StreamEngine::leave() {
  shared_->watch->remove(watched_);
  window_.leave();
}

void StreamEngine::run() {
  ::pthread_setname_np(::pthread_self(), "fsevents");
  requests_->begin();
  shared_->watch->add(watched_);
  const bool standing = place_ ? attachPlace() : attachPaths();
  requests_->stands(standing);
  while (standing && !requests_->isStopRequested()) {
    turn();
    sleep();
  }
  mounts_.reset();
  roots_.reset();
  trees_.clear();
  requests_->ended();
}

bool StreamEngine::attachPaths() {
  const EngineConfiguration& configuration = shared_->configuration;
  std::vector<TreeOptions> paths;
  std::set<std::string> known;
  const MountTable table = Mounts().table();
  for (const std::string& path : configuration.paths) {
    TreeOptions options = watchedPath(path, configuration.exclusions, table);
    if (!known.insert(options.reportedPath).second) continue;  // given twice
    options.fileEvents = configuration.has(kFSEventStreamCreateFlagFileEvents);
    options.ignoreSelf = configuration.has(kFSEventStreamCreateFlagIgnoreSelf);
    options.source = configuration.source;
    options.pulse = pulse_;
    paths.push_back(std::move(options));
  }
  mounts_ = std::make_unique<EngineMounts>(configuration, std::move(paths), trees_, window_, *shared_->status, pool_);
  roots_ = std::make_unique<WatchedRoots>(configuration, mounts_->options(), mounts_->isLocal(), trees_, *shared_->status, *shared_->watch,
                                          *watched_);
  const std::optional<std::uint64_t> since = pastToTell();
  // Others first: what may hang begins while this looks at what does not.
  mounts_->begin(*roots_, since);
  return attachRoots(std::vector<FSEventStreamEventFlags>(mounts_->options().size()), since);
}

bool StreamEngine::attachPlace() {
  place_->options.pulse = pulse_;
  const std::optional<std::uint64_t> since = place_->isFromTheStart ? pastToTell() : std::nullopt;
  if (!place_->isMount) {
    roots_ = std::make_unique<WatchedRoots>(shared_->configuration, std::vector{place_->options}, std::vector{true}, trees_,
                                            *shared_->status, *shared_->watch, *watched_);
    roots_->avoid(0, place_->avoided);
    return attachRoots({place_->told}, since) || !place_->isFromTheStart;
  }
  placeTree_ = &trees_.add(place_->options);
  placeTree_->avoid(place_->avoided);
  int error = 0;
  const WatchedTree::Attached attached = trees_.attachMount(*placeTree_, 0, since, error);
  FSEventStreamEventFlags told = place_->told;
  if (attached == WatchedTree::Attached::Refused) {
    const Explanation why = explainQueueFailure(lastSource(shared_->configuration.source), error);
    const bool isNew = shared_->status->losses().begin(LossKind::QueueLimit, shownPath(place_->options), why.reason, why.remedy);
    if (isNew) told |= kFSEventStreamEventFlagMustScanSubDirs;
  }
  if (told != 0) placeTree_->reportRoot(told | kFSEventStreamEventFlagItemIsDir);
  endPast();
  return true;
}

bool StreamEngine::attachRoots(const WatchedRoots::MountFlags& told, std::optional<std::uint64_t> since) {
  if (const auto error = roots_->attach(told, since)) {
    shared_->status->setError(*error);
    return false;
  }
  endPast();
  return true;
}

std::optional<std::uint64_t> StreamEngine::pastToTell() {
  const EngineConfiguration& configuration = shared_->configuration;
  if (!configuration.asksForHistory()) return std::nullopt;
  pastFault_ = EventClock::faultOf(configuration.sinceWhen);
  return pastFault_.empty() ? std::optional(EventClock::timeOf(configuration.sinceWhen)) : std::nullopt;
}

void StreamEngine::endPast() {
  if (const std::string fault = std::exchange(pastFault_, {}); !fault.empty()) {
    trees_.forEach([&](WatchedTree& tree) {
      if (!tree.isAttached()) return;
      const std::string& path = shownPath(tree.options());
      shared_->status->losses().begin(LossKind::Clock, path, fault, "");
      tree.reportRoot(kFSEventStreamEventFlagMustScanSubDirs | tree.rootKind());
      // With the rescan that is told it is over.
      shared_->status->losses().end(LossKind::Clock, path);
    });
  }
  window_.endHistory();
}

void StreamEngine::turn() {
  for (const auto& task : requests_->takeTasks()) task();
  const std::uint64_t flush = requests_->flushRequested();
  const bool mounts = mounts_ && mounts_->read();
  const bool isDue = roots_ && roots_->checkAt() && *roots_->checkAt() <= Clock::now();
  if (roots_ && (roots_->read() || isDue)) {
    checkRoots();
  } else if (mounts) {
    // A rename that is still to be read may be why a mount is elsewhere.
    trees_.drain();
    trees_.process();
    followMounts(trees_.takeMovedFolders());
  }
  const bool paused = pauseUntil_ && *pauseUntil_ > Clock::now() && flush == flushDone_;
  if (!paused) drainAndProcess();
  guardRoots();
  if (flush != flushDone_) finishFlush(flush);
  tellAnswered();
  window_.collect();
  trees_.tidyIfQuiet();
  if (window_.isDue()) offer();
  answerRefresh();
}

void StreamEngine::drainAndProcess() {
  pauseUntil_.reset();
  const std::uint64_t before = EventClock::now();
  const bool any = trees_.drain();
  trees_.process();
  if (mounts_) followMovedFolders();
  const bool left = trees_.hasBacklog();
  if (!left) window_.setKnownEmpty(trees_.seenUpTo(before));
  if (!any) return;
  if (window_.hasSomething() || left) {
    pauseUntil_ = Clock::now() + std::min<std::chrono::nanoseconds>(kStormPause, shared_->configuration.latency);
  }
  trees_.notQuiet();
}

void StreamEngine::checkRoots(bool foldersWereRenamed) {
  // What was told before the path changed its meaning is applied first.
  trees_.drain();
  trees_.processAll();
  // Nothing is looked at that may hang: such a path is another engine's from here on.
  WatchedRoots::MountFlags mounts(1);
  if (mounts_) mounts = mounts_->assign(*roots_);
  roots_->check(mounts);
  if (mounts_) mounts_->follow(*roots_, trees_.takeMovedFolders() || foldersWereRenamed);
}

void StreamEngine::followMovedFolders() {
  const bool renamed = trees_.takeMovedFolders();
  const std::vector<EngineTrees::Covered> covered = trees_.takeCovered();
  if (!renamed && covered.empty()) return;
  if (mounts_->readAnew()) followMounts(renamed);
  mounts_->uncover(*roots_, covered);
}

void StreamEngine::followMounts(bool foldersWereRenamed) {
  if (mounts_->pathsLeadElsewhere()) {
    checkRoots(foldersWereRenamed);
  } else {
    mounts_->follow(*roots_, foldersWereRenamed);
  }
}

void StreamEngine::guardRoots() {
  if (roots_ && roots_->needsCheck()) checkRoots();
}

void StreamEngine::finishFlush(std::uint64_t ticket) {
  trees_.processAll();
  if (mounts_) followMovedFolders();
  guardRoots();
  tellAnswered();
  window_.collect();
  if (window_.hasSomething() && window_.isFree()) offer();
  if ((roots_ && !roots_->isSettled()) || window_.hasSomething()) return;
  flushDone_ = ticket;
  requests_->flushed(ticket);
}

void StreamEngine::offer() {
  const HangWatch::Inside inside(*shared_->watch, *watched_, trees_.firstPath());
  window_.offer(*pulse_, [this] { trees_.drain(); });
}

void StreamEngine::sleep() {
  std::vector<pollfd> queues{{requests_->descriptor(), POLLIN, 0}};
  if (roots_) queues.push_back({roots_->descriptor(), POLLIN, 0});
  if (mounts_) queues.push_back({mounts_->descriptor(), POLLPRI, 0});
  std::optional<Clock::time_point> until;
  const auto sooner = [&until](std::optional<Clock::time_point> time) {
    if (time && (!until || *time < *until)) until = time;
  };
  if (pauseUntil_) {
    sooner(pauseUntil_);
  } else {
    trees_.addDescriptors(queues);
    sooner(trees_.due());
  }
  if (roots_) sooner(roots_->checkAt());
  if (mounts_) sooner(mounts_->readAt());
  sooner(trees_.tidyAt());
  // A busy receiver wakes the engine itself.
  if (window_.hasSomething() && window_.isFree()) sooner(window_.dueTime());
  timespec timeout{};
  if (until) {
    const auto left =
        std::max<std::chrono::nanoseconds>(*until == Clock::time_point::min() ? Clock::duration::zero() : *until - Clock::now(), {});
    timeout.tv_sec = static_cast<time_t>(left.count() / 1'000'000'000);
    timeout.tv_nsec = static_cast<long>(left.count() % 1'000'000'000);
  }
  ::ppoll(queues.data(), queues.size(), until ? &timeout : nullptr, nullptr);
  requests_->clearWakes();
  // Told to the first who waits, and not again.
  if (mounts_)
    mounts_->changed(std::any_of(queues.begin(), queues.end(), [](const pollfd& queue) { return (queue.revents & POLLPRI) != 0; }));
}

void StreamEngine::answerRefresh() {
  const std::uint64_t ticket = requests_->refreshRequested();
  const std::optional<Clock::time_point> due = trees_.due();
  window_.tellClock(trees_.hasBacklog() || (due && *due < Clock::now() + kSettling));
  requests_->refreshed(ticket);
}

void StreamEngine::hangs(const std::string& path) {
  const bool isNew = shared_->status->losses().begin(LossKind::Hang, path, "the file system does not answer",
                                                     "see to the server or the program behind it; to be rid of it: umount -l");
  StreamBatch batch;
  const FSEventStreamEventFlags kind =
      shared_->configuration.has(kFSEventStreamCreateFlagFileEvents) ? kFSEventStreamEventFlagItemIsDir : 0;
  if (isNew) batch.events.push_back({path, kFSEventStreamEventFlagMustScanSubDirs | kind, 0});
  batch.knownEmpty = EventClock::now();
  window_.mailbox().tell(window_.number(), std::move(batch));
  window_.mailbox().excuse(window_.number());
  requests_->setHanging(true);
}

void StreamEngine::answers(const std::string& path) {
  requests_->setHanging(false);
  answered_.push_back(path);
}

void StreamEngine::tellAnswered() {
  for (const std::string& path : std::exchange(answered_, {})) {
    trees_.forEach([&](WatchedTree& tree) {
      if (shownPath(tree.options()) == path) tree.reportRoot(kFSEventStreamEventFlagMustScanSubDirs | tree.rootKind());
    });
    shared_->status->losses().end(LossKind::Hang, path);
  }
}

void StreamEngine::avoid(std::set<std::string, std::less<>> mountPoints) {
  requests_->post([weak = weak_from_this(), points = std::move(mountPoints)] {
    const auto engine = weak.lock();
    if (!engine) return;
    if (engine->roots_) engine->roots_->avoid(0, points);
    if (engine->placeTree_ != nullptr) engine->placeTree_->avoid(points);
  });
}

void StreamEngine::coverChanged(const std::string& relative, bool isCovered) {
  WatchedTree* const tree = roots_ ? roots_->standing(0) : placeTree_;
  if (tree != nullptr) trees_.coverChanged(*tree, relative, isCovered);
}

void StreamEngine::relocatePlace(const std::string& reportedPath, const std::string& openPath) {
  if (placeTree_ != nullptr) trees_.relocate(*placeTree_, reportedPath, openPath);
}

}  // namespace platform::fsevents
