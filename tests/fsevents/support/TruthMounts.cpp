#include <fmt/format.h>

#include <stdexcept>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/TruthWorker.h"

// A mounted file system's root takes the place of a folder, which goes into hiding with all that is in it and has its place again when the
// file system is unmounted. To the log these are moves.

namespace kestrine::test {

using What = TruthRecord::What;

namespace {

constexpr std::size_t kMostMounts = 5;

}  // namespace

TruthWorker::Slot TruthWorker::mountOf(Slot folder) const {
  while (folder >= TruthWorld::kFirst && at(folder).hidden == 0) folder = at(folder).parent;
  return folder >= TruthWorld::kFirst ? folder : TruthWorld::kWatched;
}

bool TruthWorker::hasMounts(Slot folder) const {
  for (Slot slot = TruthWorld::kFirst; slot < TruthWorld::kFolders; ++slot) {
    if (at(slot).isAlive && at(slot).hidden != 0 && isWithin(slot, folder)) return true;
  }
  return false;
}

void TruthWorker::mountOrUnmount() {
  if (!world_.mounts) return;
  const HeldAlone held(world_);
  std::size_t mounts = 0;
  Slot root = kNoSlot;
  for (Slot slot = TruthWorld::kFirst; slot < TruthWorld::kFolders; ++slot) {
    if (!at(slot).isAlive || at(slot).hidden == 0) continue;
    ++mounts;
    // One that is hidden itself has no path.
    if (!isWithin(slot, TruthWorld::kHidden) && oneOf(mounts)) root = slot;
  }
  if (root != kNoSlot && (mounts >= kMostMounts || oneOf(2))) return unmount(root);
  const auto folder = anyFolder(oneOf(6) ? TruthWorld::kOutside : TruthWorld::kWatched);
  if (folder != kNoSlot && !isCrowded() && mounts < kMostMounts) mountOn(folder);
}

void TruthWorker::mountOn(Slot folder) {
  const auto before = truthClock();
  mountAt(pathOf(folder), "tmpfs", "size=4m,mode=0755");
  const auto parent = at(folder).parent;
  const auto name = at(folder).name;
  TruthName hiddenName{};
  fmt::format_to_n(hiddenName.data(), hiddenName.size() - 1, "{}", at(folder).number);
  recordMove(parent, name, TruthWorld::kHidden, hiddenName, at(folder).number, before);
  at(folder).parent = TruthWorld::kHidden;
  at(folder).name = hiddenName;
  const auto root = add(parent, name);
  require(root != kNoSlot, "room for", "a mounted file system");
  at(root).hidden = folder;
  record(What::Made, parent, name, before).item = at(root).number;
  fill(root, pick(3));
}

void TruthWorker::unmount(Slot root) {
  const auto before = truthClock();
  try {
    unmountAt(pathOf(root));
  } catch (const std::runtime_error&) {
    return;  // in use: by a worker, by another mount, for a moment by the stream
  }
  const auto parent = at(root).parent;
  const auto name = at(root).name;
  const Slot folder = at(root).hidden;
  const auto hiddenName = at(folder).name;
  record(What::Removed, parent, name, before).item = at(root).number;
  forget(root);
  at(folder).parent = parent;
  at(folder).name = name;
  recordMove(TruthWorld::kHidden, hiddenName, parent, name, at(folder).number, before);
}

void TruthWorker::forget(Slot folder) {
  for (Slot slot = TruthWorld::kFirst; slot < TruthWorld::kFolders; ++slot) {
    if (at(slot).isAlive && at(slot).parent == folder) forget(slot);
  }
  at(folder).isAlive = false;
  --world_.alive;
}

}  // namespace kestrine::test
