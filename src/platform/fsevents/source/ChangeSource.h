#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/fsevents/source/KernelKey.h"

namespace platform::fsevents {

/// One change as the kernel told it, in the terms that both kernel interfaces share. The views are valid during the call that hands it
/// over.
struct RawChange {
  enum Bits : std::uint32_t {
    kCreated = 1U << 0U,
    kRemoved = 1U << 1U,
    kModified = 1U << 2U,
    kClosedWrite = 1U << 3U,
    kAttributes = 1U << 4U,
    /// `folder`/`name` is where the item was, `newFolder`/`newName` where it is; a side outside the marked folders has an empty key.
    kRenamed = 1U << 5U,
    /// The kernel has let go of the mark of `folder`.
    kForgotten = 1U << 6U,
    /// Changes were lost.
    kOverflow = 1U << 7U,
  };

  std::uint32_t bits = 0;
  bool isDirectory = false;
  /// Made by this process.
  bool own = false;
  std::string_view folder;
  /// Empty when the change is about the folder itself.
  std::string_view name;
  std::string_view newFolder;
  std::string_view newName;
  /// The item's own key where the kernel tells it: always with fanotify; with inotify of a folder that was moved, if it is watched.
  std::string_view target;
};

/// A kernel queue of changes in marked folders, with a backlog of what was read from it and not yet handed over.
/// Threads: owned and used by one thread.
class ChangeSource {
 public:
  using Clock = std::chrono::steady_clock;
  using Visitor = std::function<void(const RawChange&)>;

  virtual ~ChangeSource() = default;
  ChangeSource(const ChangeSource&) = delete;
  ChangeSource& operator=(const ChangeSource&) = delete;

  /// "fanotify" or "inotify".
  [[nodiscard]] virtual const char* name() const = 0;
  [[nodiscard]] int descriptor() const { return queue_.fileDescriptor(); }

  /// Marks the open folder (or, with `isFolder` false, file) and tells its key; marking twice is harmless. Returns 0 or errno; the key is
  /// told all the same where the source knows it without a mark.
  [[nodiscard]] virtual int mark(int descriptor, bool isFolder, KernelKey& key) = 0;
  /// The key that the open folder is marked by. It leaves no mark behind: of a folder that is not marked it is the key that a mark would
  /// have, or empty. Returns 0 or errno.
  [[nodiscard]] virtual int keyOf(int folder, KernelKey& key) = 0;
  /// Holds no folder open any longer.
  virtual void leaveFolders() {}
  /// The key of a folder that cannot be opened, where the source can tell it without a mark; empty otherwise.
  virtual void identify(int parent, const char* name, KernelKey& key) const = 0;
  /// The owner has forgotten the folder of this key, on the file system that `onFileSystem` is open on (-1 when it is not at hand). Its
  /// changes may still arrive for a while.
  virtual void forget(std::string_view key, int onFileSystem) = 0;
  /// Marks that the kernel still holds for folders which the owner has forgotten, and which only a new queue gets rid of.
  [[nodiscard]] virtual std::size_t orphans() const = 0;
  /// An empty queue of the same kind whose keys mean the same; nothing where the source needs none or the kernel refuses.
  [[nodiscard]] virtual std::unique_ptr<ChangeSource> renewed() const { return nullptr; }
  /// Whether the kernel takes a rename for part of an equal one that is unread, so that it is told once and too early.
  [[nodiscard]] virtual bool mergesRenames() const { return false; }
  /// Visits the renames and removals of folders that were read and not yet handed over, in order: `folder`, `name` and `target` of each.
  /// For visitors of `dispatch`.
  virtual void forEachDepartureAhead(const Visitor& visit) const { static_cast<void>(visit); }
  /// Whether the kernel names the changed item's own key.
  [[nodiscard]] virtual bool knowsTargets() const = 0;

  /// Reads the kernel queue until it is empty into the backlog. True when anything was read.
  bool drain();
  /// Hands over the backlog in order; the visitor may call `drain`. A change whose second half has not arrived holds up the rest: then the
  /// time is returned by which to call again.
  [[nodiscard]] std::optional<Clock::time_point> dispatch(const Visitor& visit);
  /// Positions in the queue, as bytes since its beginning: up to where it was read, and where the change begins that is being handed over.
  [[nodiscard]] std::uint64_t readUpTo() const { return read_; }
  [[nodiscard]] std::uint64_t position() const { return handedOver_; }
  [[nodiscard]] bool hasBacklog() const { return begin_ < current_.size() || !backlog_.empty(); }
  /// Throws the backlog away, as when it grows beyond its bound. While a visitor is at work what it looks at stays until it returns.
  void clearBacklog();
  [[nodiscard]] bool isBacklogFull() const { return backlog_.size() + current_.size() - begin_ > kMaximumBacklog; }

  /// Sixteen thousand events of the longest names fit; beyond that a rescan is cheaper than remembering.
  static constexpr std::size_t kMaximumBacklog = std::size_t{64} << 20U;

 protected:
  explicit ChangeSource(FileHandle queue) : queue_(std::move(queue)) {}
  /// Hands over what `bytes` begins with and returns how many bytes that was; 0 and a time when it must wait.
  virtual std::size_t dispatchOne(char* bytes, std::size_t count, const Visitor& visit, std::optional<Clock::time_point>& wait) = 0;
  /// When the bytes that `dispatchOne` is looking at were read.
  [[nodiscard]] Clock::time_point readAt();
  /// What was read and not handed over, in two parts, either of which may be empty; it begins with what is being handed over.
  [[nodiscard]] std::array<std::string_view, 2> unread() const {
    return {std::string_view(current_.data() + begin_, current_.size() - begin_), std::string_view(backlog_.data(), backlog_.size())};
  }
  /// Whether more was read than `dispatchOne` is shown; it is shown more when it waits.
  [[nodiscard]] bool hasMore() const { return !backlog_.empty(); }

 private:
  FileHandle queue_;
  /// What is being handed over, from `begin_` on, and what was read after it: apart, so that a visitor which drains moves nothing under its
  /// own views.
  std::vector<char> current_;
  std::size_t begin_ = 0;
  bool isDispatching_ = false;
  bool clearsAfterVisit_ = false;
  std::vector<char> backlog_;

  /// When what was read, in bytes since the beginning.
  struct Reading {
    std::uint64_t end;
    Clock::time_point time;
  };
  void forgetReadings();
  std::deque<Reading> readings_;
  std::uint64_t read_ = 0;
  std::uint64_t handedOver_ = 0;
};

/// Each returns nothing and sets `error` to errno where the kernel refuses.
std::unique_ptr<ChangeSource> makeFanotifySource(int& error);
std::unique_ptr<ChangeSource> makeInotifySource(int& error);

}  // namespace platform::fsevents
