#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fsevents/polling/PolledFolder.h"
#include "platform/fsevents/polling/PolledRegion.h"

namespace platform::fsevents {

/// What came and went in a pass, held back until every folder was looked at: an inode that left one name and came under another was
/// renamed. Folders that were renamed are moved first, so that they can be looked at in their new places; then every name is told, then the
/// subfolders that are gone, then those that are there.
///
/// Memory: 24 bytes a change, and the former tables of the folders concerned. Threads: as its owner's.
class PolledChanges {
 public:
  using Clock = PolledRegion::Clock;

  /// What the comparison found, and the folder's table of before it.
  void add(const std::shared_ptr<PolledFolder>& folder, const PolledComparison& comparison);
  /// More are not held back; what belongs together across this bound is told as removed and created.
  [[nodiscard]] bool isFull() const { return changes_.size() >= kMaximum; }
  /// Finds out what was renamed. After the last `add`, before `moveFolders`.
  void arrange();
  /// Has the renamed folders moved; more may be added afterwards, and then it goes round again. False when the time has come first.
  bool moveFolders(PolledRegion::Host& host, Clock::time_point end);
  /// True when all was told and forgotten; false when the time has come first.
  bool tell(PolledRegion::Host& host, Clock::time_point end);
  /// Tells what waits of this folder as removed, and no more than that, since the folder itself is gone.
  void tellRemoved(PolledFolder& folder, PolledRegion::Host& host);
  void clear();
  /// The inode of the renamed folder for which `folderFound` is being called; 0 else.
  [[nodiscard]] std::uint64_t arriving() const { return arriving_; }

  static constexpr std::size_t kMaximum = std::size_t{1} << 16U;

 private:
  struct Look {
    std::shared_ptr<PolledFolder> folder;
    /// Where the folder was when what is gone was last seen, and when it was missed, if that is elsewhere now.
    std::shared_ptr<const FormerPlace> seen;
    std::shared_ptr<const FormerPlace> missed;
    std::shared_ptr<const FolderTable> before;
    std::shared_ptr<const FolderTable> after;
  };
  /// One name: its look, its places in the two tables, what to tell of them (0: nothing any more).
  struct Change {
    std::uint32_t look;
    std::uint32_t before;
    std::uint32_t after;
    FSEventStreamEventFlags gone;
    FSEventStreamEventFlags came;
    /// Of a renamed folder: its moving has begun, and ended.
    bool isGoneMoved;
    bool isFoundMoved;
  };
  enum class Step { MovedGone, MovedFound, Names, FoldersGone, FoldersFound, Over };

  [[nodiscard]] std::string_view nameOf(const Change& change) const;
  [[nodiscard]] PolledItem before(const Change& change) const { return looks_[change.look].before->item(change.before); }
  [[nodiscard]] PolledItem after(const Change& change) const { return looks_[change.look].after->item(change.after); }
  void pair(Change& source, Change& target) const;
  static void tellName(PolledRegion::Host& host, const Look& look, std::string_view name, FSEventStreamEventFlags gone,
                       FSEventStreamEventFlags came);
  void tellTree(PolledRegion::Host& host, const Look& look, std::string_view name, Change& change);
  void tellOne(PolledRegion::Host& host, Change& change);
  bool tellUntil(PolledRegion::Host& host, Step last, Clock::time_point end);

  std::vector<Look> looks_;
  std::vector<Change> changes_;
  Step step_ = Step::MovedGone;
  std::size_t next_ = 0;
  std::uint64_t arriving_ = 0;
};

}  // namespace platform::fsevents
