#include "platform/fsevents/polling/PolledFolder.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace platform::fsevents {
namespace {

/// The kernel has said more than the table knows.
bool bringUpToDate(PolledFolder& folder) {
  if (folder.told.empty()) return true;
  for (const auto& [name, told] : folder.told) {
    if (!folder.table->append(name, told.item)) return false;
  }
  folder.table->arrange();
  folder.told.clear();
  return true;
}

/// Whether an item may have changed after the former look and still show the same stamp.
bool isInDoubt(const PolledItem& item, const PolledComparison::Judgement& judgement) {
  if (item.looks != PolledItem::kFirstLook || !judgement.rules.foreign) return item.looks != 0;
  const std::int64_t behind = judgement.offset == FolderListing::kNoOffset ? 0 : std::min<std::int64_t>(judgement.offset, 0);
  return isRecent(item, judgement.formerBegan + behind, judgement.rules);
}

/// Of an item that the look showed as changed or new.
std::uint8_t looksAfterChange(const PolledItem& item, const StampRules& rules) {
  // Of a clock that is not ours nobody knows whether it has gone on since.
  const bool isInDoubt = item.looks != 0 || (rules.foreign && !item.isNamedOnly && item.kind != PolledItem::Kind::Folder);
  return isInDoubt ? PolledItem::kLastLook : 0;
}

}  // namespace

bool PolledComparison::compare(PolledFolder& folder, FolderListing& listing, Judgement judgement) {
  if (!bringUpToDate(folder) || !listing.finish(*folder.table)) {
    errno = EOVERFLOW;
    return false;
  }
  judgement.formerBegan = folder.lookBegan;
  judgement.isEarly = listing.began() - folder.lookEnded <= timeStepOf(judgement.rules);
  FolderTable& table = listing.table();
  const FolderTable& known = *folder.table;
  FolderTable::walk(known, table, [&](std::size_t b, std::size_t a) {
    if (a != FolderTable::kNone && b != FolderTable::kNone && isSameItem(known.item(b), table.item(a), judgement.rules)) {
      compareItem(table, known.item(b), a, judgement);
      return;
    }
    if (a != FolderTable::kNone) {
      PolledItem after = table.item(a);
      after.looks = looksAfterChange(after, judgement.rules);
      table.setItem(a, after);
    }
    replaced.emplace_back(b == FolderTable::kNone ? kNone : static_cast<std::uint32_t>(b),
                          a == FolderTable::kNone ? kNone : static_cast<std::uint32_t>(a));
  });
  return true;
}

void PolledComparison::take(PolledFolder& folder, FolderListing& listing) {
  former = std::exchange(folder.table, std::make_shared<FolderTable>(std::move(listing.table())));
  formerPlace = std::exchange(folder.place, nullptr);
  folder.lookBegan = listing.began();
  folder.lookEnded = listing.ended();
}

void PolledComparison::compareItem(FolderTable& table, const PolledItem& before, std::size_t at, const Judgement& judgement) {
  PolledItem after = table.item(at);
  if (after.isNamedOnly) {
    table.setItem(at, before);  // told when it can be looked at again
    return;
  }
  FSEventStreamEventFlags flags = changeOf(before, after);
  const bool isFolder = after.kind == PolledItem::Kind::Folder;
  const bool hasMoved = before.isNamedOnly || before.changed != after.changed || before.content != after.content;
  if (hasMoved) {
    after.looks = looksAfterChange(after, judgement.rules);
  } else if (isInDoubt(before, judgement)) {
    const std::uint8_t next = before.looks == PolledItem::kTold ? PolledItem::kLastLook : 0;
    after.looks = judgement.isLast ? 0 : judgement.isEarly ? before.looks : next;
    if (after.looks == 0) flags = isFolder ? kFSEventStreamEventFlagItemInodeMetaMod : kFSEventStreamEventFlagItemModified;
  } else {
    after.looks = 0;
  }
  table.setItem(at, after);
  if (flags != 0) changed.emplace_back(at, flags | flagOf(after.kind));
}

}  // namespace platform::fsevents
