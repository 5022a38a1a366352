#include "tests/fsevents/support/PolledWorld.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <thread>

namespace kestrine::test {

using platform::FileHandle;
using platform::fsevents::kNoNode;

namespace {

std::uint64_t nanoseconds(const timespec& time) {
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000U + static_cast<std::uint64_t>(time.tv_nsec);
}

/// The names in a folder; none when it is not there.
std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> list(::opendir(folder.c_str()), ::closedir);
  while (const dirent* entry = list ? ::readdir(list.get()) : nullptr) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  return names;
}

/// ItemIsFile, ItemIsDir or ItemIsSymlink; 0 when nothing is there.
FSEventStreamEventFlags kindAt(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return 0;
  return S_ISDIR(status.st_mode) ? kIsFolder : S_ISLNK(status.st_mode) ? kIsLink : kIsFile;
}

std::uint64_t inodeAt(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

}  // namespace

PolledWorld::PolledWorld(std::string root, Options options)
    : root_(std::move(root)), options_(options), region_(options.timeStep, options.foreign) {
  nodes_[next_] = {kNoNode, "", inodeAt(root_)};
  addBelow(next_++, root_, 0);
  copy_.clear();
  collect(root_, copy_);
}

void PolledWorld::pass(const std::function<void()>& between) {
  region_.hasten();
  const auto before = region_.due();
  while (region_.due() == before && !region_.empty()) {
    region_.work(*this, options_.slice);
    if (between) between();
  }
  tidy();
}

void PolledWorld::letStampsGoOn() { std::this_thread::sleep_for(std::chrono::milliseconds(25)); }

void PolledWorld::settle() {
  for (int looks = 0; looks < 3; ++looks) {
    letStampsGoOn();
    pass();
  }
  letStampsGoOn();
  take();
}

std::map<std::string, PolledWorld::Flags> PolledWorld::take() {
  std::map<std::string, Flags> told;
  for (const auto& [path, flags] : log_) told[path] |= flags;
  log_.clear();
  return told;
}

PolledWorld::Flags PolledWorld::flagsOf(const std::string& path) const {
  Flags together = 0;
  for (const auto& [told, flags] : log_) together |= told == path ? flags : 0;
  return together;
}

PolledWorld::NodeId PolledWorld::nodeOf(const std::string& path) const {
  for (const auto& [node, about] : nodes_) {
    if (!detached_.contains(node) && pathOf(node) == path) return node;
  }
  throw std::runtime_error("no node of " + path);
}

std::string PolledWorld::pathOf(NodeId node) const {
  const Node& about = nodes_.at(node);
  return about.parent == kNoNode ? root_ : pathOf(about.parent) + "/" + about.name;
}

bool PolledWorld::see(const std::string& path, Seen& seen) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return false;
  const bool isFolder = S_ISDIR(status.st_mode);
  seen = {status.st_ino, isFolder ? status.st_mode : nanoseconds(status.st_ctim),
          isFolder ? 0 : static_cast<std::uint64_t>(status.st_size)};
  return true;
}

void PolledWorld::collect(const std::string& folder, std::map<std::string, Seen>& seen) {
  for (const auto& name : namesIn(folder)) {
    const std::string path = folder + "/" + name;
    if (see(path, seen[path]) && kindAt(path) == kIsFolder) collect(path, seen);
  }
}

std::vector<std::string> PolledWorld::differences() const {
  std::map<std::string, Seen> disk;
  collect(root_, disk);
  std::vector<std::string> lines;
  for (const auto& [path, seen] : disk) {
    const auto known = copy_.find(path);
    if (known == copy_.end()) {
      lines.push_back("not told: there is " + path);
    } else if (known->second != seen) {
      lines.push_back("not told: change of " + path);
    }
  }
  for (const auto& [path, seen] : copy_) {
    if (!disk.contains(path)) lines.push_back("not told: gone is " + path);
  }
  return lines;
}

