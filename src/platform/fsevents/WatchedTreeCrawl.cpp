#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "platform/foundation/preferences/PreferencesWrites.h"
#include "platform/fsevents/KernelLimits.h"
#include "platform/fsevents/PathOpener.h"
#include "platform/fsevents/WatchedTree.h"

namespace platform::fsevents {
namespace {

/// Parents kept open while their folders are entered; beyond that folders are opened by their path.
constexpr int kMaximumOpenParents = 128;
/// How often the kernel queues are emptied while a crawl is under way.
constexpr int kFoldersBetweenDrains = 64;
/// Until a folder is looked for again that could not be opened: for want of descriptors or memory, and because it was gone.
constexpr std::chrono::milliseconds kRetryPause(100);
constexpr std::chrono::milliseconds kGonePause(3);
constexpr std::size_t kListingSize = std::size_t{32} << 10U;

bool isRefused(int error) { return error == EACCES || error == EPERM; }

FSEventStreamEventFlags kindOfEntry(const dirent64& entry, int folder) {
  if (entry.d_type == DT_UNKNOWN) {
    struct stat info {};
    return ::fstatat(folder, entry.d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 ? kindOfMode(info.st_mode) : FSEventStreamEventFlags{0};
  }
  if (entry.d_type == DT_DIR) return kFSEventStreamEventFlagItemIsDir;
  return entry.d_type == DT_LNK ? kFSEventStreamEventFlagItemIsSymlink : kFSEventStreamEventFlagItemIsFile;
}

}  // namespace

ChangeSource* WatchedTree::source(std::size_t index) {
  using Source = FSEventStream::Source;
  if (index < sources_.size()) return sources_[index].get();
  if (index > 1 || (index == 1 && (options_.source != Source::Automatic || !sources_.front()->knowsTargets()))) return nullptr;
  int error = 0;
  std::unique_ptr<ChangeSource> made;
  if (index == 0 && options_.source != Source::Inotify) made = makeFanotifySource(error);
  if (!made && options_.source != Source::Fanotify) made = makeInotifySource(error);
  if (!made) {
    errno = error;
    return nullptr;
  }
  status_.addSource(made->name());
  sources_.push_back(std::move(made));
  return sources_.back().get();
}

int WatchedTree::markFolder(int folder, bool isFolder, KernelKey& key, std::uint8_t& sourceNumber) {
  int error = 0;
  for (std::size_t index = 0; index < 2; ++index) {
    ChangeSource* candidate = source(index);
    if (candidate == nullptr) break;
    const int refused = candidate->mark(folder, isFolder, key);
    if (refused == 0) {
      sourceNumber = static_cast<std::uint8_t>(index + 1);
      return 0;
    }
    error = error == 0 ? refused : error;
    if (isRefused(refused) || isGone(refused)) break;
  }
  return error;
}

void WatchedTree::crawl(NodeId parent, std::string_view name, FileHandle folder, FSEventStreamEventFlags report) {
  if (++generation_ == 0) ++generation_;
  std::vector<Pending> stack;
  enter(parent, name, std::move(folder), report, stack);
  for (int entered = 1; !stack.empty(); ++entered) {
    const Pending next = std::move(stack.back());
    stack.pop_back();
    FileHandle opened =
        next.open ? openFolderIn(next.open->handle.fileDescriptor(), next.name.c_str()) : openFolder(next.parent, next.name);
    if (opened.isOpen()) {
      enter(next.parent, next.name, std::move(opened), report, stack);
    } else {
      openFailed(next.parent, next.name, next.open, errno);
    }
    if (entered % kFoldersBetweenDrains == 0) drain();
  }
}

void WatchedTree::enter(NodeId parent, std::string_view name, FileHandle folder, FSEventStreamEventFlags report,
                        std::vector<Pending>& stack) {
  ++options_.pulse->steps;
  KernelKey key;
  std::uint8_t used = 0;
  if (const int error = markFolder(folder.fileDescriptor(), true, key, used); error != 0) {
    markRefused(parent, name, error);
    return;
  }
  const NodeId node = settle(parent, name, key.view());
  if (node == kNoNode) return;
  const std::uint8_t flags = tree_.flags(node);
  if ((flags & kSourceMask) == 0) ++marked_;
  if ((flags & kUnreadable) != 0) status_.removeUnreadable(options_.reportedPath + relativePath(node));
  tree_.setFlags(node, used);
  tree_.setGeneration(node, generation_);
  list(node, std::move(folder), report, stack);
}

NodeId WatchedTree::place(NodeId parent, std::string_view name) {
  if (parent == kNoNode) return DirectoryTree::kRoot;
  const NodeId node = tree_.child(parent, name);
  return node == kNoNode ? tree_.add(parent, name, {}) : node;
}

NodeId WatchedTree::settle(NodeId parent, std::string_view name, std::string_view key) {
  const NodeId known = tree_.findByKey(key);
  const NodeId there = parent == kNoNode ? DirectoryTree::kRoot : tree_.child(parent, name);
  if (known != kNoNode && known == there) return there;
  if (parent == kNoNode) {
    if (known == kNoNode) tree_.setKey(there, key);
    return known == kNoNode ? there : kNoNode;
  }
  // A folder that is seen in two places at once is mounted twice, perhaps within itself; it keeps its first place.
  const bool above = known != kNoNode && tree_.isBelowOrSame(parent, known);
  if (above || (known != kNoNode && tree_.generation(known) == generation_ && !tree_.isDetached(known))) {
    if (isStillAt(known, key)) return kNoNode;
    if (above) {
      // Or what was below it has left it and taken it in, which the queue is about to tell.
      if (!repairing_) expectArrival(key, parent, name);
      return kNoNode;
    }
  }
  if (there != kNoNode) {
    if (known == kNoNode && (tree_.flags(there) & kSourceMask) == 0) {
      tree_.setKey(there, key);
      return there;
    }
    displace(there);  // another folder stands where this one was
  }
  if (known == kNoNode) return tree_.add(parent, name, key);
  if (!repairing_ && !tree_.isDetached(known)) {
    // It has its mark. Changes that were made in its old place may still be in the queue: the one that tells of its leaving brings it here.
    expectArrival(key, parent, name);
    return kNoNode;
  }
  moveNode(known, parent, name);
  return known;
}

bool WatchedTree::isOwnPreferencesIn(int folder, std::string_view name) {
  struct stat info {};
  PreferencesWrites& writes = PreferencesWrites::shared();
  return writes.hasName(name) && ::fstat(folder, &info) == 0 && writes.isOwnWrite(info.st_dev, info.st_ino, name);
}

bool WatchedTree::isStillAt(NodeId node, std::string_view key) {
  const FileHandle opened = openFolder(node);
  KernelKey found;
  std::uint8_t used = 0;
  if (!opened.isOpen() || markFolder(opened.fileDescriptor(), true, found, used) != 0) return false;
  if (found.view() == key) return true;
  // Another stands there. It is not for this question to mark it.
  if (ChangeSource& asked = *sources_[used - 1U]; !asked.knowsTargets() && tree_.findByKey(found.view()) == kNoNode)
    asked.forget(found.view());
  return false;
}

void WatchedTree::list(NodeId node, FileHandle folder, FSEventStreamEventFlags flags, std::vector<Pending>& stack) {
  const int descriptor = folder.fileDescriptor();
  std::shared_ptr<OpenParent> parent;
  alignas(dirent64) std::array<char, kListingSize> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): the kernel fills it
  for (ssize_t count = 0; (count = ::getdents64(descriptor, buffer.data(), buffer.size())) > 0;) {
    for (ssize_t at = 0; at < count;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer.data() + at);
      at += entry->d_reclen;
      const char* name = entry->d_name;
      if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
      if (flags == 0 && entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN) continue;
      const FSEventStreamEventFlags kind = kindOfEntry(*entry, descriptor);
      if (flags != 0 && !(options_.ignoreSelf && isOwnPreferencesIn(descriptor, name))) report(node, name, flags | kind, false);
      if (kind != kFSEventStreamEventFlagItemIsDir || isExcluded(node, name)) continue;
      // NOLINTNEXTLINE(bugprone-use-after-move): moved once, since `parent` is there from then on
      if (!parent && openParents_ < kMaximumOpenParents) parent = std::make_shared<OpenParent>(std::move(folder), openParents_);
      stack.push_back({node, name, parent});
    }
  }
}

