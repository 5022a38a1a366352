#include "platform/fsevents/StreamEngine.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "platform/foundation/base/AllSignalsBlocked.h"
#include "platform/fsevents/KernelLimits.h"
#include "platform/fsevents/PathOpener.h"
#include "platform/fsevents/WatchedPath.h"

namespace platform::fsevents {
namespace {

/// In a storm wake-ups cost more than the work: the queue is read at most this often, which is far below the time in which it fills.
constexpr std::chrono::milliseconds kStormPause(20);
/// How often is looked at what the kernel cannot tell of: components that cannot be watched, a queue that was refused.
constexpr std::chrono::milliseconds kPollInterval(1000);
/// The first pause before a watched path that changed while it was looked at is looked at again.
constexpr std::chrono::milliseconds kShortestSettling(2);
/// How often a rescan is asked for while the kernel refuses to watch at all.
constexpr std::chrono::seconds kRefusedInterval(30);
/// How long everything must have been quiet before kernel queues are renewed, and how much longer per folder.
constexpr std::chrono::milliseconds kQuiet(500);
constexpr std::chrono::microseconds kQuietPerFolder(50);
constexpr std::chrono::milliseconds kLongestBackoff(60'000);
constexpr std::chrono::milliseconds kRefreshPatience(200);

bool isLimit(int error) { return error == EMFILE || error == ENFILE || error == ENOSPC || error == ENOMEM; }

}  // namespace

StreamEngine::StreamEngine(EngineConfiguration configuration, StreamStatus& status, BatchReceiver& receiver)
    : configuration_(std::move(configuration)), status_(status), receiver_(receiver), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

StreamEngine::~StreamEngine() { stop(); }

bool StreamEngine::start() {
  clock_ = std::make_unique<EventClock::Member>([this] { refreshClock(); });
  {
    const AllSignalsBlocked blocked;
    thread_ = std::thread([this] { run(); });
  }
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return standing_.has_value(); });
  return *standing_;
}

void StreamEngine::stop() {
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wake();
  if (thread_.joinable()) thread_.join();
  clock_.reset();
}

void StreamEngine::wake() const {
  const std::uint64_t one = 1;
  // A full counter means that it is awake already.
  [[maybe_unused]] const ssize_t written = ::write(wake_.fileDescriptor(), &one, sizeof one);
}

void StreamEngine::engineMayOffer() { wake(); }

std::uint64_t StreamEngine::requestFlush() {
  std::uint64_t ticket = 0;
  {
    const std::lock_guard lock(mutex_);
    ticket = ++flushRequested_;
  }
  wake();
  return ticket;
}

bool StreamEngine::waitFlushed(std::uint64_t ticket, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] { return flushDone_ >= ticket || stop_; });
}

void StreamEngine::refreshClock() {
  std::unique_lock lock(mutex_);
  if (stop_ || std::this_thread::get_id() == thread_.get_id()) return;
  const std::uint64_t ticket = ++refreshRequested_;
  wake();
  changed_.wait_for(lock, kRefreshPatience, [&] { return refreshDone_ >= ticket || stop_; });
}

void StreamEngine::run() {
  ::pthread_setname_np(::pthread_self(), "fsevents");
  const bool standing = attachAll();
  {
    const std::lock_guard lock(mutex_);
    standing_ = standing;
  }
  changed_.notify_all();
  while (standing) {
    {
      const std::lock_guard lock(mutex_);
      if (stop_) break;
    }
    turn();
    sleep();
  }
  trees_.clear();
  monitor_.reset();
  const std::lock_guard lock(mutex_);
  stop_ = true;
  changed_.notify_all();
}

