#include "platform/fsevents/EngineMounts.h"

#include <poll.h>

#include <algorithm>
#include <utility>

#include "platform/foundation/base/SystemError.h"
#include "platform/fsevents/EnginePool.h"
#include "platform/fsevents/FileSystems.h"
#include "platform/fsevents/StreamEngine.h"

namespace platform::fsevents {
namespace {

constexpr std::chrono::seconds kReadAgain(10);

/// The exclusions of a tree that hold for the part of it below `relative`.
std::vector<std::string> exclusionsBelow(const std::vector<std::string>& exclusions, const std::string& relative) {
  std::vector<std::string> below;
  for (const std::string& excluded : exclusions) {
    if (excluded.starts_with(relative + "/")) below.push_back(excluded.substr(relative.size()));
  }
  return below;
}

bool isExcludedIn(const std::vector<std::string>& exclusions, const std::string& relative) {
  return std::any_of(exclusions.begin(), exclusions.end(),
                     [&](const std::string& excluded) { return isAtOrBelowPath(relative, excluded); });
}

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
  const auto isNew = [&](const MountTable& table, const Mount& mount) {
    return std::find(table.all().begin(), table.all().end(), mount) == table.all().end() && isNear(mount);
  };
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
  const auto pool = pool_.lock();
  if (!pool) return;
  path.engine = pool->begin({path.options, false, told, isFromTheStart, path.avoided});
  lookAfter(path.engine, shownPath(path.options));
}

void EngineMounts::lookAfter(const std::shared_ptr<StreamEngine>& engine, const std::string& path) {
  if (engine) {
    if (status_.losses().end(LossKind::QueueLimit, path)) tellRescan(path);
    return;
  }
  isWanting_ = true;
  readAt_ = EngineTrees::Clock::now() + kReadAgain;
  if (status_.losses().begin(LossKind::QueueLimit, path, "no thread is left to watch it with", "raise the limit of threads: ulimit -u N")) {
    tellRescan(path);
  }
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

bool EngineMounts::mayHang(const Path& path, const Mount& mount) const {
  if (path.way.mayHang || policyOf(mount).isForeign()) return true;
  // The way to it leads through what is mounted above it.
  for (std::string above = mount.point; isAtOrBelowPath(above, path.way.real) && above.size() > 1;) {
    above.erase(std::max<std::size_t>(above.rfind('/'), 1));
    const Mount* const covering = mounts_.table().covering(above);
    if (covering != nullptr && policyOf(*covering).isForeign()) return true;
  }
  return false;
}

std::vector<EngineMounts::Below> EngineMounts::seenBelow(std::size_t number) const {
  std::vector<Below> seen;
  const Path& path = paths_[number];
  std::string pseudo;
  for (Mount& mount : mounts_.table().below(path.way.real)) {
    std::string relative = path.way.real == "/" ? mount.point : mount.point.substr(path.way.real.size());
    if (isExcludedIn(path.options.exclusions, relative)) continue;
    // Where nothing is entered nothing below is either.
    if (!pseudo.empty() && mount.point.starts_with(pseudo + "/")) continue;
    if (policyOf(mount).kind == FileSystemKind::Pseudo) pseudo = mount.point;
    seen.push_back({number, std::move(mount), std::move(relative), nullptr, nullptr});
  }
  return seen;
}

void EngineMounts::reconcile(WatchedRoots& roots, When when, bool foldersWereRenamed, std::optional<std::uint64_t> since) {
  avoidMountPoints(roots);
  std::vector<Below> former = std::exchange(below_, {});
  std::vector<Below> fresh;
  std::vector<Below> left;
  for (std::size_t i = 0; i < paths_.size(); ++i) {
    for (Below& seen : seenBelow(i)) {
      const auto known = std::find_if(former.begin(), former.end(),
                                      [&](const Below& each) { return each.path == i && isSameMount(each.mount, seen.mount); });
      if (known != former.end()) seen.wasMovedHere = known->relative != seen.relative && !foldersWereRenamed;
      if (known == former.end() || seen.wasMovedHere) {
        fresh.push_back(std::move(seen));
        continue;
      }
      if (known->relative != seen.relative) left.push_back(*known);
      relocate(*known, seen);
      const bool lacksEngine = !known->engine && known->tree == nullptr && policyOf(known->mount).isEntered();
      if (lacksEngine) attach(*known, when, std::nullopt);
      below_.push_back(std::move(*known));
      former.erase(known);
    }
  }
  // What went first: something else may stand in its place.
  for (Below& gone : former) {
    const bool isElsewhere = std::any_of(fresh.begin(), fresh.end(), [&](const Below& each) {
      return each.wasMovedHere && each.path == gone.path && isSameMount(each.mount, gone.mount);
    });
    if (isElsewhere || !contains(mounts_.table(), gone.mount)) tell(gone, kFSEventStreamEventFlagUnmount);
    letGo(gone);
  }
  left.insert(left.end(), former.begin(), former.end());
  for (const Below& gone : left) {
    const auto isAt = [&](const Below& each) { return each.path == gone.path && each.relative == gone.relative; };
    if (std::none_of(below_.begin(), below_.end(), isAt) && std::none_of(fresh.begin(), fresh.end(), isAt)) tellAround(roots, gone, false);
  }
  for (Below& each : fresh) {
    if (when == When::Later) tellAround(roots, each, true);
    attach(each, when, since);
    below_.push_back(std::move(each));
  }
}

TreeOptions EngineMounts::optionsOf(const Below& below) const {
  TreeOptions options = paths_[below.path].options;
  options.reportedPath += below.relative;
  options.openPath = below.mount.point;
  options.exclusions = exclusionsBelow(options.exclusions, below.relative);
  options.policy = policyOf(below.mount);
  return options;
}

std::string EngineMounts::reportedPathOf(const Below& below) const { return paths_[below.path].options.reportedPath + below.relative; }

void EngineMounts::tell(const Below& below, FSEventStreamEventFlags flags) {
  const FSEventStreamEventFlags kind = configuration_.has(kFSEventStreamCreateFlagFileEvents) ? kFSEventStreamEventFlagItemIsDir : 0;
  window_.coalescer().add(number_, reportedPathOf(below), flags | kind, false);
}

void EngineMounts::attach(Below& below, When when, std::optional<std::uint64_t> since) {
  below.avoided = pointsBelow(below.mount.point);
  // Something that was hidden, or that the path did not lead to before, was not mounted just now.
  const bool isNew = when == When::Later && (below.wasMovedHere || !contains(former_, below.mount));
  const FSEventStreamEventFlags told = isNew ? kFSEventStreamEventFlagMount : 0;
  if (!policyOf(below.mount).isEntered()) {
    if (isNew) tell(below, told);
    return;
  }
  if (mayHang(paths_[below.path], below.mount)) {
    if (const auto pool = pool_.lock()) {
      below.engine = pool->begin({optionsOf(below), true, told, when == When::AtTheStart, below.avoided});
      lookAfter(below.engine, reportedPathOf(below));
    }
    return;
  }
  below.tree = &trees_.add(optionsOf(below));
  below.tree->avoid(below.avoided);
  int error = 0;
  const FSEventStreamEventFlags report = when == When::Later && !isNew ? kFSEventStreamEventFlagItemCreated : 0;
  const WatchedTree::Attached attached = trees_.attach(*below.tree, report, since, error);
  // Everything that has happened on it until its folders were marked is covered by this.
  if (isNew) tell(below, told);
  if (attached == WatchedTree::Attached::Refused) {
    status_.losses().begin(LossKind::QueueLimit, reportedPathOf(below), "the kernel offers no queue: " + errnoText(error), "");
    tell(below, kFSEventStreamEventFlagMustScanSubDirs);
  }
}

void EngineMounts::relocate(Below& below, const Below& now) {
  if (below.relative == now.relative && below.mount.point == now.mount.point) {
    below.mount = now.mount;
    return;
  }
  below.mount = now.mount;
  below.relative = now.relative;
  const TreeOptions options = optionsOf(below);
  if (below.tree != nullptr) trees_.relocate(*below.tree, options.reportedPath, options.openPath);
  if (!below.engine) return;
  below.engine->requests().post([weak = std::weak_ptr(below.engine), reported = options.reportedPath, open = options.openPath] {
    if (const auto engine = weak.lock()) engine->relocatePlace(reported, open);
  });
}

void EngineMounts::letGo(Below& below) {
  status_.losses().forget(reportedPathOf(below));
  if (below.tree != nullptr) trees_.remove(*std::exchange(below.tree, nullptr));
  endEngine(below.engine);
}

void EngineMounts::tellAround(WatchedRoots& roots, const Below& below, bool isCovered) {
  WatchedTree* tree = roots.standing(below.path);
  std::shared_ptr<StreamEngine> engine = paths_[below.path].engine;
  std::string above;
  for (const Below& each : below_) {
    const bool isAround = each.path == below.path && below.relative.starts_with(each.relative + "/") && each.relative.size() > above.size();
    if (!isAround) continue;
    above = each.relative;
    tree = each.tree;
    engine = each.engine;
  }
  const std::string relative = below.relative.substr(above.size());
  if (tree != nullptr) trees_.coverChanged(*tree, relative, isCovered);
  if (!engine) return;
  engine->requests().post([weak = std::weak_ptr(engine), relative, isCovered] {
    if (const auto around = weak.lock()) around->coverChanged(relative, isCovered);
  });
}

}  // namespace platform::fsevents
