#include "platform/fsevents/PolledChanges.h"

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
  const bool isElsewhere = look.seen && !look.seen->path.empty();
  const FormerPlace& place = isElsewhere ? *look.seen : *look.missed;
  if (gone != 0 && !place.path.empty()) {
    host.changedAt(place.path, name, gone);
    // Before or after the move: whoever was told of the new place may have seen it there.
    gone = 0;
    if (isElsewhere && !place.isExact) host.changed(folder, {}, kFSEventStreamEventFlagMustScanSubDirs | kFSEventStreamEventFlagItemIsDir);
  }
  if ((gone | came) != 0) host.changed(folder, name, gone | came);
}

void PolledChanges::tellOne(PolledRegion::Host& host, Change& change) {
  const Look& look = looks_[change.look];
  const std::string_view name = nameOf(change);
  // What the kernel told of the name since is the later word.
  if (look.folder->isRemoved || look.folder->told.contains(name)) change.gone = change.came = 0;
  const bool isGone = step_ == Step::MovedGone || step_ == Step::FoldersGone;
  const FSEventStreamEventFlags flags = isGone ? change.gone : change.came;
  const bool isOfMoved = (flags & kFSEventStreamEventFlagItemRenamed) != 0;
  if (step_ == Step::Names) {
    tellName(host, look, name, change.gone, change.came);
  } else if ((flags & kFSEventStreamEventFlagItemIsDir) == 0 || isOfMoved != (step_ < Step::Names)) {
    return;
  } else if (isGone) {
    if (!isOfMoved || !std::exchange(change.isGoneMoved, true)) host.folderGone(look.folder->node, name, flags);
  } else {
    if (!isOfMoved || !std::exchange(change.isFoundMoved, true)) host.folderFound(look.folder->node, name, flags);
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
    const FSEventStreamEventFlags gone = std::exchange(change.gone, 0);
    change.came = 0;  // what is there now is told as removed by the owner
    const bool isTold = step_ > Step::Names || (step_ == Step::Names && at < next_) || folder.told.contains(nameOf(change));
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
