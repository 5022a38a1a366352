#include "platform/fsevents/mounts/PathMounts.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "platform/fsevents/mounts/FileSystems.h"
#include "platform/fsevents/mounts/PathSteps.h"

namespace platform::fsevents {
namespace {

std::string join(const std::string& folder, const std::string& name) { return (folder == "/" ? "" : folder) + "/" + name; }

bool mayHangOn(const Mount& mount) {
  const FileSystemPolicy policy = policyOf(mount);
  return policy.isForeign() || policy.kind == FileSystemKind::Automount;
}

}  // namespace

PathMounts followPath(const MountTable& table, const std::string& path) {
  PathMounts way;
  std::vector<std::string> left;
  pushComponents(path, left);
  way.real = "/";
  int links = 0;
  while (true) {
    way.places.insert(way.real);
    const Mount* const mount = table.covering(way.real);
    if (mount != nullptr && std::find(way.mounts.begin(), way.mounts.end(), *mount) == way.mounts.end()) way.mounts.push_back(*mount);
    way.mayHang = mount != nullptr && mayHangOn(*mount);
    if (way.mayHang || left.empty()) break;
    const std::string name = std::move(left.back());
    left.pop_back();
    if (name == ".") continue;
    if (name == "..") {
      way.real.erase(std::max<std::size_t>(way.real.rfind('/'), 1));
      continue;
    }
    const std::string next = join(way.real, name);
    const Mount* const there = table.covering(next);
    // Its own mount is looked at in the next round; a mount point is no link.
    const std::string target = there != nullptr && there->point == next ? std::string() : linkAt(next);
    if (target.empty()) {
      way.real = next;
      continue;
    }
    way.places.insert(next);
    if (++links > kMaximumLinks) break;
    if (target.front() == '/') way.real = "/";
    pushComponents(target, left);
  }
  for (; !left.empty(); left.pop_back()) way.real = join(way.real, left.back());
  return way;
}

bool isSameMount(const Mount& one, const Mount& other) {
  if (one.serial != 0 && other.serial != 0) return one.serial == other.serial;
  const auto what = [](const Mount& mount) { return std::tie(mount.id, mount.device, mount.root, mount.type, mount.source); };
  return what(one) == what(other);
}

bool contains(const MountTable& table, const Mount& mount) {
  return std::any_of(table.all().begin(), table.all().end(), [&](const Mount& each) { return isSameMount(each, mount); });
}

}  // namespace platform::fsevents