bool StreamEngine::attachAll() {
  std::vector<std::string> openPaths;
  std::set<std::string> known;
  for (const std::string& path : configuration_.paths) {
    TreeOptions options = watchedPath(path, configuration_.exclusions);
    if (!known.insert(options.reportedPath).second) continue;  // given twice
    options.fileEvents = (configuration_.flags & kFSEventStreamCreateFlagFileEvents) != 0;
    options.ignoreSelf = (configuration_.flags & kFSEventStreamCreateFlagIgnoreSelf) != 0;
    options.source = configuration_.source;
    openPaths.push_back(options.openPath);
    trees_.push_back(std::make_unique<WatchedTree>(static_cast<std::uint32_t>(trees_.size()), std::move(options), coalescer_, status_));
  }
  monitor_ = std::make_unique<RootMonitor>(std::move(openPaths));
  // The monitor looks before the trees do: what changes in between is in its queue.
  identities_ = monitor_->arm();
  status_.setPolled(monitor_->polled());
  knownEmpty_ = EventClock::now();
  for (std::size_t i = 0; i < trees_.size(); ++i) {
    int error = 0;
    if (trees_[i]->attach(0, std::nullopt, error) == WatchedTree::Attached::Refused) {
      if (!isLimit(error)) {
        status_.setError(explainQueueFailure(lastSource(), error).text());
        return false;
      }
      refused(i, error);
    } else if (trees_[i]->isAttached() && configuration_.sinceWhen != kFSEventStreamEventIdSinceNow) {
      trees_[i]->reportRoot(kFSEventStreamEventFlagMustScanSubDirs | trees_[i]->rootKind());
    }
  }
  planCheck();
  historyPending_ = configuration_.sinceWhen != kFSEventStreamEventIdSinceNow;
  return true;
}

void StreamEngine::turn() {
  std::uint64_t flush = 0;
  {
    const std::lock_guard lock(mutex_);
    flush = flushRequested_;
  }
  if (monitor_->read() || (checkRootsAt_ && *checkRootsAt_ <= Clock::now())) checkRoots();
  const bool paused = pauseUntil_ && *pauseUntil_ > Clock::now() && flush == flushDone_;
  if (!paused) drainAndProcess();
  guardRoots();
  if (flush != flushDone_) {
    for (const auto& tree : trees_) tree->processAll();
    guardRoots();
    if (hasSomething() && receiver_.isFree()) offer();
    const bool settled = monitor_->isSettled() || settleBackoff_ >= kPollInterval;
    if (settled && !hasSomething()) {
      const std::lock_guard lock(mutex_);
      flushDone_ = flush;
      changed_.notify_all();
    }
  }
  if (coalescer_.isFull()) giveUpWindow();
  tidyTrees();
  offerIfDue();
  answerRefresh();
}

void StreamEngine::drainAndProcess() {
  pauseUntil_.reset();
  again_.reset();
  const std::uint64_t before = EventClock::now();
  bool any = false;
  bool left = false;
  for (const auto& tree : trees_) {
    any |= tree->drain();
    if (const auto time = tree->process(); time && (!again_ || *time < *again_)) again_ = time;
    left |= tree->hasBacklog();
  }
  if (!left) knownEmpty_ = before;
  if (!any) return;
  const auto now = Clock::now();
  if (hasSomething() || left) pauseUntil_ = now + std::min<std::chrono::nanoseconds>(kStormPause, configuration_.latency);
  tidyAt_ = now + kQuiet + status_.foldersMarked.load() * kQuietPerFolder;
}

void StreamEngine::checkRoots() {
  // What was told before the path changed its meaning is applied first.
  for (const auto& tree : trees_) {
    tree->drain();
    tree->processAll();
  }
  const bool moved = monitor_->sawMove();
  std::vector<bool> touched;
  for (std::size_t i = 0; i < trees_.size(); ++i) touched.push_back(monitor_->wasTouched(i));
  const std::vector<RootIdentity> now = monitor_->arm();
  checkRootsAt_.reset();
  for (std::size_t i = 0; i < trees_.size(); ++i) {
    const RootIdentity before = std::exchange(identities_[i], now[i]);
    WatchedTree& tree = *trees_[i];
    const bool watchRoot = (configuration_.flags & kFSEventStreamCreateFlagWatchRoot) != 0;
    const FSEventStreamEventFlags changed = watchRoot ? kFSEventStreamEventFlagRootChanged : 0;
    const FSEventStreamEventFlags gone = moved ? kFSEventStreamEventFlagItemRenamed : kFSEventStreamEventFlagItemRemoved;
    if (before == now[i] && (tree.isAttached() || !now[i].exists)) {
      // The way to it was touched and leads to the same place again.
      if (touched[i] && before.exists && watchRoot) tree.reportRoot(changed);
      continue;
    }
    FSEventStreamEventFlags flags = 0;
    if (tree.isAttached()) flags |= changed | gone | tree.rootKind();
    tree.detach();
    if (now[i].exists) {
      attachTree(i, kFSEventStreamEventFlagItemCreated, flags | changed);
    } else if (flags != 0) {
      tree.reportRoot(flags);
    }
  }
  planCheck();
  status_.setPolled(monitor_->polled());
}