void WatchedTree::openFailed(NodeId parent, std::string_view name, const std::shared_ptr<OpenParent>& open, int error) {
  if (isGone(error)) {
    const NodeId node = tree_.child(parent, name);
    if (node != kNoNode) displace(node);  // it may be found elsewhere before its time is up
    if (!open) seemsGone(parent, name, kFSEventStreamEventFlagItemCreated, kAttemptsWhenGone);
    return;
  }
  if (!isRefused(error)) {
    // Out of descriptors or memory for the moment.
    retryLater(parent, name, kFSEventStreamEventFlagItemCreated, kAttemptsWhenGone);
    retryAt_ = Clock::now() + kRetryPause;
    return;
  }
  const NodeId node = place(parent, name);
  tree_.setFlags(node, tree_.flags(node) | kUnreadable);
  tree_.setGeneration(node, generation_);
  status_.addUnreadable(options_.reportedPath + relativePath(node));
  const FileHandle above = open ? FileHandle() : openFolder(parent);
  const int folder = open ? open->handle.fileDescriptor() : above.fileDescriptor();
  if (folder < 0 || !tree_.key(node).empty()) return;
  KernelKey key;
  sources_.front()->identify(folder, std::string(name).c_str(), key);
  if (!key.empty() && tree_.findByKey(key.view()) == kNoNode) tree_.setKey(node, key.view());
}

