#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/fsevents/engine/EngineConfiguration.h"
#include "platform/fsevents/engine/EngineTrees.h"
#include "platform/fsevents/engine/RootMonitor.h"

namespace platform::fsevents {

/// The watched paths of one engine: begins to watch each when it is there, notices when it comes to mean something else, and tells that.
/// A path may be another engine's: then it has no tree here. Threads: owned and used by one thread.
class WatchedRoots {
 public:
  using Clock = std::chrono::steady_clock;
  /// What is told of a path besides: that its meaning changed by a mount. 0 where none did.
  using MountFlags = std::vector<FSEventStreamEventFlags>;

  /// `options[i]` is of the path numbered i here; `isHere[i]` whether it is this engine's.
  WatchedRoots(const EngineConfiguration& configuration, std::vector<TreeOptions> options, std::vector<bool> isHere, EngineTrees& trees,
               StreamStatus& status, HangWatch& watch, HangWatch::Watched& watched);
  ~WatchedRoots() { status_.setPolled(this, {}); }
  WatchedRoots(const WatchedRoots&) = delete;
  WatchedRoots& operator=(const WatchedRoots&) = delete;

  /// Begins with all. `told[i]` is told of path i when it stands, and `report` of what is found (0: nothing). An error text when the kernel
  /// offers nothing to watch with at all and will not later either.
  std::optional<std::string> attach(const MountFlags& told, std::optional<std::uint64_t> since);
  /// Reads what the monitor was told. True when `check` must look.
  [[nodiscard]] bool read() { return monitor_->read(); }
  /// Looks where each path leads now, and watches and tells what has changed. `mounts` as above; a path whose mounts have changed is
  /// watched anew in any case.
  void check(const MountFlags& mounts);
  /// Whether a path's folder has become empty, so that `check` must look.
  [[nodiscard]] bool needsCheck();
  /// Gives a path up to another engine, or takes it; the next `check` acts on that.
  void setHere(std::size_t path, bool isHere);
  /// What holds for the file system that the path lies on; a change of that comes with a change of its mounts.
  void setPolicy(std::size_t path, const FileSystemPolicy& policy) { roots_[path].options.policy = policy; }
  /// The places below a path that its tree must not look into (WatchedTree::avoid).
  void avoid(std::size_t path, std::set<std::string, std::less<>> mountPoints);
  [[nodiscard]] bool isHere(std::size_t path) const { return roots_[path].isHere; }
  /// The tree of a path that is watched here at the moment; null otherwise.
  [[nodiscard]] WatchedTree* standing(std::size_t path) const;
  [[nodiscard]] const TreeOptions& options(std::size_t path) const { return roots_[path].options; }

  [[nodiscard]] std::optional<Clock::time_point> checkAt() const { return checkAt_; }
  /// Whether nothing is about to be looked at again soon, so that a flush need not wait.
  [[nodiscard]] bool isSettled() const;
  [[nodiscard]] int descriptor() const { return monitor_->descriptor(); }

 private:
  struct Root {
    TreeOptions options;
    bool isHere = true;
    WatchedTree* tree = nullptr;
    RootIdentity identity{};
    bool isRefused = false;
    std::set<std::string, std::less<>> avoided = {};
    /// Another engine has had it until now.
    bool isTakenOver = false;
  };
  void look();
  void checkRoot(Root& root, const RootIdentity& now, bool touched, bool moved, FSEventStreamEventFlags mount);
  void attachRoot(Root& root, FSEventStreamEventFlags report, FSEventStreamEventFlags told, bool isNew);
  void refused(Root& root, int error);
  void letGo(Root& root);
  void renew(Root& root);
  void makeTree(Root& root);
  void planCheck();

  const EngineConfiguration& configuration_;
  EngineTrees& trees_;
  StreamStatus& status_;
  HangWatch& watch_;
  HangWatch::Watched& watched_;
  std::vector<Root> roots_;
  std::unique_ptr<RootMonitor> monitor_;
  std::optional<Clock::time_point> checkAt_;
  std::chrono::milliseconds settleBackoff_{0};
};

}  // namespace platform::fsevents
