#include "platform/fsevents/engine/WatchedRoots.h"

#include <algorithm>
#include <utility>

#include "platform/fsevents/event/LastSource.h"
#include "platform/fsevents/source/KernelLimits.h"

namespace platform::fsevents {
namespace {

/// How often is looked at what the kernel cannot tell of: components that cannot be watched, a queue that was refused.
constexpr std::chrono::milliseconds kPollInterval(1000);
/// The first pause before a watched path that changed while it was looked at is looked at again.
constexpr std::chrono::milliseconds kShortestSettling(2);

std::vector<std::string> openPathsOf(const std::vector<TreeOptions>& options) {
  std::vector<std::string> paths;
  for (const TreeOptions& each : options) paths.push_back(each.openPath);
  return paths;
}

}  // namespace

WatchedRoots::WatchedRoots(const EngineConfiguration& configuration, std::vector<TreeOptions> options, std::vector<bool> isHere,
                           EngineTrees& trees, StreamStatus& status, HangWatch& watch, HangWatch::Watched& watched)
    : configuration_(configuration),
      trees_(trees),
      status_(status),
      watch_(watch),
      watched_(watched),
      monitor_(std::make_unique<RootMonitor>(openPathsOf(options))) {
  for (std::size_t i = 0; i < options.size(); ++i) {
    roots_.push_back({.options = std::move(options[i])});
    setHere(i, isHere[i]);
  }
}

void WatchedRoots::setHere(std::size_t path, bool isHere) {
  Root& root = roots_[path];
  root.isTakenOver = isHere && !root.isHere;
  root.isHere = isHere;
  monitor_->setLooked(path, isHere);
  if (isHere && root.tree == nullptr) makeTree(root);
  if (!isHere) letGo(root);
}

void WatchedRoots::letGo(Root& root) {
  if (root.tree != nullptr) trees_.remove(*root.tree);
  root.tree = nullptr;
  root.identity = {};
  root.isRefused = false;
}

WatchedTree* WatchedRoots::standing(std::size_t path) const {
  WatchedTree* tree = roots_[path].tree;
  return tree != nullptr && tree->isAttached() ? tree : nullptr;
}

void WatchedRoots::look() {
  const auto first = std::find_if(roots_.begin(), roots_.end(), [](const Root& root) { return root.isHere; });
  if (first == roots_.end()) return;
  const HangWatch::Inside inside(watch_, watched_, shownPath(first->options));
  monitor_->arm();
  status_.setPolled(this, monitor_->polled());
}

std::optional<std::string> WatchedRoots::attach(const MountFlags& told, std::optional<std::uint64_t> since) {
  // The monitor looks before the trees do: what changes in between is in its queue.
  look();
  for (std::size_t i = 0; i < roots_.size(); ++i) {
    Root& root = roots_[i];
    if (!root.isHere) continue;
    root.identity = monitor_->identity(i);
    int error = 0;
    switch (trees_.attach(*root.tree, 0, since, error)) {
      case WatchedTree::Attached::Refused:
        return explainQueueFailure(lastSource(configuration_.source), error).text();
      case WatchedTree::Attached::Standing:
        if (told[i] != 0) root.tree->reportRoot(told[i] | root.tree->rootKind());
        break;
      case WatchedTree::Attached::Missing:
        break;
    }
  }
  planCheck();
  return std::nullopt;
}

void WatchedRoots::check(const MountFlags& mounts) {
  std::vector<bool> touched;
  std::vector<bool> moved;
  for (std::size_t i = 0; i < roots_.size(); ++i) {
    touched.push_back(monitor_->wasTouched(i));
    moved.push_back(monitor_->wasMoved(i));
  }
  look();
  checkAt_.reset();
  for (std::size_t i = 0; i < roots_.size(); ++i) {
    if (roots_[i].isHere) checkRoot(roots_[i], monitor_->identity(i), touched[i], moved[i], mounts[i]);
  }
  planCheck();
}

void WatchedRoots::renew(Root& root) {
  trees_.remove(*root.tree);
  makeTree(root);
}

void WatchedRoots::makeTree(Root& root) {
  root.tree = &trees_.add(root.options);
  root.tree->avoid(root.avoided);
}

void WatchedRoots::avoid(std::size_t path, std::set<std::string, std::less<>> mountPoints) {
  Root& root = roots_[path];
  root.avoided = std::move(mountPoints);
  if (root.tree != nullptr) root.tree->avoid(root.avoided);
}

void WatchedRoots::checkRoot(Root& root, const RootIdentity& now, bool touched, bool moved, FSEventStreamEventFlags mount) {
  const RootIdentity before = std::exchange(root.identity, now);
  const WatchedTree& tree = *root.tree;
  const bool watchRoot = configuration_.has(kFSEventStreamCreateFlagWatchRoot);
  const FSEventStreamEventFlags changed = watchRoot ? kFSEventStreamEventFlagRootChanged : 0;
  if (mount == 0 && before == now && (tree.isAttached() || !now.exists)) {
    // The way to it was touched and leads to the same place again.
    if (touched && before.exists && watchRoot) root.tree->reportRoot(changed);
    return;
  }
  const bool isTakenOver = std::exchange(root.isTakenOver, false);
  if (mount != 0 && !before.exists && !now.exists && !isTakenOver) return;
  const FSEventStreamEventFlags gone = moved ? kFSEventStreamEventFlagItemRenamed : kFSEventStreamEventFlagItemRemoved;
  FSEventStreamEventFlags told = 0;
  if (mount != 0) {
    told = mount | changed | kFSEventStreamEventFlagItemIsDir;
  } else if (tree.isAttached()) {
    told = changed | gone | tree.rootKind();
  }
  root.tree->detach();
  // Also what was lost of a path that could not be opened while it stood there.
  if (!now.exists) status_.losses().forget(shownPath(root.options));
  // Another file system may want another treatment.
  if (mount != 0) renew(root);
  // What a mount brings is told by the mount, as a whole.
  if (now.exists) {
    attachRoot(root, mount != 0 ? 0 : kFSEventStreamEventFlagItemCreated, told | changed, mount == 0);
  } else if (told != 0) {
    root.tree->reportRoot(told);
  }
}

void WatchedRoots::attachRoot(Root& root, FSEventStreamEventFlags report, FSEventStreamEventFlags told, bool isNew) {
  int error = 0;
  WatchedTree& tree = *root.tree;
  switch (trees_.attach(tree, root.isRefused ? 0 : report, std::nullopt, error)) {
    case WatchedTree::Attached::Standing:
      if (isNew) told |= root.isRefused ? kFSEventStreamEventFlagMustScanSubDirs : kFSEventStreamEventFlagItemCreated;
      tree.reportRoot(told | tree.rootKind());
      if (std::exchange(root.isRefused, false)) status_.losses().end(LossKind::QueueLimit, shownPath(root.options));
      break;
    case WatchedTree::Attached::Refused:
      refused(root, error);
      if ((told & kFSEventStreamEventFlagItemCreated) == 0 && told != 0) tree.reportRoot(told);
      break;
    case WatchedTree::Attached::Missing:
      if ((told & ~kFSEventStreamEventFlagRootChanged) != 0) tree.reportRoot(told);
      break;
  }
}

void WatchedRoots::refused(Root& root, int error) {
  root.isRefused = true;
  const Explanation why = explainQueueFailure(lastSource(configuration_.source), error);
  const bool isNew = status_.losses().begin(LossKind::QueueLimit, shownPath(root.options), why.reason, why.remedy);
  if (isNew) root.tree->reportRoot(kFSEventStreamEventFlagMustScanSubDirs | kFSEventStreamEventFlagItemIsDir);
}

bool WatchedRoots::needsCheck() {
  bool needed = false;
  for (std::size_t i = 0; i < roots_.size(); ++i) {
    Root& root = roots_[i];
    if (!root.isHere || !root.tree->takeRootLostItem()) continue;
    const HangWatch::Inside inside(watch_, watched_, shownPath(root.options));
    needed |= monitor_->needsGuard(i);
  }
  return needed;
}

void WatchedRoots::planCheck() {
  bool later = !monitor_->polled().empty();
  for (const Root& root : roots_) later |= root.isHere && !root.tree->isAttached() && root.identity.exists;
  // A path that keeps changing is looked at again at once, and less and less often where it never comes to rest.
  settleBackoff_ = monitor_->isSettled() ? std::chrono::milliseconds(0) : std::clamp(settleBackoff_ * 2, kShortestSettling, kPollInterval);
  if (settleBackoff_.count() > 0) {
    checkAt_ = Clock::now() + settleBackoff_;
  } else if (later) {
    checkAt_ = Clock::now() + kPollInterval;
  }
}

bool WatchedRoots::isSettled() const { return monitor_->isSettled() || settleBackoff_ >= kPollInterval; }

}  // namespace platform::fsevents
