#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/fsevents/folders/PathOpener.h"
#include "platform/fsevents/tree/WatchedTree.h"

namespace platform::fsevents {
namespace {

/// Until a folder that could not be read is looked at again: ever less often, for ever.
constexpr std::chrono::milliseconds kFirstPause(100);
constexpr std::chrono::seconds kLastPause(60);
/// A shortage of descriptors or memory that is over after so many looks (about three seconds) has cost nothing.
constexpr int kQuietTries = 5;

}  // namespace

// Folders that cannot be opened, read or marked: each is told as a loss for as long as it lasts, or polled, and looked at again.

void WatchedTree::openFailed(NodeId parent, std::string_view name, const std::shared_ptr<OpenParent>& open, int error) {
  if (isCovered(error)) {
    // Something is mounted on it: that is another tree's, and what it hides is taken up when it is uncovered.
    covered_.push_back(relativePath(parent).append("/").append(name));
    hidden_.insert_or_assign(covered_.back(), std::pair(whereIs(parent), std::string(name)));
    if (const NodeId node = tree_.child(parent, name); node != kNoNode) forget(node, Why::Left);
    return;
  }
  if (isGone(error)) {
    // Where it was seen in an open folder, the queue tells of its leaving; or that folder has moved on.
    const NodeId node = tree_.child(parent, name);
    if (node != kNoNode || !open)
      unsettle(parent, name, node == kNoNode ? std::string_view{} : tree_.key(node), kFSEventStreamEventFlagItemCreated);
    return;
  }
  const NodeId node = place(parent, name);
  tree_.setGeneration(node, generation_);
  const FileHandle above = open ? FileHandle() : openFolder(parent);
  const int parentFolder = open ? open->handle.fileDescriptor() : above.fileDescriptor();
  if (isRefused(error)) {
    refusedFolder(node, parent, parentFolder, name);
  } else {
    troubled(node, error);
  }
  identify(node, parentFolder, name);
}

void WatchedTree::identify(NodeId node, int parentFolder, std::string_view name) {
  if (parentFolder < 0 || !source_ || !tree_.key(node).empty()) return;
  KernelKey key;
  source_->identify(parentFolder, std::string(name).c_str(), key);
  if (!key.empty() && tree_.findByKey(key.view()) == kNoNode) tree_.setKey(node, key.view());
}

void WatchedTree::refusedFolder(NodeId node, NodeId parent, int parentFolder, std::string_view name) {
  tree_.setFlags(node, tree_.flags(node) | kTroubled);
  struct stat info {};
  const bool isEntered =
      parentFolder >= 0 && ::fstatat(parentFolder, std::string(name).c_str(), &info, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) == 0;
  // Where the folder above may be read and not entered, that one is what to tell of, once for everything in it.
  const NodeId culprit = isEntered || parentFolder < 0 ? node : parent;
  tree_.setFlags(culprit, tree_.flags(culprit) | kTroubled);
  reportLoss(LossKind::Rights, culprit, explainFolderFailure(EACCES));
}

void WatchedTree::troubled(NodeId node, int error) {
  if (isGone(error)) return;  // the queue will tell
  tree_.setFlags(node, tree_.flags(node) | kTroubled);
  if (isRefused(error)) {
    reportLoss(LossKind::Rights, node, explainFolderFailure(error));
    return;  // the kernel tells when its mode changes
  }
  Trouble& trouble = troubleOf(node);
  trouble.pause = std::min<Clock::duration>(trouble.pause * 2, kLastPause);
  trouble.due = Clock::now() + trouble.pause;
  trouble.error = error;
  trouble.isQuiet = ++trouble.tries <= kQuietTries && isShortage(error);
  if (trouble.isQuiet) {
    if (!quietSince_) quietSince_ = emptyAt_;
    return;
  }
  reportLoss(isLimitReached(error) && !isShortage(error) ? LossKind::MarkLimit : LossKind::InputOutput, node,
             isLimitReached(error) && !isShortage(error) ? explainMarkFailure(sourceName(), error) : explainFolderFailure(error));
}

NodeId WatchedTree::find(const Trouble& trouble) const {
  if (trouble.name.empty()) return DirectoryTree::kRoot;
  const NodeId folder = find(trouble.folder);
  return folder == kNoNode ? kNoNode : tree_.child(folder, trouble.name);
}

void WatchedTree::hastenQuiet() {
  for (auto& [at, trouble] : troubles_) {
    if (!trouble.isQuiet) continue;
    trouble.due = Clock::now();
    trouble.pause = kFirstPause / 2;
    trouble.tries = 0;
  }
}

void WatchedTree::tellQuiet() {
  for (auto& [at, trouble] : troubles_) {
    const NodeId node = trouble.isQuiet ? find(trouble) : kNoNode;
    if (node == kNoNode || (tree_.flags(node) & kTroubled) == 0) continue;
    trouble.isQuiet = false;
    trouble.tries = kQuietTries;
    reportLoss(LossKind::InputOutput, node, explainFolderFailure(trouble.error));
  }
  countQuiet();
}

void WatchedTree::tellBlind() {
  // Places that are still to be looked at may lie anywhere.
  Trouble& trouble = troubleOf(DirectoryTree::kRoot);
  trouble.isQuiet = false;
  trouble.tries = kQuietTries;
  tree_.setFlags(DirectoryTree::kRoot, tree_.flags(DirectoryTree::kRoot) | kTroubled);
  reportLoss(LossKind::InputOutput, DirectoryTree::kRoot, explainFolderFailure(EMFILE));
}

void WatchedTree::countQuiet() {
  if (std::ranges::none_of(troubles_, [](const auto& each) { return each.second.isQuiet; })) quietSince_.reset();
}

WatchedTree::Trouble& WatchedTree::troubleOf(NodeId node) {
  const NodeId parent = node == DirectoryTree::kRoot ? kNoNode : tree_.parent(node);
  Where folder = parent == kNoNode ? Where{} : whereIs(parent);
  const std::string name(tree_.name(node));
  const std::string at = folder.key + '\0' + folder.path + '\0' + name;
  return troubles_.try_emplace(at, Trouble{std::move(folder), name, kFirstPause / 2, Clock::now() + kFirstPause}).first->second;
}

void WatchedTree::troublesMoved(NodeId top) {
  tree_.forEachBelow(top, [&](NodeId node) {
    if ((tree_.flags(node) & kTroubled) != 0) static_cast<void>(troubleOf(node));
  });
}

void WatchedTree::recovered(NodeId node) {
  const std::uint8_t flags = tree_.flags(node);
  Losses& losses = status_.losses();
  // By its path and not by the node's flag, which a tree that has begun anew does not have.
  if ((flags & kTroubled) == 0 && !losses.any()) return;
  tree_.setFlags(node, flags & static_cast<std::uint8_t>(~kTroubled));
  const std::string path = reportedPathOf(node);
  losses.end(LossKind::Rights, path);
  if (!rootIsFolder_) losses.end(LossKind::MarkLimit, path);
  // What happened in it meanwhile nobody knows.
  if (losses.end(LossKind::InputOutput, path)) {
    report(node, {},
           kFSEventStreamEventFlagMustScanSubDirs | (node == DirectoryTree::kRoot ? rootKind() : kFSEventStreamEventFlagItemIsDir), false);
  }
}

std::optional<WatchedTree::Clock::time_point> WatchedTree::retryTroubled() {
  std::optional<Clock::time_point> next;
  if (troubles_.empty()) return next;
  const auto now = Clock::now();
  std::vector<std::string> due;
  for (const auto& [at, trouble] : troubles_) {
    if (trouble.due <= now) due.push_back(at);
  }
  for (const std::string& at : due) {
    const auto trouble = troubles_.find(at);
    if (trouble == troubles_.end()) continue;
    const NodeId node = find(trouble->second);
    if (node == kNoNode || (tree_.flags(node) & kTroubled) == 0) {
      troubles_.erase(trouble);
      continue;
    }
    const bool isQuiet = trouble->second.isQuiet;
    const NodeId folder = node == DirectoryTree::kRoot ? kNoNode : tree_.parent(node);
    const std::string name = trouble->second.name;
    lookAgain(node);
    // What came and went in it meanwhile is told by nobody else, where no loss was.
    if (isQuiet && folder != kNoNode && tree_.child(folder, name) == node && (tree_.flags(node) & kTroubled) == 0)
      report(folder, name, kFSEventStreamEventFlagItemCreated | kFSEventStreamEventFlagItemIsDir, false);
    if (const auto after = troubles_.find(at); after != troubles_.end() && after->second.due <= now) troubles_.erase(after);
  }
  countQuiet();
  for (const auto& [at, trouble] : troubles_) next = next ? std::min(*next, trouble.due) : trouble.due;
  return next;
}

void WatchedTree::lookAgain(NodeId node) {
  if (node == DirectoryTree::kRoot) {
    FileHandle opened(rootIsFolder_ ? openFolder(node) : FileHandle(::open(options_.openPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)));
    if (!opened.isOpen()) {
      troubled(node, errno);
    } else if (rootIsFolder_) {
      crawl(kNoNode, {}, std::move(opened), 0, 0);
    } else {
      markFile(opened.fileDescriptor());
    }
    return;
  }
  const std::string name(tree_.name(node));
  takeUp(tree_.parent(node), name, kFSEventStreamEventFlagItemCreated);
}

void WatchedTree::lookAgainAt(NodeId folder) {
  std::vector<std::string> names;
  const bool wasTroubled = (tree_.flags(folder) & kTroubled) != 0;
  tree_.forEachChild(folder, [&](NodeId child) {
    if ((tree_.flags(child) & kTroubled) != 0 && !tree_.isDetached(child)) names.emplace_back(tree_.name(child));
  });
  if (wasTroubled && names.empty()) {
    lookAgain(folder);
    return;
  }
  if (wasTroubled) recovered(folder);  // and troubled again where what is in it still cannot be entered
  for (const std::string& name : names) {
    if (tree_.child(folder, name) != kNoNode) takeUp(folder, name, kFSEventStreamEventFlagItemCreated);
  }
}

}  // namespace platform::fsevents