void WatchedTree::retryLater(NodeId folder, std::string_view name, FSEventStreamEventFlags report, int attempts) {
  unopened_.push_back({std::string(tree_.key(folder)), std::string(name), report, attempts});
  if (!retryAt_) retryAt_ = Clock::now() + kGonePause;
}

void WatchedTree::seemsGone(NodeId folder, std::string_view name, FSEventStreamEventFlags report, int attempts) {
  // Or a folder above it has moved on, and a change further down the queue tells where to look: until that has been read no attempt counts.
  const bool certain = isStillAt(folder, tree_.key(folder));
  const bool counts = certain || (!tree_.isDetached(folder) && hasReadEverything());
  if (!counts) {
    retryLater(folder, name, report, attempts);
  } else if (attempts > 0) {
    retryLater(folder, name, report, attempts - 1);
  } else if (!certain) {
    doubt();
  }
}

void WatchedTree::doubt() {
  // Where the watched folder itself has gone, that is another's to notice.
  doubted_ = doubted_ || isStillAt(DirectoryTree::kRoot, tree_.key(DirectoryTree::kRoot));
}

void WatchedTree::retryUnopened() {
  if (!retryAt_ || *retryAt_ > Clock::now()) return;
  retryAt_.reset();
  for (const Retry& retry : std::exchange(unopened_, {})) {
    const NodeId folder = tree_.findByKey(retry.folder);
    if (folder != kNoNode) takeUp(folder, retry.name, retry.report, retry.attempts);
  }
}

void WatchedTree::markRefused(NodeId parent, std::string_view name, int error) {
  if (parent != kNoNode && (isGone(error) || isRefused(error))) {
    openFailed(parent, name, nullptr, error);
    return;
  }
  const NodeId node = place(parent, name);
  const std::string path = options_.reportedPath + relativePath(node);
  tree_.setGeneration(node, generation_);
  status_.addLoss(explainMarkFailure(sources_.back()->name(), error), path.empty() ? "/" : path);
  report(node, {}, kFSEventStreamEventFlagMustScanSubDirs | kFSEventStreamEventFlagItemIsDir, false);
}

