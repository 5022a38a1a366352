#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/fsevents/event/FSEventStreamTypes.h"
#include "platform/fsevents/folders/DirectoryTree.h"

namespace platform::fsevents {

class FolderListing;
class PolledChanges;
struct PolledComparison;
struct PolledFolder;
struct PolledItem;

/// The folders of one watched tree that are looked at again and again because the kernel cannot watch them, or cannot tell of all who write
/// to them. What a look finds different from the last one is told; nothing that stays is missed, however it is made.
///
/// A pass looks at every folder once. Between two passes lies a hundred times the processor time that the last one took, and at least a
/// second: no more than one percent of one processor. A slow file system is left alone for as long as a pass lasts (up to a minute).
///
/// What can be told is the difference of two looks: of what came and went between them nothing, of several changes of one item their sum.
/// A folder whose attributes changed before something was put into it, both between two looks, is told by mode and owner only.
///
/// Memory: 35 bytes an item and its name, and about 250 a folder; measured with names of 14 bytes: 61 an item in folders of a thousand, 77
/// in folders of ten. Threads: owned and used by one thread, its tree's.
class PolledRegion {
 public:
  using Clock = std::chrono::steady_clock;

  enum class Why {
    /// A limit of the kernel's was reached. The mark is tried again in each pass; the folder leaves the region when it stands.
    MarkRefused,
    /// The folder is marked, but others than this machine write to it. It stays until it is removed.
    OthersWrite,
  };

  enum class Mark {
    Stands,
    /// As all others will be.
    Refused,
    /// This folder's turn has not come: the one above it is to be marked first.
    NotYet,
  };

  /// Whose folders they are. Every function may add and remove folders, the one that it is called for included.
  class Host {
   public:
    virtual ~Host() = default;
    /// The folder opened for reading; closed and errno on failure. Where it is gone (see isGone) nothing is told: that is told of its name,
    /// in the folder above.
    virtual FileHandle openFolder(NodeId folder) = 0;
    /// Of a folder with Why::MarkRefused, before it is looked at; not after the first refusal of a pass. When the mark stands this look is
    /// the last, and `left` follows; unless the look fails: then all of it comes again in the next pass.
    virtual Mark tryMark(NodeId folder, int descriptor) = 0;
    virtual void left(NodeId folder) = 0;
    /// ItemCreated, ItemRemoved, ItemRenamed, ItemModified or ItemInodeMetaMod, several where a name had several changes, with the item's
    /// kind (of both kinds where one replaced the other). For subfolders too. With an empty name MustScanSubDirs of the folder itself: it
    /// moved, and where things were that went from it cannot be known.
    virtual void changed(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) = 0;
    /// The same of what went from a folder before the folder moved: told where it was (see `moved`).
    virtual void changedAt(std::string_view formerPlace, std::string_view name, FSEventStreamEventFlags flags) = 0;
    /// A subfolder is not there any more, and, after all of those, another is there. With ItemRenamed they come before anything of the pass
    /// is told: what has left its place is likely to be found in another. The tree may keep its node and what is below it, in the region
    /// too, and say `moved` when it puts it there (what is not found by the end of `work` has been removed: `tellAllRemoved`); or it
    /// forgets it, and tells all that it finds in the other place. With ItemRemoved and ItemCreated they come after `changed` has told of
    /// them.
    virtual void folderGone(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) = 0;
    virtual void folderFound(NodeId folder, std::string_view name, FSEventStreamEventFlags flags) = 0;
    /// Whether the tree knows the subfolder, or is not to. One that it does not know is told by `folderFound` as created at each look,
    /// whatever was told of it before: its owner may have been too late for it.
    [[nodiscard]] virtual bool knowsFolder(NodeId folder, std::string_view name) = 0;
    /// Another folder stands where this one was, or none, at two looks in succession, and nobody has said so. What is known of it may be of
    /// another place.
    virtual void replaced(NodeId folder) = 0;
    /// The folder could not be opened or listed, or one of its items could not be looked at. What is known of it is kept, and it is looked
    /// at again in the next pass; `recovered` when that goes well.
    virtual void failed(NodeId folder, int error) = 0;
    virtual void recovered(NodeId folder) = 0;
  };

  /// `timeStep` is how finely the file system stamps changes; `foreign` says that another machine or a program stamps them by a clock of
  /// its own and numbers the inodes (network file systems, FUSE).
  PolledRegion(std::chrono::nanoseconds timeStep, bool foreign);
  ~PolledRegion();
  PolledRegion(const PolledRegion&) = delete;
  PolledRegion& operator=(const PolledRegion&) = delete;

  /// Takes the open folder in. What is in it now is what later changes are told against, so whoever wants to tell of its content lists it
  /// after this. False and errno when it could not be listed; then it is not in the region. A folder that is in it already begins anew.
  bool add(NodeId folder, int descriptor, Why why);
  /// Whoever lists a folder after `add` and follows or tells of what it finds says so of each name: what has come since the baseline, and
  /// is gone again before the first look, is told as removed.
  void listed(NodeId folder, std::string_view name, FSEventStreamEventFlags kind);
  /// Forgets the folder; nothing of it is told any more. Nothing when it is not in the region.
  void remove(NodeId folder);
  /// The folder was removed with all that it held: tells each item known in it as removed, and knows it empty from then on.
  void tellAllRemoved(NodeId folder, Host& host);
  /// The folder, or one above it, is in another place now than at the last look (the first of several places counts): what is then found
  /// missing in it was there, and may never have been in the new one. To be said of each folder at and below the one that moved.
  void moved(NodeId folder, std::string_view formerPlace);
  /// The kernel has told of this change with these flags. What the disk shows of the item by now is not told again, as far as the flags
  /// cover it; the rest is told by the next pass. `descriptor` is the folder, opened. One statx(2).
  void told(NodeId folder, int descriptor, std::string_view name, FSEventStreamEventFlags flags);

