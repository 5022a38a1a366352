#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/fsevents/polling/PolledRegion.h"
#include "tests/fsevents/support/StreamTest.h"

namespace kestrine::test {

/// A polled region over a real folder with a tree of its own around it: it follows the subfolders that the region finds and loses, and
/// keeps what was told. Whatever is told of a path is looked at on the disk at that moment, so the copy that comes of it is the disk's as
/// long as nothing is missed. Threads: one.
class PolledWorld final : public platform::fsevents::PolledRegion::Host {
 public:
  using NodeId = platform::fsevents::NodeId;
  using Region = platform::fsevents::PolledRegion;
  using Flags = FSEventStreamEventFlags;

  struct Options {
    Region::Why why = Region::Why::OthersWrite;
    std::chrono::nanoseconds timeStep = std::chrono::nanoseconds(1);
    bool foreign = false;
    Region::Clock::duration slice = std::chrono::seconds(10);
  };
  /// Everything at and below `root` is in the region.
  PolledWorld(std::string root, Options options);
  explicit PolledWorld(std::string root) : PolledWorld(std::move(root), Options()) {}

  /// One whole pass; `between` runs between its slices.
  void pass(const std::function<void()>& between = {});
  /// Waits until a change that comes now has another stamp than all before, and is known to have.
  static void letStampsGoOn();
  /// Passes until nothing that was found so far is in question any more, and forgets what they told.
  void settle();
  /// What was told since the last call, flags of one path together.
  std::map<std::string, Flags> take();
  /// The flags of one path since the last `take`.
  [[nodiscard]] Flags flagsOf(const std::string& path) const;
  [[nodiscard]] const std::vector<std::pair<std::string, Flags>>& log() const { return log_; }

  Region& region() { return region_; }
  /// The node of a folder; fails the test when there is none.
  NodeId nodeOf(const std::string& path) const;
  [[nodiscard]] std::string pathOf(NodeId node) const;
  /// Looks at what was told since the last `take` only when asked to: what comes and goes between two looks is told to nobody, so whoever
  /// looks meanwhile may see what he is never told of again.
  bool isDeferred = false;
  void bringUpToDateNow();
  /// In what the copy differs from the disk; empty when in nothing.
  [[nodiscard]] std::vector<std::string> differences() const;
  void removeFromRegion(NodeId node) {
    region_.remove(node);
    removed_.insert(node);
  }

  /// What the next calls do: which errno opening gives (0: none), whether marks are to be had.
  std::map<std::string, int> refusals = {};
  std::function<bool(const std::string&)> marks = [](const std::string&) { return false; };
  std::function<void(const std::string& path)> onFound = {};
  std::vector<std::string> marked, leftFolders;
  std::vector<std::pair<std::string, int>> failures;
  std::vector<std::string> recoveries;

 private:
  struct Node {
    NodeId parent;
    std::string name;
    std::uint64_t inode;
  };
  /// What an item is known by, that must be told when it changes.
  struct Seen {
    std::uint64_t inode;
    std::uint64_t stamp;  // of a file: its change time; of a folder: its mode
    std::uint64_t size;
    friend bool operator==(const Seen&, const Seen&) = default;
  };
  static bool see(const std::string& path, Seen& seen);
  static void collect(const std::string& folder, std::map<std::string, Seen>& seen);

  platform::FileHandle openFolder(NodeId folder) override;
  Region::Mark tryMark(NodeId folder, int descriptor) override;
  void left(NodeId folder) override {
    leftFolders.push_back(pathOf(folder));
    removed_.insert(folder);
  }
  void changed(NodeId folder, std::string_view name, Flags flags) override;
  void changedAt(std::string_view formerPlace, std::string_view name, Flags flags) override;
  void folderGone(NodeId folder, std::string_view name, Flags flags) override;
  void folderFound(NodeId folder, std::string_view name, Flags flags) override;
  void replaced(NodeId folder) override;
  [[nodiscard]] bool knowsFolder(NodeId folder, std::string_view name) override;
  void failed(NodeId folder, int error) override { failures.emplace_back(pathOf(folder), error); }
  void recovered(NodeId folder) override { recoveries.push_back(pathOf(folder)); }

  void told(const std::string& path, Flags flags);
  void bringUpToDate(const std::string& path, Flags flags);
  void takeUp(NodeId parent, const std::string& name, Flags report);
  void place(NodeId node, NodeId parent, const std::string& name);
  void drop(NodeId node);
  /// Folders that were not there when they should have been taken up, and such that went without being found again.
  void tidy();
  void addBelow(NodeId node, const std::string& path, Flags report);
  [[nodiscard]] NodeId childOf(NodeId parent, const std::string& name) const;
  [[nodiscard]] std::vector<NodeId> subtree(NodeId node) const;
  void forget(NodeId node);
  [[nodiscard]] bool isWithin(NodeId node, NodeId above) const;

  std::string root_;
  Options options_;
  std::map<NodeId, Node> nodes_;
  std::map<std::pair<NodeId, std::string>, NodeId> places_;
  std::set<NodeId> detached_;
  std::vector<std::pair<NodeId, std::string>> later_;
  /// Not in the region any more, and not to be.
  std::set<NodeId> removed_;
  NodeId next_ = 0;
  std::vector<std::pair<std::string, Flags>> log_;
  std::map<std::string, Seen> copy_;
  Region region_;
};

}  // namespace kestrine::test
