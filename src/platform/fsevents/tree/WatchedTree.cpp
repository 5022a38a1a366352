#include "platform/fsevents/tree/WatchedTree.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/fsevents/event/EventClock.h"
#include "platform/fsevents/event/LastSource.h"
#include "platform/fsevents/folders/PathOpener.h"

namespace platform::fsevents {
namespace {

/// How long a flush waits for what cannot be applied yet: a lack of descriptors may last, and so may a storm of changes.
constexpr std::chrono::seconds kMaximumFlush(1);
/// The same while what must be polled is looked at.
constexpr std::chrono::seconds kMaximumPolledFlush(30);
/// Between two looks at what could not be read for want of descriptors.
constexpr timespec kPauseOfFlush{0, 2'000'000};
/// Until the queues are looked at again when something waits for them to be empty.
constexpr std::chrono::milliseconds kSoon(2);
/// And when there are no descriptors to look with.
constexpr std::chrono::milliseconds kBlindPause(50);
/// How much earlier than the last look at an empty queue a change may be stamped that is told after it: what the kernel had stamped then
/// and not yet queued. Larger writes in progress are told when they end.
constexpr std::chrono::seconds kResumeSlack(1);
/// How often a queue is asked for that the kernel had none to give of: ever less often.
constexpr std::chrono::seconds kFirstQueuePause(1);
constexpr std::chrono::seconds kLastQueuePause(60);

}  // namespace

WatchedTree::WatchedTree(std::uint32_t number, TreeOptions options, Coalescer& coalescer, StreamStatus& status)
    : number_(number), options_(std::move(options)), exclusions_(options_.exclusions), coalescer_(coalescer), status_(status) {}

WatchedTree::~WatchedTree() {
  // Also of one that was never attached: a path without rights. Nobody looks at it again.
  if (!options_.pulse->leftBehind) status_.losses().forget(options_.reportedPath);
  letGo();
}

WatchedTree::Attached WatchedTree::attach(FSEventStreamEventFlags report, std::optional<std::uint64_t> since, int& error) {
  detach();
  kernel_ = Kernel::Preferred;
  if (since) past_.emplace(*since, PastChanges::kSlack, options_.policy);
  const Attached attached = attachFrom(report, error);
  past_.reset();
  return attached;
}

WatchedTree::Attached WatchedTree::attachFrom(FSEventStreamEventFlags report, int& error) {
  while (true) {
    // The path's own symbolic links are followed; O_NONBLOCK, so that a pipe in its place holds nobody up.
    FileHandle opened(::open(options_.openPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    const int openError = opened.isOpen() ? 0 : errno;
    // Said by one that was stopped meanwhile: it answers, be it that nothing is there.
    status_.losses().end(LossKind::Hang, options_.reportedPath);
    // Also for a missing path: whether it can be watched when it appears is better known now.
    queueError_ = 0;
    source_ = makeSource(queueError_);
    if (!source_ && kernel_ != Kernel::None && !isLimitReached(queueError_)) {
      error = queueError_;
      return Attached::Refused;
    }
    error = openError;
    if (!opened.isOpen()) {
      if (!isGone(openError)) {
        reportLoss(isRefused(openError) ? LossKind::Rights : LossKind::InputOutput, DirectoryTree::kRoot, explainFolderFailure(openError));
      }
      letGo();
      return Attached::Missing;
    }
    attached_ = true;
    tellSource();
    emptyAt_ = EventClock::now();
    status_.losses().end(LossKind::Rights, options_.reportedPath);
    status_.losses().end(LossKind::InputOutput, options_.reportedPath);
    begin(std::move(opened), report);
    if (!refusesSource_) break;
    letGo();
    nextKernel();
  }
  closeFolders();
  countMarks();
  return Attached::Standing;
}

void WatchedTree::begin(FileHandle folder, FSEventStreamEventFlags report) {
  struct stat info {};
  rootIsFolder_ = ::fstat(folder.fileDescriptor(), &info) == 0 && S_ISDIR(info.st_mode);
  if (!source_ && kernel_ != Kernel::None) {
    reportLoss(LossKind::QueueLimit, DirectoryTree::kRoot, explainQueueFailure(sourceName(), queueError_));
    queuePause_ = kFirstQueuePause;
    askForQueueAt_ = Clock::now() + queuePause_;
  }
  if (rootIsFolder_) {
    if (!exclusions_.contain("")) crawl(kNoNode, {}, std::move(folder), 0, report);
  } else {
    if (past_) {
      if (const FSEventStreamEventFlags flags = pastOf(folder.fileDescriptor(), "", true); flags != 0) reportRoot(flags);
    }
    markFile(folder.fileDescriptor());
  }
}

void WatchedTree::markFile(int file) {
  KernelKey key;
  const int error = source_ ? source_->mark(file, false, key) : queueError_;
  if (error != 0) {
    troubled(DirectoryTree::kRoot, error);
    return;
  }
  tree_.setKey(DirectoryTree::kRoot, key.view());
  if ((tree_.flags(DirectoryTree::kRoot) & kMarked) == 0) ++marked_;
  recovered(DirectoryTree::kRoot);
  tree_.setFlags(DirectoryTree::kRoot, kMarked);
}

const char* WatchedTree::sourceName() const { return source_ ? source_->name() : lastSource(options_.source); }

std::unique_ptr<ChangeSource> WatchedTree::makeSource(int& error) {
  using Source = FSEventStreamSource;
  std::unique_ptr<ChangeSource> made;
  if (kernel_ == Kernel::Preferred && options_.source != Source::Inotify) made = makeFanotifySource(error);
  if (!made && kernel_ != Kernel::None && options_.source != Source::Fanotify) made = makeInotifySource(error);
  if (made) status_.addSource(made->name());
  return made;
}

void WatchedTree::tellSource() { status_.setSource(reportedPathOf(DirectoryTree::kRoot), source_ ? source_->name() : "polling"); }

void WatchedTree::nextKernel() {
  // One source for all of a file system: a second one for some of its folders would lose what moves from one kind of parent to the other.
  const bool another = kernel_ == Kernel::Preferred && options_.source == FSEventStreamSource::Automatic;
  kernel_ = another ? Kernel::Second : Kernel::None;
}

void WatchedTree::resume(std::uint64_t since) {
  letGo();
  past_.emplace(since, kResumeSlack, options_.policy);
  int error = 0;
  static_cast<void>(attachFrom(0, error));  // what stands at the path no longer is the root monitor's to notice
  past_.reset();
  // Begun by what was let go of, and by nobody since.
  if (!limitTold_) status_.losses().end(LossKind::MarkLimit, options_.reportedPath);
  if (source_) status_.losses().end(LossKind::QueueLimit, options_.reportedPath);
}

void WatchedTree::askForQueue() {
  if (!askForQueueAt_ || *askForQueueAt_ > Clock::now()) return;
  source_ = makeSource(queueError_);
  if (!source_) {
    queuePause_ = std::min<Clock::duration>(queuePause_ * 2, kLastQueuePause);
    askForQueueAt_ = Clock::now() + queuePause_;
    return;
  }
  // The folders are marked one by one as they are compared, so nothing is missed and nothing is told as lost.
  askForQueueAt_.reset();
  tellSource();
  status_.losses().end(LossKind::QueueLimit, options_.reportedPath);
  if (!rootIsFolder_) lookAgain(DirectoryTree::kRoot);
}

void WatchedTree::detach() {
  if (attached_ && status_.losses().any()) status_.losses().forget(options_.reportedPath);
  letGo();
}

void WatchedTree::letGo() {
  if (std::exchange(attached_, false)) status_.removeSource(reportedPathOf(DirectoryTree::kRoot));
  refusesSource_ = false;
  source_.reset();
  retiring_.reset();
  unsettled_.clear();
  young_.clear();
  troubles_.clear();
  quietSince_.reset();
  askForQueueAt_.reset();
  overflowed_ = backlogDropped_ = doubted_ = false;
  unwalked_.reset();
  replacedAt_.reset();
  closeFolders();
  region_.reset();
  refusedFolders_ = 0;
  limitTold_ = false;
  tellRegion();
  tree_ = DirectoryTree();
  marked_ = 0;
  countMarks();
  pathsChanged();
}

void WatchedTree::countMarks() {
  status_.foldersMarked += marked_ - markedReported_;
  markedReported_ = marked_;
}

bool WatchedTree::drain() {
  bool any = false;
  const std::uint64_t before = EventClock::now();
  const auto drainOne = [&](ChangeSource& source) {
    any |= source.drain();
    if (source.isBacklogFull()) {
      source.clearBacklog();
      backlogDropped_ = true;
    }
  };
  if (retiring_) drainOne(*retiring_);
  if (source_) drainOne(*source_);
  if (!any && !hasBacklog() && !overflowed_ && !backlogDropped_) emptyAt_ = before;
  return any;
}

bool WatchedTree::hasBacklog() const { return !unsettled_.empty() || hasUnapplied(); }

bool WatchedTree::hasUnapplied() const { return (retiring_ && retiring_->hasBacklog()) || (source_ && source_->hasBacklog()); }

std::optional<WatchedTree::Clock::time_point> WatchedTree::process() {
  if (!attached_) return std::nullopt;
  std::optional<Clock::time_point> again;
  const auto sooner = [&](std::optional<Clock::time_point> time) {
    if (time && (!again || *time < *again)) again = time;
  };
  const auto visit = [this](const RawChange& change) { apply(change); };
  if (retiring_) sooner(retiring_->dispatch(visit));
  if (source_) sooner(source_->dispatch(visit));
  if (!young_.empty() && !hasUnapplied()) young_.clear();
  if (!trail_.empty() && !hasUnapplied()) {
    trail_.clear();
    looksAhead_ = 0;
  }
  // Not while changes wait behind the first half of a move: they may explain what is in doubt.
  if (!again) resolveUnsettled();
  if (!unsettled_.empty()) sooner(Clock::now() + (isBlind_ ? kBlindPause : kSoon));
  if (overflowed_) repair(kFSEventStreamEventFlagKernelDropped);
  if (backlogDropped_) repair(kFSEventStreamEventFlagUserDropped);
  if (doubted_) repair(0);
  sooner(repairReplaced());
  sooner(repairLater());
  sooner(retryTroubled());
  sooner(workOnRegion());
  askForQueue();
  sooner(askForQueueAt_);
  if (refusesSource_) {
    nextKernel();
    resume(seenUpTo(emptyAt_));
    sooner(Clock::now());
  }
  closeFolders();
  countMarks();
  return again;
}

void WatchedTree::processAll() {
  const auto end = Clock::now() + (region_ ? kMaximumPolledFlush : kMaximumFlush);
  const PolledRegion* region = nullptr;
  std::uint32_t pass = 0;
  std::uint64_t structure = 0;
  while (attached_ && Clock::now() < end) {
    const bool any = drain();
    const auto again = process();
    if (!any && !hasBacklog() && quietSince_) {
      hastenQuiet();
      ::nanosleep(&kPauseOfFlush, nullptr);
      continue;
    }
    if (!any && !hasBacklog()) {
      if (!region_) break;
      // A pass that began before a folder's move was known has missed what is in it.
      if (region != region_.get() || structure != structure_) {
        region = region_.get();
        pass = region_->hasten();
        structure = structure_;
        continue;
      }
      if (region_->isOver(pass)) break;
    }
    if (!again) continue;
    // A move's first half waits for its second: the wait is bounded to milliseconds by the source.
    const auto now = Clock::now();
    if (*again > now) {
      timespec pause{};
      pause.tv_nsec = static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(*again - now).count());
      if (pause.tv_nsec > 0 && pause.tv_nsec < 1'000'000'000) ::nanosleep(&pause, nullptr);
    }
  }
  if (quietSince_) tellQuiet();
  if (isBlind_ && !unsettled_.empty() && !unwalked_) tellBlind();
  closeFolders();
}

void WatchedTree::covered(std::string_view relative) {
  const std::size_t slash = relative.rfind('/');
  if (slash == std::string_view::npos) return;
  if (const NodeId parent = findByPath(relative.substr(0, slash)); parent != kNoNode) {
    hidden_.insert_or_assign(std::string(relative), std::pair(whereIs(parent), std::string(relative.substr(slash + 1))));
  }
  const NodeId node = findByPath(relative);
  if (node != kNoNode && node != DirectoryTree::kRoot) forget(node, Why::Left);
  closeFolders();
  countMarks();
}

void WatchedTree::uncovered(std::string_view relative) {
  const std::size_t slash = relative.rfind('/');
  if (!attached_ || slash == std::string_view::npos) return;
  const auto hidden = hidden_.extract(std::string(relative));
  const NodeId parent = hidden ? find(hidden.mapped().first) : findByPath(relative.substr(0, slash));
  const std::string name(hidden ? hidden.mapped().second : relative.substr(slash + 1));
  // Nothing in it was seen to come: the mount's end is told, and who is told of it looks.
  if (parent != kNoNode && !isExcluded(parent, name)) takeUp(parent, name, 0);
  closeFolders();
  countMarks();
}

void WatchedTree::relocate(std::string reportedPath, std::string openPath) {
  if (status_.losses().any()) status_.losses().move(options_.reportedPath, reportedPath);
  status_.removeSource(reportedPathOf(DirectoryTree::kRoot));
  status_.removeRegion(options_.reportedPath);
  options_.reportedPath = std::move(reportedPath);
  options_.openPath = std::move(openPath);
  if (attached_) tellSource();
  closeFolders();
  pathsChanged();
  tellRegion();
}

}  // namespace platform::fsevents