void StreamEngine::guardRoots() {
  bool needed = false;
  for (std::size_t i = 0; i < trees_.size(); ++i) needed |= trees_[i]->takeRootLostItem() && monitor_->needsGuard(i);
  if (needed) checkRoots();
}

void StreamEngine::planCheck() {
  bool later = !monitor_->polled().empty();
  for (std::size_t i = 0; i < trees_.size(); ++i) later |= !trees_[i]->isAttached() && identities_[i].exists;
  // A path that keeps changing is looked at again at once, and less and less often where it never comes to rest.
  settleBackoff_ = monitor_->isSettled() ? std::chrono::milliseconds(0) : std::clamp(settleBackoff_ * 2, kShortestSettling, kPollInterval);
  if (settleBackoff_.count() > 0) {
    checkRootsAt_ = Clock::now() + settleBackoff_;
  } else if (later) {
    checkRootsAt_ = Clock::now() + kPollInterval;
  }
}

void StreamEngine::attachTree(std::size_t index, FSEventStreamEventFlags report, FSEventStreamEventFlags rootFlags) {
  WatchedTree& tree = *trees_[index];
  int error = 0;
  const bool wasRefused = refusedTold_.contains(index);
  switch (tree.attach(wasRefused ? 0 : report, std::nullopt, error)) {
    case WatchedTree::Attached::Standing:
      refusedTold_.erase(index);
      tree.reportRoot(rootFlags | tree.rootKind() |
                      (wasRefused ? kFSEventStreamEventFlagMustScanSubDirs : kFSEventStreamEventFlagItemCreated));
      break;
    case WatchedTree::Attached::Refused:
      refused(index, error);
      break;
    case WatchedTree::Attached::Missing:
      break;
  }
}

const char* StreamEngine::lastSource() const { return configuration_.source == FSEventStream::Source::Fanotify ? "fanotify" : "inotify"; }

void StreamEngine::refused(std::size_t index, int error) {
  // Whatever changes while nothing watches is told by nobody: from time to time a rescan is asked for instead.
  const auto now = Clock::now();
  if (const auto told = refusedTold_.find(index); told != refusedTold_.end() && told->second + kRefusedInterval > now) return;
  refusedTold_[index] = now;
  const WatchedTree& tree = *trees_[index];
  status_.addLoss(explainQueueFailure(lastSource(), error).text(), tree.options().reportedPath);
  trees_[index]->reportRoot(kFSEventStreamEventFlagMustScanSubDirs | kFSEventStreamEventFlagItemIsDir);
}

void StreamEngine::giveUpWindow() {
  static_cast<void>(coalescer_.take());
  for (const auto& tree : trees_) {
    if (!tree->isAttached()) continue;
    status_.addLoss("more paths changed than could be remembered while the handler was busy", tree->options().reportedPath);
    tree->reportRoot(kFSEventStreamEventFlagMustScanSubDirs | kFSEventStreamEventFlagUserDropped | tree->rootKind());
  }
}

void StreamEngine::tidyTrees() {
  if (!tidyAt_) return;
  const bool needed = std::any_of(trees_.begin(), trees_.end(), [](const auto& tree) { return tree->needsTidying(); });
  if (!needed) {
    tidyAt_.reset();
    return;
  }
  if (*tidyAt_ > Clock::now()) return;
  tidyAt_.reset();
  for (const auto& tree : trees_) {
    tree->tidy();
    if (tree->needsTidying()) tidyAt_ = Clock::now();
  }
  tidyBackoff_ = tidyAt_ ? std::clamp(tidyBackoff_ * 2, kQuiet, kLongestBackoff) : std::chrono::milliseconds(0);
  if (tidyAt_) *tidyAt_ += tidyBackoff_;
}

