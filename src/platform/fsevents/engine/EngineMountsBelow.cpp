#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/foundation/files/Paths.h"
#include "platform/foundation/log/Log.h"
#include "platform/fsevents/engine/EngineMounts.h"
#include "platform/fsevents/engine/EnginePool.h"
#include "platform/fsevents/engine/StreamEngine.h"
#include "platform/fsevents/event/LastSource.h"
#include "platform/fsevents/folders/Exclusions.h"
#include "platform/fsevents/mounts/FileSystems.h"
#include "platform/fsevents/source/KernelLimits.h"

namespace platform::fsevents {

// What is mounted below the watched paths.

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
  const Exclusions exclusions(path.options.exclusions);
  std::string pseudo;
  for (Mount& mount : mounts_.table().below(path.way.real)) {
    std::string relative = path.way.real == "/" ? mount.point : mount.point.substr(path.way.real.size());
    if (exclusions.contain(relative)) continue;
    // Where nothing is entered nothing below is either.
    if (!pseudo.empty() && isBelowPath(mount.point, pseudo)) continue;
    if (policyOf(mount).kind == FileSystemKind::Pseudo) pseudo = mount.point;
    seen.push_back({number, std::move(mount), std::move(relative), nullptr, nullptr});
  }
  return seen;
}

void EngineMounts::reconcile(WatchedRoots& roots, When when, bool foldersWereRenamed, std::optional<std::uint64_t> since) {
  attend();
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

void EngineMounts::attend() {
  std::vector<Mount> mounts;
  for (std::size_t i = 0; i < paths_.size(); ++i) {
    const Path& path = paths_[i];
    if (path.way.mayHang) continue;
    mounts.insert(mounts.end(), path.way.mounts.begin(), path.way.mounts.end());
    for (Below& below : seenBelow(i)) {
      if (policyOf(below.mount).isEntered() && !mayHang(path, below.mount)) mounts.push_back(std::move(below.mount));
    }
  }
  // What may not be read cannot be watched either, which is told where that is tried.
  const int error = mounts_.attend(mounts);
  if (error != 0 && error != EACCES && !std::exchange(saidNotToldApart_, true)) {
    NSLog("FSEventStream: what is unmounted and mounted again within a moment may go unnoticed: " +
          explainQueueFailure("inotify", error).text());
  }
}

TreeOptions EngineMounts::optionsOf(const Below& below) const {
  TreeOptions options = paths_[below.path].options;
  options.reportedPath += below.relative;
  options.openPath = below.mount.point;
  options.exclusions = Exclusions(std::move(options.exclusions)).partsBelow(below.relative);
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
    below.engine = engineFor({optionsOf(below), true, told, when == When::AtTheStart, below.avoided});
    return;
  }
  below.tree = &trees_.add(optionsOf(below));
  below.tree->avoid(below.avoided);
  int error = 0;
  const FSEventStreamEventFlags report = when == When::Later && !isNew ? kFSEventStreamEventFlagItemCreated : 0;
  const WatchedTree::Attached attached = trees_.attachMount(*below.tree, report, since, error);
  // Everything that has happened on it until its folders were marked is covered by this.
  if (isNew) tell(below, told);
  if (attached == WatchedTree::Attached::Refused) {
    const Explanation why = explainQueueFailure(lastSource(configuration_.source), error);
    status_.losses().begin(LossKind::QueueLimit, reportedPathOf(below), why.reason, why.remedy);
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
    const bool isAround = each.path == below.path && isBelowPath(below.relative, each.relative) && each.relative.size() > above.size();
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
