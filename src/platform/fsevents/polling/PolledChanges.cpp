#include "platform/fsevents/polling/PolledChanges.h"

#include <algorithm>
#include <utility>

namespace platform::fsevents {
namespace {

/// Changes told between two looks at the clock.
constexpr std::size_t kChangesBetweenClocks = 64;

/// An inode that left or came, and the change that says so.
struct Sighting {
  std::uint64_t inode;
  std::uint32_t change;
};

/// Whether the kernel has told since what a look would tell now. That an item was written to does not say that it is new.
template <class Change>
bool isOutdone(const PolledFolder& folder, std::string_view name, const Change& change) {
  constexpr FSEventStreamEventFlags kArrived = kFSEventStreamEventFlagItemCreated | kFSEventStreamEventFlagItemRenamed;
  const auto told = folder.told.find(name);
  if (told == folder.told.end()) return false;
  return change.came == 0 || told->second.item.isAbsent || (told->second.flags & kArrived) != 0;
}

bool isBefore(const Sighting& one, const Sighting& other) {
  return one.inode != other.inode ? one.inode < other.inode : one.change < other.change;
}

}  // namespace

void PolledChanges::add(const std::shared_ptr<PolledFolder>& folder, const PolledComparison& comparison) {
  if (comparison.replaced.empty()) return;
  const auto look = static_cast<std::uint32_t>(looks_.size());
  looks_.push_back({folder, comparison.formerPlace, folder->placeOfLook(), comparison.former, folder->table});
  for (const auto& [gone, came] : comparison.replaced) {
    Change change{look, gone, came, 0, 0, false, false};
    if (gone != PolledComparison::kNone) change.gone = kFSEventStreamEventFlagItemRemoved | flagOf(before(change).kind);
    if (came != PolledComparison::kNone) change.came = kFSEventStreamEventFlagItemCreated | flagOf(after(change).kind);
    changes_.push_back(change);
  }
  folder->isWaitedFor = true;
}

std::string_view PolledChanges::nameOf(const Change& change) const {
  const Look& look = looks_[change.look];
  return change.before != PolledComparison::kNone ? look.before->name(change.before) : look.after->name(change.after);
}

void PolledChanges::arrange() {
  step_ = Step::MovedGone;
  next_ = 0;
  std::vector<Sighting> gone;
  std::vector<Sighting> came;
  for (std::uint32_t at = 0; at < changes_.size(); ++at) {
    const Change& change = changes_[at];
    if ((change.gone & kFSEventStreamEventFlagItemRemoved) != 0) gone.push_back({before(change).inode, at});
    if ((change.came & kFSEventStreamEventFlagItemCreated) != 0) came.push_back({after(change).inode, at});
  }
  std::sort(gone.begin(), gone.end(), isBefore);
  std::sort(came.begin(), came.end(), isBefore);
  auto from = gone.begin();
  for (const Sighting& to : came) {
    while (from != gone.end() && from->inode < to.inode) ++from;
    if (from == gone.end()) return;
    if (from->inode != to.inode || to.inode == 0) continue;
    pair(changes_[from->change], changes_[to.change]);
    ++from;
  }
}

void PolledChanges::pair(Change& source, Change& target) const {
  const PolledItem was = before(source);
  const PolledItem is = after(target);
  // Another item may have got the number of one that is gone.
  if (was.kind != is.kind || (was.birth != is.birth && was.birth != 0 && is.birth != 0)) return;
  source.gone = kFSEventStreamEventFlagItemRenamed | flagOf(was.kind);
  target.came = kFSEventStreamEventFlagItemRenamed | flagOf(is.kind);
  // The change time says nothing: the renaming moved it.
  if (was.content != is.content) target.came |= changeOf(was, is);
}

void PolledChanges::tellName(PolledRegion::Host& host, const Look& look, std::string_view name, FSEventStreamEventFlags gone,
                             FSEventStreamEventFlags came) {
  const NodeId folder = look.folder->node;
  if (gone != 0 && look.seen && !look.seen->path.empty()) {
    host.changedAt(look.seen->path, name, std::exchange(gone, 0));
    // Before or after the move: whoever was told of the new place may have seen it there.
    if (!look.seen->isExact) host.changed(folder, {}, kFSEventStreamEventFlagMustScanSubDirs | kFSEventStreamEventFlagItemIsDir);
  }
  if ((gone | came) == 0) return;
  if (look.missed->path.empty()) {
    host.changed(folder, name, gone | came);
  } else {
    host.changedAt(look.missed->path, name, gone | came);
  }
}

void PolledChanges::tellOne(PolledRegion::Host& host, Change& change) {
  const Look& look = looks_[change.look];
  const std::string_view name = nameOf(change);
  // What the kernel told of the name since is the later word.
  if (look.folder->isRemoved || isOutdone(*look.folder, name, change)) change.gone = change.came = 0;
  if (step_ == Step::Names) {
    tellName(host, look, name, change.gone, change.came);
  } else {
    tellTree(host, look, name, change);
  }
}

void PolledChanges::tellTree(PolledRegion::Host& host, const Look& look, std::string_view name, Change& change) {
  constexpr FSEventStreamEventFlags kMovedFolder = kFSEventStreamEventFlagItemRenamed | kFSEventStreamEventFlagItemIsDir;
  const NodeId folder = look.folder->node;
  const bool wasFolder = (change.gone & kFSEventStreamEventFlagItemIsDir) != 0;
  const bool isFolder = (change.came & kFSEventStreamEventFlagItemIsDir) != 0;
  const bool hasArrived = (change.came & kMovedFolder) == kMovedFolder;
  // One whose place is taken by a folder that moved may yet be found elsewhere.
  const bool isLeaving = (change.gone & kMovedFolder) == kMovedFolder || (wasFolder && hasArrived);
  if (step_ == Step::MovedGone && isLeaving && !std::exchange(change.isGoneMoved, true)) {
    host.folderGone(folder, name, kMovedFolder);
  } else if (step_ == Step::MovedFound && hasArrived && !std::exchange(change.isFoundMoved, true)) {
    arriving_ = after(change).inode;
    host.folderFound(folder, name, change.came);
    arriving_ = 0;
  } else if (step_ == Step::FoldersGone && wasFolder && !change.isGoneMoved) {
    host.folderGone(folder, name, change.gone);
  } else if (step_ == Step::FoldersFound && isFolder && !change.isFoundMoved) {
    host.folderFound(folder, name, change.came);
  }
}

bool PolledChanges::tellUntil(PolledRegion::Host& host, Step last, Clock::time_point end) {
  while (step_ != last) {
    for (std::size_t told = 1; next_ < changes_.size(); ++told) {
      tellOne(host, changes_[next_++]);
      if (told % kChangesBetweenClocks == 0 && Clock::now() >= end) return false;
    }
    next_ = 0;
    step_ = static_cast<Step>(static_cast<int>(step_) + 1);
  }
  return true;
}

bool PolledChanges::moveFolders(PolledRegion::Host& host, Clock::time_point end) { return tellUntil(host, Step::Names, end); }

bool PolledChanges::tell(PolledRegion::Host& host, Clock::time_point end) {
  if (!tellUntil(host, Step::Over, end)) return false;
  clear();
  return true;
}

void PolledChanges::tellRemoved(PolledFolder& folder, PolledRegion::Host& host) {
  if (!std::exchange(folder.isWaitedFor, false)) return;
  for (std::size_t at = 0; at < changes_.size(); ++at) {
    Change& change = changes_[at];
    if (looks_[change.look].folder.get() != &folder) continue;
    const bool isTold = step_ > Step::Names || (step_ == Step::Names && at < next_) || isOutdone(folder, nameOf(change), change);
    const FSEventStreamEventFlags gone = std::exchange(change.gone, 0);
    change.came = 0;  // what is there now is told as removed by the owner
    if (!isTold) tellName(host, looks_[change.look], nameOf(change), gone, 0);
  }
}

void PolledChanges::clear() {
  for (const Look& look : looks_) look.folder->isWaitedFor = false;
  looks_ = {};
  changes_ = {};
  step_ = Step::MovedGone;
  next_ = 0;
}

}  // namespace platform::fsevents