  [[nodiscard]] bool contains(NodeId folder) const { return folders_.contains(folder); }
  [[nodiscard]] bool empty() const { return folders_.empty(); }
  [[nodiscard]] std::size_t folders() const { return folders_.size(); }
  [[nodiscard]] std::chrono::milliseconds interval() const { return interval_; }
  /// Everything that was stamped before has been looked at: when the last pass began that has seen every folder, in milliseconds since
  /// 1970.
  [[nodiscard]] std::uint64_t seenUpTo() const { return seenUpTo_; }
  /// When `work` has something to do; nothing while the region is empty.
  [[nodiscard]] std::optional<Clock::time_point> due() const;
  /// A pass is due now that sees everything up to now, as when somebody asks for what has happened so far; and further ones at once, as
  /// long as there are folders in the region that were not found in their places, but not for ever.
  /// Returns its number, for `isOver`.
  std::uint32_t hasten();
  [[nodiscard]] bool isOver(std::uint32_t pass) const { return folders_.empty() || seenIn_ >= pass; }
  /// Begins the pass that is due, or goes on with the one under way, for at most about `slice` (a large folder is sorted in one go).
  /// Empty the kernel's queues in between. Returns `due()`.
  std::optional<Clock::time_point> work(Host& host, Clock::duration slice);

 private:
  using FolderPointer = std::shared_ptr<PolledFolder>;
  enum class Phase { Resting, Looking, Moving, Telling };

  [[nodiscard]] FolderPointer find(NodeId folder) const;
  void beginPass();
  void endPass(Host& host);
  void dropPass();
  /// All three: false when the slice is over first.
  bool look(Host& host, Clock::time_point end);
  bool move(Host& host, Clock::time_point end);
  bool tell(Host& host, Clock::time_point end);
  /// Whether there was another folder to come to.
  bool openNext(Host& host);
  FolderPointer nextFolder();
  enum class Presence { Here, Elsewhere, Replaced };
  /// Whether the folder that was opened is the one that is known.
  [[nodiscard]] Presence presenceOf(PolledFolder& folder, int descriptor) const;
  void closeCurrent();
  void lookOn(Host& host, Clock::time_point end);
  void tellLook(Host& host, const FolderPointer& folder, const PolledComparison& comparison, int error);
  /// Has the subfolders taken up that were there at the last look too, and are unknown all the same.
  static void tellUnknown(Host& host, const FolderPointer& folder, const PolledComparison& comparison);
  /// Whether the folder that was looked at is still in its place.
  [[nodiscard]] bool hasStayed(Host& host, PolledFolder& folder) const;
  void lookFailed(Host& host, PolledFolder& folder, int error);
  [[nodiscard]] bool isStampedElsewhere(const PolledItem& item) const;
  [[nodiscard]] bool isUnderWay(const PolledFolder& folder) const { return listing_ && current_.get() == &folder; }

  const std::chrono::nanoseconds timeStep_;
  const bool foreign_;
  /// By number, so that a pass that has come to one goes on with the next whatever was added and removed in between.
  std::map<NodeId, FolderPointer> folders_;

  Phase phase_ = Phase::Resting;
  std::uint32_t pass_ = 0;
  /// The last folder that the pass has come to.
  std::optional<NodeId> reached_;
  bool hasReachedAll_ = false;
  /// The pass that was asked for, and the last one that has seen every folder.
  std::uint32_t wanted_ = 0;
  std::uint32_t seenIn_ = 0;
  std::uint64_t began_ = 0;
  std::uint64_t seenUpTo_;
  /// What this pass did not find in its place, so that it has not been looked at.
  std::vector<FolderPointer> missed_;
  bool triesMarks_ = true;
  /// The folder that is being listed, across slices when it is large.
  FolderPointer current_;
  FileHandle opened_;
  std::unique_ptr<FolderListing> listing_;
  std::unique_ptr<PolledChanges> changes_;
  /// Folders that were found in new places, to be looked at there before the pass tells anything; how often that came round.
  std::vector<FolderPointer> moved_;
  /// The inode of the last one that was moved because it was found itself.
  std::uint64_t directlyMoved_ = 0;
  bool isLookingAgain_ = false;
  int rounds_ = 0;
  std::vector<FolderPointer> leaving_;
  /// How far the clock that stamps is behind ours at most (FolderListing::offset).
  std::int64_t offset_;

  Clock::time_point due_{};
  const std::chrono::milliseconds shortest_;
  std::chrono::milliseconds interval_;
  /// Of the pass under way: processor time, and time.
  std::chrono::nanoseconds cost_{};
  Clock::duration elapsed_{};
};

}  // namespace platform::fsevents
