#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/fsevents/engine/EngineTrees.h"
#include "platform/fsevents/engine/WatchedRoots.h"
#include "platform/fsevents/mounts/Mounts.h"
#include "platform/fsevents/mounts/PathMounts.h"

namespace platform::fsevents {

class EnginePool;
struct EnginePlace;
class StreamEngine;

/// What is mounted where, as far as it concerns the watched paths of a stream: whether looking at a path may hang, so that an engine of its
/// own must do that; and what is mounted below the watched paths, each with a tree of its own, or an engine. Follows mounts and unmounts as
/// they come and tells them. It looks at no file system that may hang.
///
/// Threads: owned and used by one thread, that of the stream's first engine.
class EngineMounts {
 public:
  EngineMounts(const EngineConfiguration& configuration, std::vector<TreeOptions> paths, EngineTrees& trees, EngineWindow& window,
               StreamStatus& status, std::weak_ptr<EnginePool> pool);
  ~EngineMounts();
  EngineMounts(const EngineMounts&) = delete;
  EngineMounts& operator=(const EngineMounts&) = delete;

  /// To be waited on for POLLPRI.
  [[nodiscard]] int descriptor() const { return mounts_.descriptor(); }
  /// Whoever waited was told of a change.
  void changed(bool isTold) { changed_ |= isTold; }
  /// Reads the table if it may have changed. True when something of it concerns a watched path.
  bool read();
  /// The same for certain: folders above mount points may have been renamed, which nobody tells.
  bool readAnew();
  /// While the table cannot be read or an engine is missing, which are told as losses: when to try again.
  [[nodiscard]] std::optional<EngineTrees::Clock::time_point> readAt() const { return readAt_; }

  [[nodiscard]] std::vector<TreeOptions> options() const;
  [[nodiscard]] std::vector<bool> isLocal() const;

  /// At the start: an engine for each path that may hang, and what is mounted below the others.
  void begin(WatchedRoots& roots, std::optional<std::uint64_t> since);
  /// Whether a path leads through other mounts than at the last `assign`.
  [[nodiscard]] bool pathsLeadElsewhere() const;
  /// Looks where each path leads now and gives it to whom it belongs. What is to be told of the paths' mounts; `roots.check` comes next.
  [[nodiscard]] WatchedRoots::MountFlags assign(WatchedRoots& roots);
  /// After that: follows what is mounted below the paths. Where folders were renamed, a mount that is elsewhere went with them; otherwise
  /// it was moved by itself, which is told as its end and its beginning.
  void follow(WatchedRoots& roots, bool foldersWereRenamed);
  /// Trees have met something mounted at these places. What has gone again before the table was read is known to nobody else: the folder
  /// underneath is taken up.
  void uncover(const WatchedRoots& roots, const std::vector<EngineTrees::Covered>& met);

 private:
  using Points = std::set<std::string, std::less<>>;
  struct Path {
    TreeOptions options;
    PathMounts way;
    /// Where it may hang.
    std::shared_ptr<StreamEngine> engine;
    /// What its tree was told not to look into.
    Points avoided = {};
  };
  /// Something mounted below a watched path.
  struct Below {
    std::size_t path = 0;
    Mount mount;
    std::string relative;
    /// Neither for what is not entered.
    WatchedTree* tree = nullptr;
    std::shared_ptr<StreamEngine> engine;
    bool wasMovedHere = false;
    Points avoided = {};
  };
  enum class When { AtTheStart, Later };

  void tellWhetherBlind();
  [[nodiscard]] bool concerns(const MountTable& former) const;
  [[nodiscard]] FSEventStreamEventFlags flagsOfChange(const PathMounts& before, const PathMounts& now) const;
  void beginEngine(Path& path, FSEventStreamEventFlags told, bool isFromTheStart);
  void endEngine(std::shared_ptr<StreamEngine>& engine);
  void tellRescan(const std::string& path);
  /// The engine of this place; nothing where there is no thread for it, which is a loss while it lasts and is tried again.
  std::shared_ptr<StreamEngine> engineFor(EnginePlace place);
  /// Tells each tree which places below it are mount points.
  void avoidMountPoints(WatchedRoots& roots);
  [[nodiscard]] Points pointsBelow(const std::string& real) const;
  void reconcile(WatchedRoots& roots, When when, bool foldersWereRenamed, std::optional<std::uint64_t> since);
  /// Called before any folder is marked on them, so that whatever takes their place later is seen to be another. Not where that may hang.
  void attend();
  /// What is seen below a path, its place below that included; nothing that is excluded.
  [[nodiscard]] std::vector<Below> seenBelow(std::size_t path) const;
  [[nodiscard]] bool mayHang(const Path& path, const Mount& mount) const;
  void attach(Below& below, When when, std::optional<std::uint64_t> since);
  void relocate(Below& below, const Below& now);
  void letGo(Below& below);
  [[nodiscard]] TreeOptions optionsOf(const Below& below) const;
  [[nodiscard]] std::string reportedPathOf(const Below& below) const;
  void tell(const Below& below, FSEventStreamEventFlags flags);
  void tellAround(WatchedRoots& roots, const Below& below, bool isCovered);

  const EngineConfiguration& configuration_;
  EngineTrees& trees_;
  EngineWindow& window_;
  StreamStatus& status_;
  const std::weak_ptr<EnginePool> pool_;
  Mounts mounts_;
  /// As it was at the last `assign`, so that it can be told what came and what went.
  MountTable former_;
  std::vector<Path> paths_;
  std::vector<Below> below_;
  std::optional<EngineTrees::Clock::time_point> readAt_;
  bool changed_ = false;
  /// The table cannot be read, which is told.
  bool isBlind_ = false;
  /// Something has no engine for want of a thread.
  bool isWanting_ = false;
  bool saidNotToldApart_ = false;
  /// Places that were taken up although the table shows no change: once each.
  std::set<std::pair<const WatchedTree*, std::string>> uncovered_;
  /// Under which the window keeps what is told of mounts.
  const std::uint32_t number_;
};

}  // namespace platform::fsevents
