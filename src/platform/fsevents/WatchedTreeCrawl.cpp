#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/fsevents/KernelLimits.h"
#include "platform/fsevents/PathOpener.h"
#include "platform/fsevents/WatchedTree.h"

namespace platform::fsevents {
namespace {

/// Parents kept open while their folders are entered; beyond that folders are opened by their path.
constexpr int kMaximumOpenParents = 128;
/// How often the kernel queues are emptied while a crawl is under way.
constexpr int kFoldersBetweenDrains = 64;
constexpr std::chrono::milliseconds kRetryPause(100);
constexpr std::size_t kListingSize = std::size_t{32} << 10U;

bool isGone(int error) { return error == ENOENT || error == ENOTDIR || error == ELOOP; }
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

void WatchedTree::crawl(NodeId start, FileHandle folder, FSEventStreamEventFlags report) {
  ++generation_;
  std::vector<Pending> stack;
  enter(start, std::move(folder), report, stack);
  for (int entered = 1; !stack.empty(); ++entered) {
    Pending next = std::move(stack.back());
    stack.pop_back();
    FileHandle opened;
    if (next.parent) {
      std::array<char, NAME_MAX + 1> name;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled at once
      const std::string_view text = tree_.name(next.node);
      std::memcpy(name.data(), text.data(), text.size());
      name[text.size()] = '\0';
      opened = openFolderIn(next.parent->handle.fileDescriptor(), name.data());
    } else {
      opened = openFolder(next.node);
    }
    if (opened.isOpen()) {
      enter(next.node, std::move(opened), report, stack);
    } else {
      openFailed(next.node, next.parent, errno);
    }
    if (entered % kFoldersBetweenDrains == 0) drain();
  }
}

void WatchedTree::enter(NodeId node, FileHandle folder, FSEventStreamEventFlags report, std::vector<Pending>& stack) {
  KernelKey key;
  std::uint8_t used = 0;
  if (const int error = markFolder(folder.fileDescriptor(), true, key, used); error != 0) {
    markRefused(node, error);
    return;
  }
  node = settleKey(node, key.view());
  if (node == kNoNode) return;
  const std::uint8_t flags = tree_.flags(node);
  if ((flags & kSourceMask) == 0) ++marked_;
  if ((flags & kUnreadable) != 0) status_.removeUnreadable(options_.reportedPath + relativePath(node));
  tree_.setFlags(node, used);
  tree_.setGeneration(node, generation_);
  list(node, std::move(folder), report, stack);
}

NodeId WatchedTree::settleKey(NodeId node, std::string_view key) {
  const NodeId known = tree_.findByKey(key);
  if (known == node) return node;
  if (known == kNoNode) {
    if (tree_.key(node).empty() || node == DirectoryTree::kRoot || (tree_.flags(node) & kSourceMask) == 0) {
      tree_.setKey(node, key);
      return node;
    }
    // Another folder stands where this one was.
    const NodeId parent = tree_.parent(node);
    const std::string name(tree_.name(node));
    displace(node);
    const NodeId fresh = tree_.add(parent, name);
    tree_.setKey(fresh, key);
    return fresh;
  }
  // A folder that is seen in two places at once is mounted twice, perhaps within itself; it keeps its first place.
  const bool seenTwice =
      tree_.isBelowOrSame(node, known) || (tree_.generation(known) == generation_ && !tree_.isDetached(known) && isStillAt(known, key));
  const NodeId parent = tree_.parent(node);
  const std::string name(tree_.name(node));
  const bool hadMark = (tree_.flags(node) & kSourceMask) != 0;
  if (hadMark && !seenTwice) {
    displace(node);
  } else if (!hadMark) {
    forget(node, Why::Removed);
  }
  if (seenTwice) return kNoNode;
  pathsChanged();
  tree_.move(known, parent, name);
  return known;
}

bool WatchedTree::isStillAt(NodeId node, std::string_view key) {
  const FileHandle opened = openFolder(node);
  KernelKey found;
  std::uint8_t used = 0;
  return opened.isOpen() && markFolder(opened.fileDescriptor(), true, found, used) == 0 && found.view() == key;
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
      if (flags != 0) report(node, name, flags | kind, false);
      if (kind != kFSEventStreamEventFlagItemIsDir || isExcluded(node, name)) continue;
      NodeId child = tree_.child(node, name);
      if (child == kNoNode) child = tree_.add(node, name);
      if (!parent && openParents_ < kMaximumOpenParents) parent = std::make_shared<OpenParent>(std::move(folder), openParents_);
      stack.push_back({child, parent});
    }
  }
}

