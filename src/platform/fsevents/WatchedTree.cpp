#include "platform/fsevents/WatchedTree.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/fsevents/PathOpener.h"

namespace platform::fsevents {
namespace {

/// How long a flush waits for what cannot be applied yet: a lack of descriptors may last, and so may a storm of changes.
constexpr std::chrono::seconds kMaximumFlush(1);
/// Until the queues are looked at again when something waits for them to be empty.
constexpr std::chrono::milliseconds kSoon(2);

}  // namespace

WatchedTree::WatchedTree(std::uint32_t number, TreeOptions options, Coalescer& coalescer, StreamStatus& status)
    : number_(number), options_(std::move(options)), coalescer_(coalescer), status_(status) {}

WatchedTree::~WatchedTree() { detach(); }

WatchedTree::Attached WatchedTree::attach(FSEventStreamEventFlags report, std::optional<std::uint64_t> since, int& error) {
  detach();
  // The path's own symbolic links are followed; O_NONBLOCK, so that a pipe in its place holds nobody up.
  FileHandle opened(::open(options_.openPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  error = errno;
  // Also for a missing path: whether it can be watched when it appears is better known now.
  if (source(0) == nullptr) {
    error = errno;
    return Attached::Refused;
  }
  if (!opened.isOpen()) {
    if (!isGone(error)) status_.addUnreadable(options_.reportedPath);
    sources_.clear();
    return Attached::Missing;
  }
  struct stat info {};
  rootIsFolder_ = ::fstat(opened.fileDescriptor(), &info) == 0 && S_ISDIR(info.st_mode);
  status_.removeUnreadable(options_.reportedPath);
  if (rootIsFolder_) {
    if (!isExcluded(DirectoryTree::kRoot, {})) crawl(kNoNode, {}, std::move(opened), report);
  } else {
    KernelKey key;
    std::uint8_t used = 0;
    if (const int refused = markFolder(opened.fileDescriptor(), false, key, used); refused != 0) {
      markRefused(kNoNode, {}, refused);
    } else {
      tree_.setKey(DirectoryTree::kRoot, key.view());
      tree_.setFlags(DirectoryTree::kRoot, used);
      ++marked_;
    }
  }
  closeFolders();
  countMarks();
  if (since) reportRoot(kFSEventStreamEventFlagMustScanSubDirs | rootKind());
  return Attached::Standing;
}

void WatchedTree::detach() {
  sources_.clear();
  retiring_.reset();
  displaced_.clear();
  sightings_.clear();
  arrivals_.clear();
  unopened_.clear();
  retryAt_.reset();
  overflowed_ = backlogDropped_ = doubted_ = false;
  closeFolders();
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
  drainedAt_ = Clock::now();
  const auto drainOne = [&](ChangeSource& source) {
    any |= source.drain();
    if (source.isBacklogFull()) {
      source.clearBacklog();
      backlogDropped_ = true;
    }
  };
  if (retiring_) drainOne(*retiring_);
  for (const auto& source : sources_) drainOne(*source);
  queuesWereEmpty_ = !any;
  return any;
}

bool WatchedTree::hasBacklog() const { return !unopened_.empty() || hasUnapplied(); }

bool WatchedTree::hasUnapplied() const {
  return (retiring_ && retiring_->hasBacklog()) ||
         std::any_of(sources_.begin(), sources_.end(), [](const auto& source) { return source->hasBacklog(); });
}

bool WatchedTree::hasReadEverything() { return !hasUnapplied() && !drain(); }

std::optional<WatchedTree::Clock::time_point> WatchedTree::process() {
  std::optional<Clock::time_point> again;
  const auto sooner = [&](std::optional<Clock::time_point> time) {
    if (time && (!again || *time < *again)) again = time;
  };
  const auto visit = [this](const RawChange& change) { apply(change); };
  if (retiring_) sooner(retiring_->dispatch(visit));
  // By index: applying a change may add the second source.
  for (std::size_t i = 0; i < sources_.size(); ++i) sooner(sources_[i]->dispatch(visit));
  // Not while changes wait behind the first half of a move: they may explain what is in doubt.
  if (!again) {
    checkSightings();
    if (queuesWereEmpty_) resolveArrivals();
    expireDisplaced();
    retryUnopened();
    for (const Displaced& item : displaced_) sooner(item.until);
    sooner(retryAt_);
  }
  if (!arrivals_.empty() || !sightings_.empty()) sooner(Clock::now() + kSoon);
  if (overflowed_) repair(kFSEventStreamEventFlagKernelDropped);
  if (backlogDropped_) repair(kFSEventStreamEventFlagUserDropped);
  if (doubted_) repair(0);
  closeFolders();
  countMarks();
  return again;
}

void WatchedTree::processAll() {
  const auto end = Clock::now() + kMaximumFlush;
  while (isAttached() && Clock::now() < end) {
    const bool any = drain();
    const auto again = process();
    if (!any && !again) break;
    if (!again) continue;
    // A move's first half waits for its second: the wait is bounded to milliseconds by the source.
    const auto now = Clock::now();
    if (*again > now) {
      timespec pause{};
      pause.tv_nsec = static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(*again - now).count());
      if (pause.tv_nsec > 0 && pause.tv_nsec < 1'000'000'000) ::nanosleep(&pause, nullptr);
    }
  }
  closeFolders();
}

std::string WatchedTree::relativePath(NodeId node) const {
  std::string path;
  tree_.appendPath(node, path);
  return path;
}

bool WatchedTree::isExcluded(NodeId folder, std::string_view name) const {
  if (options_.exclusions.empty()) return false;
  std::string path = relativePath(folder);
  if (!name.empty()) path.append("/").append(name);
  for (const std::string& excluded : options_.exclusions) {
    if (path.starts_with(excluded) && (path.size() == excluded.size() || path[excluded.size()] == '/')) return true;
  }
  return false;
}

void WatchedTree::covered(std::string_view /*relative*/) {}

void WatchedTree::uncovered(std::string_view relative) {
  const std::size_t slash = relative.rfind('/');
  NodeId folder = DirectoryTree::kRoot;
  for (std::size_t at = 0; at < slash && folder != kNoNode;) {
    const std::size_t end = relative.find('/', at + 1);
    folder = tree_.child(folder, relative.substr(at + 1, end - at - 1));
    at = end;
  }
  if (folder == kNoNode || !isAttached()) return;
  const std::string_view name = relative.substr(slash + 1);
  if (const NodeId former = tree_.child(folder, name); former != kNoNode) forget(former, Why::Left);
  takeUp(folder, name, kFSEventStreamEventFlagItemCreated);
}

void WatchedTree::relocate(std::string reportedPath, std::string openPath) {
  options_.reportedPath = std::move(reportedPath);
  options_.openPath = std::move(openPath);
  pathsChanged();
  closeFolders();
}

int WatchedTree::rootDescriptor() {
  if (!root_.isOpen()) root_ = FileHandle(::open(options_.openPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return root_.fileDescriptor();
}

void WatchedTree::closeFolders() {
  root_.closeFile();
  for (const auto& source : sources_) source->leaveFolders();
}

FileHandle WatchedTree::openFolder(NodeId folder, std::string_view name) {
  const int root = rootDescriptor();
  if (root < 0) return FileHandle();
  std::string path = relativePath(folder);
  if (!name.empty()) path.append("/").append(name);
  return openFolderBelow(root, path);
}

void WatchedTree::reportRoot(FSEventStreamEventFlags flags) {
  const FSEventStreamEventFlags items = options_.fileEvents ? ~FSEventStreamEventFlags{0} : 0xFFU;
  coalescer_.add(number_, options_.reportedPath.empty() ? "/" : options_.reportedPath, flags & items, false);
}

void WatchedTree::report(NodeId folder, std::string_view name, FSEventStreamEventFlags flags, bool needsKind) {
  if (!options_.fileEvents) {
    // Per folder: the folder that holds what changed, without detail.
    flags &= 0xFFU;
    name = {};
    needsKind = false;
  }
  if (folder == lastFolder_ && name == lastName_ && lastEpoch_ == coalescer_.epoch()) {
    coalescer_.merge(lastNumber_, flags, needsKind);
    return;
  }
  if (isExcluded(folder, name)) return;
  if (folder != cachedFolder_) {
    pathBuffer_ = options_.reportedPath;
    tree_.appendPath(folder, pathBuffer_);
    cachedLength_ = pathBuffer_.size();
    cachedFolder_ = folder;
  }
  pathBuffer_.resize(cachedLength_);
  if (!name.empty()) pathBuffer_.append("/").append(name);
  lastNumber_ = coalescer_.add(number_, pathBuffer_.empty() ? "/" : std::string_view(pathBuffer_), flags, needsKind);
  lastEpoch_ = coalescer_.epoch();
  lastFolder_ = folder;
  lastName_ = name;
}

}  // namespace platform::fsevents