void WatchedTree::repair(FSEventStreamEventFlags dropped) {
  if (dropped == kFSEventStreamEventFlagKernelDropped) overflowed_ = false;
  if (dropped == kFSEventStreamEventFlagUserDropped) backlogDropped_ = false;
  if (dropped == 0) doubted_ = false;
  status_.addLoss(dropped == kFSEventStreamEventFlagKernelDropped ? explainOverflow(sources_.front()->name())
                  : dropped == kFSEventStreamEventFlagUserDropped
                      ? "more changes came than could be remembered; the tree is walked again"
                      : "the changes told do not explain what is on the disk; the tree is walked again",
                  options_.reportedPath);
  reportRoot(kFSEventStreamEventFlagMustScanSubDirs | dropped | rootKind());
  if (!rootIsFolder_) return;
  rootLostItem_ = true;
  FileHandle opened = openFolder(DirectoryTree::kRoot);
  if (!opened.isOpen()) return;  // the root is gone, which is another's to notice
  // So that no folder seems to have been seen by a crawl whose number has come round again.
  tree_.forEach([&](NodeId node) { tree_.setGeneration(node, 0); });
  generation_ = 0;
  arrivals_.clear();
  repairing_ = true;
  crawl(kNoNode, {}, std::move(opened), 0);
  repairing_ = false;
  std::vector<NodeId> stale;
  tree_.forEach([&](NodeId node) {
    if (node == DirectoryTree::kRoot || tree_.generation(node) == generation_) return;
    const NodeId parent = tree_.parent(node);
    if (parent == DirectoryTree::kRoot || tree_.generation(parent) == generation_ || tree_.isDetached(node)) stale.push_back(node);
  });
  // What is gone may have been removed or have left: only a new queue makes sure that no mark stays behind.
  for (const NodeId node : stale) {
    if (tree_.generation(node) != generation_ && tree_.parent(node) != kNoNode) forget(node, Why::Left);
  }
}

bool WatchedTree::needsTidying() const { return isAttached() && !retiring_ && sources_.front()->orphans() > 0; }

void WatchedTree::tidy() {
  // A folder that has no place at the moment would be passed over.
  const bool isAtRest = displaced_.empty() && arrivals_.empty() && sightings_.empty() && unopened_.empty() && !hasUnapplied();
  if (isAtRest && needsTidying()) renewQueue();
}

void WatchedTree::renewQueue() {
  std::unique_ptr<ChangeSource> fresh = sources_.front()->renewed();
  if (!fresh || !remark(*fresh)) return;
  // Every folder is marked in both queues now. The old one is emptied once more; what both tell is told twice at worst.
  retiring_ = std::exchange(sources_.front(), std::move(fresh));
  drain();
  process();
  retiring_.reset();
}

bool WatchedTree::remark(ChangeSource& fresh) {
  struct Folder {
    NodeId node;
    std::shared_ptr<OpenParent> open;
  };
  std::vector<Folder> stack{{DirectoryTree::kRoot, nullptr}};
  bool complete = true;
  for (int entered = 1; !stack.empty() && complete; ++entered) {
    const Folder next = std::move(stack.back());
    stack.pop_back();
    FileHandle opened =
        next.open ? openFolderIn(next.open->handle.fileDescriptor(), std::string(tree_.name(next.node)).c_str()) : openFolder(next.node);
    if ((tree_.flags(next.node) & kSourceMask) == 1) {
      KernelKey key;
      // A folder that is not in its place is about to be told of: not the time for this.
      complete = opened.isOpen() && fresh.mark(opened.fileDescriptor(), true, key) == 0 && key.view() == tree_.key(next.node);
    }
    std::shared_ptr<OpenParent> open;
    if (opened.isOpen() && openParents_ < kMaximumOpenParents) open = std::make_shared<OpenParent>(std::move(opened), openParents_);
    tree_.forEachChild(next.node, [&](NodeId child) { stack.push_back({child, open}); });
    if (entered % kFoldersBetweenDrains == 0) drain();
  }
  closeFolders();
  return complete;
}

}  // namespace platform::fsevents
