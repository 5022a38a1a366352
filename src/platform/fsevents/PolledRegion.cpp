#include "platform/fsevents/PolledRegion.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <utility>

#include "platform/fsevents/FolderListing.h"
#include "platform/fsevents/PathOpener.h"
#include "platform/fsevents/PolledChanges.h"
#include "platform/fsevents/PolledFolder.h"

namespace platform::fsevents {
namespace {

constexpr std::chrono::milliseconds kShortestInterval(1000);
/// Of the processor: one part in so many.
constexpr int kShare = 100;
/// For how long a slow file system is left alone at most for being slow.
constexpr std::chrono::seconds kLongestCourtesy(60);
/// How often moved folders are looked at again within one pass, in which more moves may be found.
constexpr int kMostRounds = 8;

std::chrono::nanoseconds processorTime() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

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
      changes_(std::make_unique<PolledChanges>()),
      offset_(FolderListing::kNoOffset),
      // A look must come later than the stamps that the last one could not tell apart.
      interval_(std::max(kShortestInterval, std::chrono::ceil<std::chrono::milliseconds>(timeStep + timeStep / 10))) {}

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
  if (folders_.empty() && phase_ == Phase::Resting) due_ = Clock::now() + interval_;
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

std::uint32_t PolledRegion::hasten() {
  if (phase_ == Phase::Resting) {
    due_ = Clock::now();
  } else {
    isHastened_ = true;
  }
  return pass_ + 1;
}

std::optional<PolledRegion::Clock::time_point> PolledRegion::work(Host& host, Clock::duration slice) {
  const auto begin = Clock::now();
  if (folders_.empty()) dropPass();
  if (folders_.empty() || (phase_ == Phase::Resting && begin < due_)) return due();
  if (phase_ == Phase::Resting) beginPass();
  const auto end = begin + slice;
  while (phase_ != Phase::Resting) {
    const bool isInTime = phase_ == Phase::Looking ? look(host, end) : phase_ == Phase::Moving ? move(host, end) : tell(host, end);
    if (!isInTime) break;
  }
  return due();
}

void PolledRegion::beginPass() {
  ++pass_;
  phase_ = Phase::Looking;
  reached_.reset();
  hasReachedAll_ = false;
  isLookingAgain_ = false;
  rounds_ = 0;
  triesMarks_ = true;
  cost_ = {};
  elapsed_ = {};
}

void PolledRegion::dropPass() {
  closeCurrent();
  changes_->clear();
  leaving_.clear();
  moved_.clear();
  phase_ = Phase::Resting;
}

void PolledRegion::endPass(Host& host) {
  const auto courtesy = std::min<Clock::duration>(elapsed_, kLongestCourtesy);
  const auto shortest = std::max(kShortestInterval, std::chrono::ceil<std::chrono::milliseconds>(timeStep_ + timeStep_ / 10));
  interval_ = std::max({shortest, std::chrono::ceil<std::chrono::milliseconds>(cost_ * kShare),
                        std::chrono::ceil<std::chrono::milliseconds>(courtesy)});
  phase_ = Phase::Resting;
  due_ = Clock::now();
  if (!std::exchange(isHastened_, false)) due_ += interval_;
  for (const FolderPointer& folder : std::exchange(leaving_, {})) {
    if (folder->isRemoved) continue;
    remove(folder->node);
    host.left(folder->node);
  }
}

bool PolledRegion::look(Host& host, Clock::time_point end) {
  const auto cost = processorTime();
  const auto begin = Clock::now();
  bool isInTime = true;
  bool isOver = false;
  while (isInTime && !isOver) {
    if (!listing_) isOver = !openNext(host);
    if (listing_) lookOn(host, end);
    isOver = isOver || (!isLookingAgain_ && changes_->isFull());
    isInTime = Clock::now() < end;
  }
  cost_ += processorTime() - cost;
  elapsed_ += Clock::now() - begin;
  if (!isOver) return false;
  changes_->arrange();
  phase_ = Phase::Moving;
  return isInTime;
}

bool PolledRegion::move(Host& host, Clock::time_point end) {
  if (!changes_->moveFolders(host, end)) return false;
  // What happened in them is told of the places where it happened, if it is looked at before the move is told.
  isLookingAgain_ = !moved_.empty() && ++rounds_ < kMostRounds;
  if (!isLookingAgain_) {
    for (const FolderPointer& folder : std::exchange(moved_, {})) folder->placeOfLook()->isExact = false;
  }
  phase_ = isLookingAgain_ ? Phase::Looking : Phase::Telling;
  return true;
}

bool PolledRegion::tell(Host& host, Clock::time_point end) {
  if (!changes_->tell(host, end)) return false;
  rounds_ = 0;
  if (hasReachedAll_) {
    endPass(host);
  } else {
    phase_ = Phase::Looking;
  }
  return true;
}

PolledRegion::FolderPointer PolledRegion::nextFolder() {
  if (isLookingAgain_) {
    if (moved_.empty()) return nullptr;
    FolderPointer folder = std::move(moved_.back());
    moved_.pop_back();
    return folder;
  }
  const auto next = reached_ ? folders_.upper_bound(*reached_) : folders_.begin();
  hasReachedAll_ = next == folders_.end();
  if (hasReachedAll_) return nullptr;
  reached_ = next->first;
  return next->second;
}

bool PolledRegion::openNext(Host& host) {
  const FolderPointer folder = nextFolder();
  if (!folder) return false;
  if (folder->isRemoved || (folder->addedIn == pass_ && !isLookingAgain_)) return true;
  FileHandle opened = host.openFolder(folder->node);
  const int error = errno;
  if (folder->isRemoved) return true;
  if (!opened.isOpen()) {
    if (!isGone(error)) lookFailed(host, *folder, error);
    return true;
  }
  if (!isHere(*folder, opened.fileDescriptor())) return true;
  isMarked_ = folder->why == Why::MarkRefused && triesMarks_ && host.tryMark(folder->node, opened.fileDescriptor());
  triesMarks_ = triesMarks_ && (isMarked_ || folder->why != Why::MarkRefused);
  if (folder->isRemoved) return true;
  current_ = folder;
  opened_ = std::move(opened);
  listing_ = std::make_unique<FolderListing>(opened_.fileDescriptor(), StampRules{timeStep_.count(), foreign_});
  return true;
}

bool PolledRegion::isHere(PolledFolder& folder, int descriptor) const {
  int error = 0;
  const PolledItem found = lookAt(descriptor, "", 0, DT_DIR, error);
  if (error != 0) return true;
  const bool isKnown = isSameItem(folder.self, found, {timeStep_.count(), foreign_});
  // That another took its name is told in the folder above, and where this one is. When nobody said so by the next time, it was the file
  // system that changed its mind about numbers; where those mean little, they say nothing at all.
  folder.wasDisplaced = !isKnown && !folder.wasDisplaced && !foreign_;
  if (folder.wasDisplaced) return false;
  folder.self = found;
  return true;
}

void PolledRegion::closeCurrent() {
  listing_.reset();
  opened_.closeFile();
  current_.reset();
}

void PolledRegion::lookOn(Host& host, Clock::time_point end) {
  const FolderListing::Progress progress = listing_->read(end);
  if (progress == FolderListing::Progress::More) return;
  const FolderPointer folder = current_;
  int error = listing_->error();
  PolledComparison comparison;
  if (progress == FolderListing::Progress::Done) {
    offset_ = std::max(offset_, listing_->offset());
    if (!comparison.compare(*folder, *listing_, {{timeStep_.count(), foreign_}, isMarked_, offset_})) error = errno;
  }
  if (error == 0 && comparison.hasDifferences() && !hasStayed(host, *folder)) {
    closeCurrent();
    return;
  }
  if (error == 0) {
    error = listing_->itemError();
    comparison.take(*folder, *listing_);
  }
  folder->isLeaving = isMarked_ && error == 0;
  if (folder->isLeaving) leaving_.push_back(folder);
  closeCurrent();
  tellLook(host, folder, comparison, error);
}

void PolledRegion::tellLook(Host& host, const FolderPointer& folder, const PolledComparison& comparison, int error) {
  changes_->add(folder, comparison);
  const std::shared_ptr<const FolderTable> table = folder->table;
  for (const auto& [at, flags] : comparison.changed) {
    if (!folder->isRemoved) host.changed(folder->node, table->name(at), flags);
  }
  if (error != 0) {
    // A folder that was removed while it was open has no list any more.
    if (!isGone(error)) lookFailed(host, *folder, error);
  } else if (std::exchange(folder->hasFailed, false) && !folder->isRemoved) {
    host.recovered(folder->node);
  }
}

bool PolledRegion::hasStayed(Host& host, PolledFolder& folder) const {
  // What was seen in it through its descriptor may have happened in another place, which is about to be found out.
  const FileHandle again = host.openFolder(folder.node);
  const bool isDisplaced = std::exchange(folder.wasDisplaced, false);
  const bool hasStayed = again.isOpen() && !folder.isRemoved && isHere(folder, again.fileDescriptor());
  folder.wasDisplaced = isDisplaced;
  return hasStayed;
}

void PolledRegion::lookFailed(Host& host, PolledFolder& folder, int error) {
  if (folder.isRemoved) return;
  folder.hasFailed = true;
  host.failed(folder.node, error);
}

}  // namespace platform::fsevents
