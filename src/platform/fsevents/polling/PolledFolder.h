#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/fsevents/polling/FolderListing.h"
#include "platform/fsevents/polling/FolderTable.h"
#include "platform/fsevents/polling/PolledRegion.h"

namespace platform::fsevents {

/// Where a folder was when it was looked at, once it is elsewhere.
struct FormerPlace {
  /// Empty as long as it has not moved.
  std::string path;
  /// It was looked at in its new place before anybody was told of that.
  bool isExact = false;
};

/// What the kernel told of an item, and what the disk showed then.
struct ToldItem {
  PolledItem item;
  FSEventStreamEventFlags flags = 0;
};

/// What a region knows of one folder. Shared with what is under way when the folder is removed from the region meanwhile.
struct PolledFolder {
  PolledFolder(NodeId number, PolledRegion::Why reason) : node(number), why(reason) {}

  const NodeId node;
  const PolledRegion::Why why;
  /// The folder itself.
  PolledItem self;
  /// Another was found in its place at the last look, or none.
  bool wasDisplaced = false;
  /// Never changed while PolledChanges speaks of it.
  std::shared_ptr<FolderTable> table = std::make_shared<FolderTable>();
  /// What the kernel told since the table was made, by name; goes before the table.
  std::map<std::string, ToldItem, std::less<>> told;
  /// Of the last look; made when somebody asks.
  std::shared_ptr<FormerPlace> place;
  /// The clock of stamps when the last look began and ended.
  std::int64_t lookBegan = 0;
  std::int64_t lookEnded = 0;
  /// The pass that was under way, or the last one, when it came into the region.
  std::uint32_t addedIn = 0;
  /// PolledChanges may have something to tell of it.
  bool isWaitedFor = false;
  bool isRemoved = false;
  bool hasFailed = false;
  /// Its mark stands as of this look, which is to be the last of all; that has failed if the folder is still here afterwards.
  bool isMarked = false;
  bool isLeaving = false;

  std::shared_ptr<FormerPlace> placeOfLook() { return place ? place : place = std::make_shared<FormerPlace>(); }
  [[nodiscard]] PolledItem find(std::string_view name) const {
    const auto known = told.find(name);
    return known != told.end() ? known->second.item : table->find(name);
  }
};

/// The difference between what is known of a folder and a new look at it.
struct PolledComparison {
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;
  /// Items that stayed and changed: their place in the new table, and how.
  std::vector<std::pair<std::uint32_t, FSEventStreamEventFlags>> changed;
  /// Names whose item went, came, or was replaced by another: their places in the former table and in the new one.
  std::vector<std::pair<std::uint32_t, std::uint32_t>> replaced;
  std::shared_ptr<const FolderTable> former;
  /// PolledFolder::place of the former look; nothing when nobody had asked.
  std::shared_ptr<FormerPlace> formerPlace;

  /// What one look is judged by.
  struct Judgement {
    StampRules rules;
    /// No other look follows, so what is not certain yet is told.
    bool isLast;
    /// What is known of the stamping clock (FolderListing::offset).
    std::int64_t offset;
    /// When the former look began, and whether this one came so soon after it that what was not certain still is not.
    std::int64_t formerBegan = 0;
    bool isEarly = false;
  };
  /// False and EOVERFLOW where the folder is beyond all bounds.
  bool compare(PolledFolder& folder, FolderListing& listing, Judgement judgement);
  /// Makes the new look what is known.
  void take(PolledFolder& folder, FolderListing& listing);
  [[nodiscard]] bool hasDifferences() const { return !changed.empty() || !replaced.empty(); }

 private:
  void compareItem(FolderTable& table, const PolledItem& before, std::size_t at, const Judgement& judgement);
};

}  // namespace platform::fsevents
