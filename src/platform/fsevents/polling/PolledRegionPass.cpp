#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/foundation/base/ProcessorTime.h"
#include "platform/fsevents/event/EventClock.h"
#include "platform/fsevents/folders/PathOpener.h"
#include "platform/fsevents/polling/FolderListing.h"
#include "platform/fsevents/polling/PolledChanges.h"
#include "platform/fsevents/polling/PolledFolder.h"
#include "platform/fsevents/polling/PolledRegion.h"

namespace platform::fsevents {
namespace {

/// Of the processor: one part in so many.
constexpr int kShare = 100;
/// For how long a slow file system is left alone at most for being slow.
constexpr std::chrono::seconds kLongestCourtesy(60);
/// So many passes follow each other soon, at most, while folders are not in their places: the queue is about to tell where they are.
constexpr std::uint32_t kMostHastened = 20;
constexpr std::chrono::milliseconds kSoon(5);
/// How often moved folders are looked at again within one pass, in which more moves may be found.
constexpr int kMostRounds = 8;

}  // namespace

std::uint32_t PolledRegion::hasten() {
  if (phase_ == Phase::Resting) due_ = Clock::now();
  return wanted_ = pass_ + 1;
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
  began_ = EventClock::now();
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
  missed_.clear();
  phase_ = Phase::Resting;
}

void PolledRegion::endPass(Host& host) {
  const auto courtesy = std::min<Clock::duration>(elapsed_, kLongestCourtesy);
  interval_ = std::max(
      {shortest_, std::chrono::ceil<std::chrono::milliseconds>(cost_ * kShare), std::chrono::ceil<std::chrono::milliseconds>(courtesy)});
  phase_ = Phase::Resting;
  const bool hasSeenAll = std::all_of(missed_.begin(), missed_.end(), [](const FolderPointer& folder) { return folder->isRemoved; });
  if (hasSeenAll) seenUpTo_ = began_;
  if (hasSeenAll || pass_ >= wanted_ + kMostHastened) seenIn_ = pass_;
  missed_.clear();
  due_ = Clock::now() + (seenIn_ >= wanted_ ? interval_ : kSoon);
  for (const FolderPointer& folder : std::exchange(leaving_, {})) {
    if (folder->isRemoved) continue;
    remove(folder->node);
    host.left(folder->node);
  }
}

bool PolledRegion::look(Host& host, Clock::time_point end) {
  const auto cost = threadProcessorTime();
  const auto begin = Clock::now();
  bool isInTime = true;
  bool isOver = false;
  while (isInTime && !isOver) {
    if (!listing_) isOver = !openNext(host);
    if (listing_) lookOn(host, end);
    isOver = isOver || (!isLookingAgain_ && changes_->isFull());
    isInTime = Clock::now() < end;
  }
  cost_ += threadProcessorTime() - cost;
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
    if (!isGone(error)) {
      lookFailed(host, *folder, error);
      return true;
    }
    missed_.push_back(folder);
    if (std::exchange(folder->wasDisplaced, true) && folder->why == Why::MarkRefused) host.replaced(folder->node);
    return true;
  }
  const Presence presence = presenceOf(*folder, opened.fileDescriptor());
  if (presence != Presence::Here) missed_.push_back(folder);
  if (presence == Presence::Replaced) host.replaced(folder->node);
  if (presence != Presence::Here) return true;
  const bool triesMark = folder->why == Why::MarkRefused && (triesMarks_ || folder->isMarked);
  const Mark mark = triesMark ? host.tryMark(folder->node, opened.fileDescriptor()) : Mark::NotYet;
  folder->isMarked = mark == Mark::Stands;
  triesMarks_ = triesMarks_ && mark != Mark::Refused;
  if (folder->isRemoved) return true;
  current_ = folder;
  opened_ = std::move(opened);
  listing_ = std::make_unique<FolderListing>(opened_.fileDescriptor(), StampRules{timeStep_.count(), foreign_});
  return true;
}

PolledRegion::Presence PolledRegion::presenceOf(PolledFolder& folder, int descriptor) const {
  int error = 0;
  const PolledItem found = lookAt(descriptor, "", 0, DT_DIR, error);
  if (error != 0) return Presence::Here;
  // Where numbers mean little, they say nothing.
  if (foreign_ || isSameItem(folder.self, found, {timeStep_.count(), foreign_})) {
    folder.self = found;
    folder.wasDisplaced = false;
    return Presence::Here;
  }
  // That another took its name is told in the folder above, and where this one is, before the next look.
  return std::exchange(folder.wasDisplaced, true) ? Presence::Replaced : Presence::Elsewhere;
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
    if (!comparison.compare(*folder, *listing_, {{timeStep_.count(), foreign_}, folder->isMarked, offset_})) error = errno;
  }
  if (error == 0 && comparison.hasDifferences() && !hasStayed(host, *folder)) {
    missed_.push_back(folder);
    closeCurrent();
    return;
  }
  if (error == 0) {
    error = listing_->itemError();
    comparison.take(*folder, *listing_);
  }
  folder->isLeaving = folder->isMarked && error == 0;
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
  if (folder->why == Why::MarkRefused) tellUnknown(host, folder, comparison);
  if (error != 0) {
    // A folder that was removed while it was open has no list any more.
    if (!isGone(error)) lookFailed(host, *folder, error);
  } else if (std::exchange(folder->hasFailed, false) && !folder->isRemoved) {
    host.recovered(folder->node);
  }
}

void PolledRegion::tellUnknown(Host& host, const FolderPointer& folder, const PolledComparison& comparison) {
  constexpr FSEventStreamEventFlags kFound = kFSEventStreamEventFlagItemCreated | kFSEventStreamEventFlagItemIsDir;
  const std::shared_ptr<const FolderTable> table = folder->table;
  auto replaced = comparison.replaced.begin();
  for (std::uint32_t at = 0; at < table->size() && !folder->isRemoved; ++at) {
    // In the order of the table. What came in the place of another is told with that one.
    while (replaced != comparison.replaced.end() && (replaced->second == PolledComparison::kNone || replaced->second < at)) ++replaced;
    if (replaced != comparison.replaced.end() && replaced->second == at) continue;
    const PolledItem item = table->item(at);
    if (item.kind != PolledItem::Kind::Folder || item.isNamedOnly) continue;
    if (host.knowsFolder(folder->node, table->name(at))) continue;
    host.changed(folder->node, table->name(at), kFound);
    host.folderFound(folder->node, table->name(at), kFound);
  }
}

bool PolledRegion::hasStayed(Host& host, PolledFolder& folder) const {
  // What was seen in it through its descriptor may have happened in another place, which is about to be found out.
  const FileHandle again = host.openFolder(folder.node);
  const bool isDisplaced = std::exchange(folder.wasDisplaced, false);
  const bool hasStayed = again.isOpen() && !folder.isRemoved && presenceOf(folder, again.fileDescriptor()) == Presence::Here;
  folder.wasDisplaced = isDisplaced;
  return hasStayed;
}

void PolledRegion::lookFailed(Host& host, PolledFolder& folder, int error) {
  if (folder.isRemoved) return;
  folder.hasFailed = true;
  host.failed(folder.node, error);
}

}  // namespace platform::fsevents