StreamEngine::Clock::time_point StreamEngine::dueTime() const {
  if (historyPending_) return Clock::time_point::min();
  const bool noDefer = (configuration_.flags & kFSEventStreamCreateFlagNoDefer) != 0;
  if (!noDefer) return coalescer_.opened() + configuration_.latency;
  if (!offeredOnce_ || lastOffer_ + configuration_.latency <= coalescer_.opened()) return coalescer_.opened();
  return lastOffer_ + configuration_.latency;
}

void StreamEngine::offerIfDue() {
  if (hasSomething() && dueTime() <= Clock::now() && receiver_.isFree()) offer();
}

void StreamEngine::offer() {
  std::vector<PendingEvent> pending = coalescer_.take();
  std::vector<FSEvent> batch;
  batch.reserve(pending.size() + 1);
  FSEventStreamEventId id = EventClock::shared().reserve(*clock_, pending.size() + (historyPending_ ? 1 : 0), knownEmpty_);
  std::size_t count = 0;
  for (PendingEvent& event : pending) {
    if (event.needsKind) {
      const TreeOptions& options = trees_[event.tree]->options();
      const FSEventStreamEventFlags kind = kindOfItem(options.openPath + event.path.substr(options.reportedPath.size()));
      // Of what is gone nothing can be seen any more: most items are files.
      event.flags |= kind != 0 || (event.flags & kAnyItemKind) != 0 ? kind : kFSEventStreamEventFlagItemIsFile;
      if (++count % 1024 == 0) {
        for (const auto& tree : trees_) tree->drain();
      }
    }
    batch.push_back({std::move(event.path), event.flags, id++});
  }
  if (std::exchange(historyPending_, false)) {
    batch.push_back({configuration_.paths.front(), kFSEventStreamEventFlagHistoryDone, id});
  }
  lastOffer_ = Clock::now();
  offeredOnce_ = true;
  receiver_.offer(std::move(batch));
}

void StreamEngine::sleep() {
  std::vector<pollfd> queues{{wake_.fileDescriptor(), POLLIN, 0}, {monitor_->descriptor(), POLLIN, 0}};
  if (!pauseUntil_) {
    for (const auto& tree : trees_) {
      queues.push_back({tree->descriptor(), POLLIN, 0});
    }
  }
  std::optional<Clock::time_point> until = again_;
  const auto sooner = [&until](std::optional<Clock::time_point> time) {
    if (time && (!until || *time < *until)) until = time;
  };
  sooner(pauseUntil_);
  sooner(checkRootsAt_);
  sooner(tidyAt_);
  // A busy receiver wakes the engine itself.
  if (hasSomething() && receiver_.isFree()) sooner(dueTime());
  timespec timeout{};
  if (until) {
    const auto left =
        std::max<std::chrono::nanoseconds>(*until == Clock::time_point::min() ? Clock::duration::zero() : *until - Clock::now(), {});
    timeout.tv_sec = static_cast<time_t>(left.count() / 1'000'000'000);
    timeout.tv_nsec = static_cast<long>(left.count() % 1'000'000'000);
  }
  ::ppoll(queues.data(), queues.size(), until ? &timeout : nullptr, nullptr);
  std::uint64_t wakes = 0;
  [[maybe_unused]] const ssize_t count = ::read(wake_.fileDescriptor(), &wakes, sizeof wakes);
}

void StreamEngine::answerRefresh() {
  std::uint64_t ticket = 0;
  {
    const std::lock_guard lock(mutex_);
    ticket = refreshRequested_;
  }
  const bool waiting = hasSomething() || !receiver_.isFree() || again_;
  if (!waiting) {
    deliveredUpTo_ = knownEmpty_;
    clock_->everythingDelivered(deliveredUpTo_);
  } else if (!waitingTold_) {
    clock_->deliveredUpTo(deliveredUpTo_);
  }
  waitingTold_ = waiting;
  const std::lock_guard lock(mutex_);
  if (refreshDone_ == ticket) return;
  refreshDone_ = ticket;
  changed_.notify_all();
}

}  // namespace platform::fsevents
