#include <fcntl.h>

#include <utility>

#include "platform/fsevents/event/ShownPath.h"
#include "platform/fsevents/folders/PathOpener.h"
#include "platform/fsevents/tree/WatchedTree.h"

namespace platform::fsevents {

// The paths of folders: opened, and told.

std::string WatchedTree::relativePath(NodeId node) const {
  std::string path;
  tree_.appendPath(node, path);
  return path;
}

std::string WatchedTree::reportedPathOf(NodeId node) const {
  std::string path = options_.reportedPath;
  tree_.appendPath(node, path);
  return shownPath(path);
}

bool WatchedTree::isExcluded(NodeId folder, std::string_view name) const {
  if (exclusions_.empty()) return false;
  std::string path = relativePath(folder);
  if (!name.empty()) path.append("/").append(name);
  return exclusions_.contain(path);
}

bool WatchedTree::isLeftOut(NodeId folder, std::string_view name) { return isExcluded(folder, name) || isHidden(folder, name); }

bool WatchedTree::isHidden(NodeId folder, std::string_view name) {
  if (mountPoints_.empty()) return false;
  std::string path = relativePath(folder).append("/").append(name);
  if (!mountPoints_.contains(path)) return false;
  hidden_.insert_or_assign(std::move(path), std::pair(whereIs(folder), std::string(name)));
  return true;
}

int WatchedTree::rootDescriptor() {
  if (!root_.isOpen()) root_ = FileHandle(::open(options_.openPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return root_.fileDescriptor();
}

void WatchedTree::closeFolders() {
  root_.closeFile();
  if (source_) source_->leaveFolders();
  if (retiring_) retiring_->leaveFolders();
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
  coalescer_.add(number_, shownPath(options_.reportedPath), flags & items, false);
}

void WatchedTree::reportLoss(LossKind kind, NodeId node, const Explanation& why) {
  if (options_.pulse->leftBehind) return;
  if (!status_.losses().begin(kind, reportedPathOf(node), why.reason, why.remedy)) return;
  report(node, {}, kFSEventStreamEventFlagMustScanSubDirs | (node == DirectoryTree::kRoot ? rootKind() : kFSEventStreamEventFlagItemIsDir),
         false);
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
  lastNumber_ = coalescer_.add(number_, shownPath(pathBuffer_), flags, needsKind);
  lastEpoch_ = coalescer_.epoch();
  lastFolder_ = folder;
  lastName_ = name;
}

}  // namespace platform::fsevents