void WatchedTree::openFailed(NodeId node, const std::shared_ptr<OpenParent>& parent, int error) {
  if (isGone(error)) {
    // A folder that is known elsewhere by now is forgotten here only in name: its key has moved with it.
    forget(node, Why::Removed);
    return;
  }
  const std::string path = options_.reportedPath + relativePath(node);
  if (isRefused(error)) {
    tree_.setFlags(node, tree_.flags(node) | kUnreadable);
    tree_.setGeneration(node, generation_);
    status_.addUnreadable(path);
    KernelKey key;
    FileHandle above = parent ? FileHandle() : openFolder(tree_.parent(node));
    const int folder = parent ? parent->handle.fileDescriptor() : above.fileDescriptor();
    if (folder >= 0 && tree_.key(node).empty()) {
      sources_.front()->identify(folder, std::string(tree_.name(node)).c_str(), key);
      if (!key.empty() && tree_.findByKey(key.view()) == kNoNode) tree_.setKey(node, key.view());
    }
    return;
  }
  // Out of descriptors or memory for the moment.
  unopened_.push_back({std::string(tree_.key(tree_.parent(node))), std::string(tree_.name(node))});
  retryAt_ = Clock::now() + kRetryPause;
}

void WatchedTree::retryUnopened() {
  if (!retryAt_ || *retryAt_ > Clock::now()) return;
  retryAt_.reset();
  for (const Retry& retry : std::exchange(unopened_, {})) {
    const NodeId folder = tree_.findByKey(retry.folder);
    if (folder != kNoNode) takeUp(folder, retry.name, kFSEventStreamEventFlagItemCreated);
  }
}

void WatchedTree::markRefused(NodeId node, int error) {
  if (isGone(error) || isRefused(error)) {
    openFailed(node, nullptr, error);
    return;
  }
  const std::string path = options_.reportedPath + relativePath(node);
  tree_.setGeneration(node, generation_);
  status_.addLoss(explainMarkFailure(sources_.back()->name(), error), path.empty() ? "/" : path);
  report(node, {}, kFSEventStreamEventFlagMustScanSubDirs | kFSEventStreamEventFlagItemIsDir, false);
}

void WatchedTree::repair(FSEventStreamEventFlags dropped) {
  if (dropped == kFSEventStreamEventFlagKernelDropped) overflowed_ = false;
  if (dropped == kFSEventStreamEventFlagUserDropped) backlogDropped_ = false;
  status_.addLoss(dropped == kFSEventStreamEventFlagKernelDropped ? explainOverflow(sources_.front()->name())
                                                                  : "more changes came than could be remembered; the tree is walked again",
                  options_.reportedPath);
  reportRoot(kFSEventStreamEventFlagMustScanSubDirs | dropped | rootKind());
  if (!rootIsFolder_) return;
  FileHandle opened = openFolder(DirectoryTree::kRoot);
  if (!opened.isOpen()) return;  // the root is gone, which is another's to notice
  crawl(DirectoryTree::kRoot, std::move(opened), 0);
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
  if (needsTidying()) renewQueue();
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
  std::vector<Pending> stack{{DirectoryTree::kRoot, nullptr}};
  bool complete = true;
  for (int entered = 1; !stack.empty() && complete; ++entered) {
    const Pending next = std::move(stack.back());
    stack.pop_back();
    FileHandle opened = next.parent ? openFolderIn(next.parent->handle.fileDescriptor(), std::string(tree_.name(next.node)).c_str())
                                    : openFolder(next.node);
    if ((tree_.flags(next.node) & kSourceMask) == 1) {
      KernelKey key;
      // A folder that is not in its place is about to be told of: not the time for this.
      complete = opened.isOpen() && fresh.mark(opened.fileDescriptor(), true, key) == 0 && key.view() == tree_.key(next.node);
    }
    std::shared_ptr<OpenParent> parent;
    if (opened.isOpen() && openParents_ < kMaximumOpenParents) parent = std::make_shared<OpenParent>(std::move(opened), openParents_);
    tree_.forEachChild(next.node, [&](NodeId child) { stack.push_back({child, parent}); });
    if (entered % kFoldersBetweenDrains == 0) drain();
  }
  root_.closeFile();
  return complete;
}

}  // namespace platform::fsevents
