#include "platform/fsevents/engine/EngineMounts.h"

#include <poll.h>

#include <algorithm>
#include <utility>

#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/files/Paths.h"
#include "platform/fsevents/engine/EnginePool.h"
#include "platform/fsevents/engine/StreamEngine.h"
#include "platform/fsevents/mounts/FileSystems.h"

namespace platform::fsevents {
namespace {

constexpr std::chrono::seconds kReadAgain(10);

}  // namespace

EngineMounts::EngineMounts(const EngineConfiguration& configuration, std::vector<TreeOptions> paths, EngineTrees& trees,
                           EngineWindow& window, StreamStatus& status, std::weak_ptr<EnginePool> pool)
    : configuration_(configuration),
      trees_(trees),
      window_(window),
      status_(status),
      pool_(std::move(pool)),
      former_(mounts_.table()),
      number_(window.coalescer().addTree()) {
  for (TreeOptions& options : paths) {
    PathMounts way = followPath(mounts_.table(), options.openPath);
    options.policy = policyOf(way.last());
    paths_.push_back({std::move(options), std::move(way), nullptr});
  }
}

EngineMounts::~EngineMounts() = default;

std::vector<TreeOptions> EngineMounts::options() const {
  std::vector<TreeOptions> all;
  for (const Path& path : paths_) all.push_back(path.options);
  return all;
}

std::vector<bool> EngineMounts::isLocal() const {
  std::vector<bool> all;
  for (const Path& path : paths_) all.push_back(!path.way.mayHang);
  return all;
}

bool EngineMounts::read() {
  pollfd now{mounts_.descriptor(), POLLPRI, 0};
  const bool isDue = readAt_ && *readAt_ <= EngineTrees::Clock::now();
  const bool isTold = std::exchange(changed_, false) || (now.fd >= 0 && ::poll(&now, 1, 0) > 0 && (now.revents & POLLPRI) != 0);
  if (!isDue && !isTold) return false;
  return readAnew();
}

bool EngineMounts::readAnew() {
  const MountTable before = mounts_.table();
  const bool differs = mounts_.read();
  if (differs) uncovered_.clear();
  readAt_.reset();
  tellWhetherBlind();
  return (differs && concerns(before)) || std::exchange(isWanting_, false);
}

void EngineMounts::tellWhetherBlind() {
  const bool isBlind = mounts_.error() != 0;
  if (isBlind) readAt_ = EngineTrees::Clock::now() + kReadAgain;
  if (isBlind == std::exchange(isBlind_, isBlind)) return;
  for (const Path& path : paths_) {
    const std::string& shown = shownPath(path.options);
    if (!isBlind) {
      status_.losses().end(LossKind::Unexplained, shown);
    } else if (status_.losses().begin(LossKind::Unexplained, shown,
                                      "what is mounted cannot be read from /proc/self/mountinfo: " + errnoText(mounts_.error()), "")) {
      tellRescan(shown);
    }
  }
}

bool EngineMounts::concerns(const MountTable& former) const {
  const auto isNear = [this](const Mount& mount) {
    return std::any_of(paths_.begin(), paths_.end(), [&](const Path& path) {
      return path.way.places.contains(mount.point) || isAtOrBelowPath(mount.point, path.way.real);
    });
  };
  const auto isNew = [&](const MountTable& table, const Mount& mount) { return !table.contains(mount) && isNear(mount); };
  const std::vector<Mount>& now = mounts_.table().all();
  return std::any_of(now.begin(), now.end(), [&](const Mount& mount) { return isNew(former, mount); }) ||
         std::any_of(former.all().begin(), former.all().end(), [&](const Mount& mount) { return isNew(mounts_.table(), mount); });
}

FSEventStreamEventFlags EngineMounts::flagsOfChange(const PathMounts& before, const PathMounts& now) const {
  const auto isIn = [](const PathMounts& way, const Mount& mount) {
    return std::any_of(way.mounts.begin(), way.mounts.end(), [&](const Mount& each) { return isSameMount(each, mount); });
  };
  FSEventStreamEventFlags flags = 0;
  for (const Mount& mount : now.mounts) {
    if (!isIn(before, mount) && !contains(former_, mount)) flags |= kFSEventStreamEventFlagMount;
  }
  for (const Mount& mount : before.mounts) {
    if (!isIn(now, mount) && !contains(mounts_.table(), mount)) flags |= kFSEventStreamEventFlagUnmount;
  }
  return flags;
}

void EngineMounts::begin(WatchedRoots& roots, std::optional<std::uint64_t> since) {
  tellWhetherBlind();
  avoidMountPoints(roots);
  for (Path& path : paths_) {
    if (path.way.mayHang) beginEngine(path, 0, true);
  }
  reconcile(roots, When::AtTheStart, false, since);
}

EngineMounts::Points EngineMounts::pointsBelow(const std::string& real) const {
  Points points;
  for (const Mount& mount : mounts_.table().below(real)) points.insert(real == "/" ? mount.point : mount.point.substr(real.size()));
  return points;
}

void EngineMounts::avoidMountPoints(WatchedRoots& roots) {
  for (std::size_t i = 0; i < paths_.size(); ++i) {
    Path& path = paths_[i];
    Points points = pointsBelow(path.way.real);
    if (points == path.avoided) continue;
    path.avoided = points;
    if (path.engine) path.engine->avoid(points);
    roots.avoid(i, std::move(points));
  }
  for (Below& below : below_) {
    Points points = pointsBelow(below.mount.point);
    if (points == below.avoided) continue;
    below.avoided = points;
    if (below.engine) below.engine->avoid(points);
    if (below.tree != nullptr) below.tree->avoid(std::move(points));
  }
}

void EngineMounts::beginEngine(Path& path, FSEventStreamEventFlags told, bool isFromTheStart) {
  path.engine = engineFor({path.options, false, told, isFromTheStart, path.avoided});
}

std::shared_ptr<StreamEngine> EngineMounts::engineFor(EnginePlace place) {
  const auto pool = pool_.lock();
  if (!pool) return nullptr;
  const std::string path = shownPath(place.options);
  std::string error;
  std::shared_ptr<StreamEngine> engine = pool->begin(std::move(place), error);
  if (engine) {
    if (status_.losses().end(LossKind::QueueLimit, path)) tellRescan(path);
    return engine;
  }
  if (error.empty()) return nullptr;  // the stream is being stopped
  isWanting_ = true;
  readAt_ = EngineTrees::Clock::now() + kReadAgain;
  if (status_.losses().begin(LossKind::QueueLimit, path, error, "end other programs, or raise the limits: ulimit -u N, ulimit -n N")) {
    tellRescan(path);
  }
  return nullptr;
}

void EngineMounts::tellRescan(const std::string& path) {
  const FSEventStreamEventFlags kind = configuration_.has(kFSEventStreamCreateFlagFileEvents) ? kFSEventStreamEventFlagItemIsDir : 0;
  window_.coalescer().add(number_, path, kFSEventStreamEventFlagMustScanSubDirs | kind, false);
}

void EngineMounts::endEngine(std::shared_ptr<StreamEngine>& engine) {
  if (const auto pool = pool_.lock(); pool && engine) pool->end(engine);
  engine.reset();
}

bool EngineMounts::pathsLeadElsewhere() const {
  return std::any_of(paths_.begin(), paths_.end(), [this](const Path& path) {
    const PathMounts now = followPath(mounts_.table(), path.options.openPath);
    return (now.mayHang && !path.engine) || now.mounts.size() != path.way.mounts.size() ||
           !std::equal(now.mounts.begin(), now.mounts.end(), path.way.mounts.begin(), isSameMount);
  });
}

WatchedRoots::MountFlags EngineMounts::assign(WatchedRoots& roots) {
  WatchedRoots::MountFlags told;
  const FSEventStreamEventFlags changed = configuration_.has(kFSEventStreamCreateFlagWatchRoot) ? kFSEventStreamEventFlagRootChanged : 0;
  for (std::size_t i = 0; i < paths_.size(); ++i) {
    Path& path = paths_[i];
    const PathMounts before = std::exchange(path.way, followPath(mounts_.table(), path.options.openPath));
    const FSEventStreamEventFlags flags = flagsOfChange(before, path.way);
    told.push_back(flags);
    path.options.policy = policyOf(path.way.last());
    // A file system that hung is no longer there to answer.
    if ((flags & kFSEventStreamEventFlagUnmount) != 0) status_.losses().forget(shownPath(path.options));
    if (path.engine && (!path.way.mayHang || flags != 0)) endEngine(path.engine);
    if (path.way.mayHang && !path.engine) {
      beginEngine(path, (flags != 0 ? flags : kFSEventStreamEventFlagItemCreated) | changed, false);
    }
    if (roots.isHere(i) == path.way.mayHang) roots.setHere(i, !path.way.mayHang);
    roots.setPolicy(i, path.options.policy);
  }
  avoidMountPoints(roots);
  return told;
}

void EngineMounts::follow(WatchedRoots& roots, bool foldersWereRenamed) {
  reconcile(roots, When::Later, foldersWereRenamed, std::nullopt);
  former_ = mounts_.table();
}

void EngineMounts::uncover(const WatchedRoots& roots, const std::vector<EngineTrees::Covered>& met) {
  for (const EngineTrees::Covered& place : met) {
    if (!trees_.holds(place.tree)) continue;  // its own mount went meanwhile
    std::string real = place.tree->options().openPath;
    for (std::size_t i = 0; i < paths_.size(); ++i) {
      if (roots.standing(i) == place.tree) real = paths_[i].way.real;
    }
    const std::string point = (real == "/" ? "" : real) + place.relative;
    const Mount* const there = mounts_.table().covering(point);
    if (there != nullptr && there->point == point) continue;
    if (uncovered_.emplace(place.tree, place.relative).second) trees_.coverChanged(*place.tree, place.relative, false);
  }
}

}  // namespace platform::fsevents
