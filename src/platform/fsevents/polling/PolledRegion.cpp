#include "platform/fsevents/polling/PolledRegion.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/fsevents/event/EventClock.h"
#include "platform/fsevents/polling/FolderListing.h"
#include "platform/fsevents/polling/PolledChanges.h"
#include "platform/fsevents/polling/PolledFolder.h"

namespace platform::fsevents {
namespace {

constexpr std::chrono::milliseconds kShortestInterval(1000);

/// What the kernel told with these flags is no news to whoever was told.
FSEventStreamEventFlags coveredBy(FSEventStreamEventFlags flags) {
  if ((flags & kFSEventStreamEventFlagItemRenamed) != 0) flags |= kFSEventStreamEventFlagItemCreated | kFSEventStreamEventFlagItemRemoved;
  if ((flags & kFSEventStreamEventFlagItemCreated) != 0) flags |= kFSEventStreamEventFlagItemModified;
  if ((flags & kFSEventStreamEventFlagItemModified) != 0) flags |= kFSEventStreamEventFlagItemInodeMetaMod;
  return flags;
}

}  // namespace

PolledRegion::PolledRegion(std::chrono::nanoseconds timeStep, bool foreign)
    : timeStep_(timeStep),
      foreign_(foreign),
      seenUpTo_(EventClock::now()),
      changes_(std::make_unique<PolledChanges>()),
      offset_(FolderListing::kNoOffset),
      // A look must come later than the stamps that the last one could not tell apart.
      shortest_(std::max(kShortestInterval, std::chrono::ceil<std::chrono::milliseconds>(timeStep + timeStep / 10))),
      interval_(shortest_) {}

PolledRegion::~PolledRegion() = default;

bool PolledRegion::isStampedElsewhere(const PolledItem& item) const {
  return foreign_ && !item.isNamedOnly && item.kind != PolledItem::Kind::Folder;
}

PolledRegion::FolderPointer PolledRegion::find(NodeId folder) const {
  const auto known = folders_.find(folder);
  return known == folders_.end() ? nullptr : known->second;
}

bool PolledRegion::add(NodeId folder, int descriptor, Why why) {
  const StampRules rules{timeStep_.count(), foreign_};
  FolderListing listing(descriptor, rules);
  if (::lseek(descriptor, 0, SEEK_SET) != 0) return false;
  const bool isListed = listing.read(Clock::time_point::max()) == FolderListing::Progress::Done && listing.finish({});
  const int error = listing.error() != 0 ? listing.error() : EOVERFLOW;
  int ignored = 0;
  // Whoever lists it after this begins at its beginning.
  if (::lseek(descriptor, 0, SEEK_SET) != 0) return false;
  if (!isListed) {
    errno = error;
    return false;
  }
  auto fresh = std::make_shared<PolledFolder>(folder, why);
  fresh->self = lookAt(descriptor, "", 0, DT_DIR, ignored);
  FolderTable& table = *(fresh->table = std::make_shared<FolderTable>(std::move(listing.table())));
  fresh->lookBegan = listing.began();
  fresh->lookEnded = listing.ended();
  fresh->addedIn = pass_;
  for (std::size_t at = 0; at < table.size(); ++at) {
    PolledItem item = table.item(at);
    if (item.looks == 0 && !isStampedElsewhere(item)) continue;
    item.looks = PolledItem::kFirstLook;
    table.setItem(at, item);
  }
  offset_ = std::max(offset_, listing.offset());
  remove(folder);
  if (folders_.empty() && phase_ == Phase::Resting && seenIn_ >= wanted_) due_ = Clock::now() + interval_;
  folders_.emplace(folder, std::move(fresh));
  return true;
}

void PolledRegion::listed(NodeId folder, std::string_view name, FSEventStreamEventFlags kind) {
  const FolderPointer known = find(folder);
  if (!known || !known->find(name).isAbsent) return;
  const bool isFolder = (kind & kFSEventStreamEventFlagItemIsDir) != 0;
  const bool isLink = (kind & kFSEventStreamEventFlagItemIsSymlink) != 0;
  const PolledItem item = namedItem(0, isFolder ? DT_DIR : isLink ? DT_LNK : DT_REG);
  known->told.insert_or_assign(std::string(name), ToldItem{item, 0});
}

void PolledRegion::remove(NodeId folder) {
  const auto known = folders_.find(folder);
  if (known == folders_.end()) return;
  known->second->isRemoved = true;
  if (isUnderWay(*known->second)) closeCurrent();
  folders_.erase(known);
}

void PolledRegion::tellAllRemoved(NodeId folder, Host& host) {
  const FolderPointer known = find(folder);
  if (!known) return;
  if (isUnderWay(*known)) closeCurrent();
  changes_->tellRemoved(*known, host);
  const auto kept = std::exchange(known->table, std::make_shared<FolderTable>());
  const FolderTable& table = *kept;
  const auto told = std::exchange(known->told, {});
  const std::string place = known->place ? known->place->path : std::string();
  const auto tellOne = [&](std::string_view name, const PolledItem& item) {
    const FSEventStreamEventFlags flags = kFSEventStreamEventFlagItemRemoved | flagOf(item.kind);
    if (place.empty()) {
      host.changed(folder, name, flags);
    } else {
      host.changedAt(place, name, flags);
    }
  };
  for (std::size_t at = 0; at < table.size(); ++at) {
    if (!told.contains(table.name(at))) tellOne(table.name(at), table.item(at));
  }
  for (const auto& [name, last] : told) {
    if (!last.item.isAbsent) tellOne(name, last.item);
  }
}

void PolledRegion::moved(NodeId folder, std::string_view formerPlace) {
  const FolderPointer known = find(folder);
  if (!known) return;
  FormerPlace& place = *known->placeOfLook();
  if (!place.path.empty()) return;
  place.path = formerPlace;
  if (phase_ != Phase::Moving || known->isLeaving) return;
  // Of one that is found on the way, in a folder that is taken up, somebody may have been told already.
  if (known->self.inode == changes_->arriving()) directlyMoved_ = changes_->arriving();
  place.isExact = changes_->arriving() != 0 && directlyMoved_ == changes_->arriving();
  moved_.push_back(known);
}

void PolledRegion::told(NodeId folder, int descriptor, std::string_view name, FSEventStreamEventFlags flags) {
  const FolderPointer known = find(folder);
  if (!known || name.empty()) return;
  const StampRules rules{timeStep_.count(), foreign_};
  int error = 0;
  const std::int64_t now = stampClock();
  PolledItem item = lookAt(descriptor, std::string(name).c_str(), 0, 0, error);
  if (item.isNamedOnly && !item.isAbsent) return;  // what is to be said of it the next pass finds out
  if (isUnderWay(*known)) listing_->lookAgain(name);
  const FSEventStreamEventFlags rest = changeOfName(known->find(name), item, rules);
  if (rest == 0 || (rest & ~coveredBy(flags)) != 0) return;
  // Somebody else's change right after it may leave the same stamp.
  item.looks = isStampedElsewhere(item) || isRecent(item, now, rules) ? PolledItem::kTold : 0;
  ToldItem& told = known->told[std::string(name)];
  told = {item, told.flags | flags};
}

std::optional<PolledRegion::Clock::time_point> PolledRegion::due() const {
  if (folders_.empty()) return std::nullopt;
  return due_;
}

}  // namespace platform::fsevents