FileHandle PolledWorld::openFolder(NodeId folder) {
  const std::string path = pathOf(folder);
  const auto refused = refusals.find(path);
  if (refused != refusals.end() || detached_.contains(folder)) {
    errno = refused != refusals.end() ? refused->second : ENOENT;
    return FileHandle();
  }
  return FileHandle(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

PolledWorld::Region::Mark PolledWorld::tryMark(NodeId folder, int descriptor) {
  EXPECT_GE(descriptor, 0);
  marked.push_back(pathOf(folder));
  return marks(marked.back()) ? Region::Mark::Stands : Region::Mark::Refused;
}

void PolledWorld::replaced(NodeId folder) {
  if (nodes_.at(folder).parent == kNoNode) return;
  const Node about = nodes_.at(folder);
  told(pathOf(folder), kMustScan | kIsFolder);
  forget(folder);
  takeUp(about.parent, about.name, kCreated);
}

bool PolledWorld::knowsFolder(NodeId folder, std::string_view name) {
  // Of those that are to be found elsewhere something is known too.
  const std::string text(name);
  return childOf(folder, text) != kNoNode || std::any_of(detached_.begin(), detached_.end(), [&](NodeId node) {
           return nodes_.at(node).parent == folder && nodes_.at(node).name == text;
         });
}

void PolledWorld::told(const std::string& path, Flags flags) {
  log_.emplace_back(path, flags);
  if (!isDeferred) bringUpToDate(path, flags);
}

void PolledWorld::bringUpToDateNow() {
  for (const auto& [path, flags] : log_) bringUpToDate(path, flags);
}

void PolledWorld::bringUpToDate(const std::string& path, Flags flags) {
  // As whoever is told does: a folder that is new in its place, or is to be scanned, is read with all below it, and of what is gone nothing
  // is below.
  Seen seen{};
  const bool isThere = see(path, seen);
  const bool isScanned = isThere && (flags & kIsFolder) != 0 && (flags & (kCreated | kRenamed | kMustScan)) != 0;
  if (!isThere || isScanned) {
    const std::string below = path + "/";
    copy_.erase(copy_.lower_bound(below), copy_.lower_bound(path + static_cast<char>('/' + 1)));
  }
  if (!isThere) {
    copy_.erase(path);
    return;
  }
  copy_[path] = seen;
  if (isScanned && kindAt(path) == kIsFolder) collect(path, copy_);
}

void PolledWorld::changed(NodeId folder, std::string_view name, Flags flags) {
  told(name.empty() ? pathOf(folder) : pathOf(folder) + "/" + std::string(name), flags);
}

void PolledWorld::changedAt(std::string_view formerPlace, std::string_view name, Flags flags) {
  told(std::string(formerPlace) + "/" + std::string(name), flags);
}

PolledWorld::NodeId PolledWorld::childOf(NodeId parent, const std::string& name) const {
  const auto place = places_.find({parent, name});
  return place == places_.end() ? kNoNode : place->second;
}

std::vector<PolledWorld::NodeId> PolledWorld::subtree(NodeId node) const {
  std::vector<NodeId> nodes{node};
  for (std::size_t at = 0; at < nodes.size(); ++at) {
    for (const auto& [other, about] : nodes_) {
      if (about.parent == nodes[at]) nodes.push_back(other);
    }
  }
  return nodes;
}

void PolledWorld::forget(NodeId node) {
  for (const NodeId each : subtree(node)) {
    region_.remove(each);
    const Node about = nodes_.at(each);
    if (childOf(about.parent, about.name) == each) places_.erase({about.parent, about.name});
    detached_.erase(each);
    nodes_.erase(each);
  }
}

void PolledWorld::drop(NodeId node) {
  for (const NodeId each : subtree(node)) region_.tellAllRemoved(each, *this);
  forget(node);
}

void PolledWorld::folderGone(NodeId folder, std::string_view name, Flags flags) {
  const NodeId node = childOf(folder, std::string(name));
  if (node == kNoNode) return;
  if ((flags & kRenamed) == 0) {
    drop(node);
    return;
  }
  places_.erase({folder, std::string(name)});
  detached_.insert(node);
}

void PolledWorld::folderFound(NodeId folder, std::string_view name, Flags flags) {
  if (onFound) onFound(pathOf(folder) + "/" + std::string(name));
  takeUp(folder, std::string(name), flags & (kCreated | kRenamed));
}

void PolledWorld::takeUp(NodeId parent, const std::string& name, Flags report) {
  const std::string path = pathOf(parent) + "/" + name;
  const std::uint64_t inode = inodeAt(path);
  for (const NodeId node : detached_) {
    // It has been moved into what was in it: where that is now is still to be found out.
    if (nodes_.at(node).inode != inode || !isWithin(parent, node)) continue;
    later_.emplace_back(parent, name);
    return;
  }
  if (const NodeId there = childOf(parent, name); there != kNoNode) {
    if (nodes_.at(there).inode == inode) return;
    drop(there);
  }
  for (const NodeId node : detached_) {
    if (nodes_.at(node).inode != inode) continue;
    place(node, parent, name);
    return;
  }
  const NodeId node = next_++;
  nodes_[node] = {parent, name, inode};
  places_[{parent, name}] = node;
  addBelow(node, path, report);
}

void PolledWorld::place(NodeId node, NodeId parent, const std::string& name) {
  for (const NodeId each : subtree(node)) region_.moved(each, pathOf(each));
  detached_.erase(node);
  nodes_[node].parent = parent;
  nodes_[node].name = name;
  places_[{parent, name}] = node;
}

void PolledWorld::addBelow(NodeId node, const std::string& path, Flags report) {
  const FileHandle folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!folder.isOpen() || ::fstat(folder.fileDescriptor(), &status) != 0) return;
  nodes_[node].inode = status.st_ino;
  if (!region_.add(node, folder.fileDescriptor(), options_.why)) return;
  if (inodeAt(path) != status.st_ino) {
    region_.remove(node);  // it moved meanwhile: what it was seen to hold may have come to it elsewhere
    return;
  }
  for (const auto& name : namesIn(path)) {
    const std::string item = path + "/" + name;
    const Flags kind = kindAt(item);
    if (kind == 0) continue;
    region_.listed(node, name, kind);
    if (report != 0) told(item, report | kind);
    if (kind == kIsFolder) takeUp(node, name, report);
  }
}

bool PolledWorld::isWithin(NodeId node, NodeId above) const {
  while (node != kNoNode && node != above) node = nodes_.at(node).parent;
  return node == above;
}

void PolledWorld::tidy() {
  while (!detached_.empty()) drop(*detached_.begin());
  for (const auto& [parent, name] : std::exchange(later_, {})) {
    if (nodes_.contains(parent)) takeUp(parent, name, kRenamed);
  }
  std::vector<NodeId> missing;
  for (const auto& [node, about] : nodes_) {
    if (!region_.contains(node) && !removed_.contains(node)) missing.push_back(node);
  }
  for (const NodeId node : missing) {
    if (nodes_.contains(node)) addBelow(node, pathOf(node), kCreated);
  }
}

}  // namespace kestrine::test
