#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "tests/fsevents/support/TruthWorker.h"

// What changes the paths of others: done by one worker at a time, while the others at most write to files that they have open.

namespace kestrine::test {

using What = TruthRecord::What;

namespace {

constexpr std::size_t kDeepest = 30;
constexpr std::size_t kLongestChain = 6;

}  // namespace

TruthWorker::Slot TruthWorker::makeFolderIn(Slot parent, const TruthName& name) {
  if (world_.alive >= TruthWorld::kFolders || isTaken(parent, name)) return kNoSlot;
  const auto path = pathOf(parent, name);
  const auto before = truthClock();
  require(::mkdir(path.c_str(), 0755) == 0, "mkdir", path);
  const auto slot = add(parent, name);
  record(What::Made, parent, name, before).item = at(slot).number;
  return slot;
}

void TruthWorker::fill(Slot folder, std::size_t files) {
  for (; files > 0; --files) {
    auto* item = freeItem(folder);
    const auto name = anyName();
    if (item == nullptr || isTaken(folder, name)) return;
    const auto path = pathOf(folder, name);
    const auto before = truthClock();
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    require(file >= 0, "create", path);
    record(What::Made, folder, name, before);
    *item = {TruthItem::Kind::File, false, name};
    writeTo(file, at(folder).number, folder, name);
  }
}

void TruthWorker::makeChainIn(Slot parent, std::size_t length) {
  for (; length > 0 && depthOf(parent) < kDeepest; --length) {
    const auto made = makeFolderIn(parent, anyName());
    if (made == kNoSlot) return;
    parent = made;
    fill(parent, pick(3));
  }
}

void TruthWorker::makeChain() {
  const HeldAlone held(world_);
  if (isCrowded()) return;
  makeChainIn(anyPlace(), 1 + pick(kLongestChain));
}

void TruthWorker::makeOutside() {
  const HeldAlone held(world_);
  if (isCrowded()) return;
  makeChainIn(TruthWorld::kOutside, 1 + pick(3));
}

bool TruthWorker::isMovable(Slot folder, Slot target) const {
  return !isWithin(target, folder) && depthOf(target) < kDeepest && !hasMounts(folder) && mountOf(folder) == mountOf(target);
}

bool TruthWorker::move(Slot folder, Slot target, const TruthName& name) {
  if (!isMovable(folder, target) || isTaken(target, name)) return false;
  const auto path = pathOf(folder);
  const auto before = truthClock();
  require(::rename(path.c_str(), pathOf(target, name).c_str()) == 0, "rename", path);
  recordMove(at(folder).parent, at(folder).name, target, name, at(folder).number, before);
  at(folder).parent = target;
  at(folder).name = name;
  return true;
}

void TruthWorker::renameFolder() {
  const HeldAlone held(world_);
  const auto folder = anyFolder(TruthWorld::kWatched);
  if (folder != kNoSlot) move(folder, oneOf(3) ? at(folder).parent : anyPlace(), anyName());
}

// One folder, or what is in it too, moves several times in a row.
void TruthWorker::dance() {
  const HeldAlone held(world_);
  auto folder = anyFolder(TruthWorld::kWatched);
  if (folder == kNoSlot) return;
  const auto home = at(folder).parent;
  const auto name = at(folder).name;
  for (std::size_t steps = 2 + pick(4); steps > 0; --steps) {
    move(folder, oneOf(3) ? at(folder).parent : anyPlace(), anyName());
    if (oneOf(4)) fill(folder, 1);
    if (const auto other = anyFolder(folder); oneOf(3) && other != kNoSlot) folder = other;
  }
  if (oneOf(2) && isWithin(home, TruthWorld::kWatched)) move(folder, home, name);
}

// Two folders change names by way of a third name.
void TruthWorker::swapFolders() {
  const HeldAlone held(world_);
  const auto one = anyFolder(TruthWorld::kWatched);
  const auto other = anyFolder(TruthWorld::kWatched);
  if (one == kNoSlot || other == kNoSlot || isWithin(one, other) || isWithin(other, one)) return;
  const auto place = at(one).parent;
  const auto name = at(one).name;
  const auto otherPlace = at(other).parent;
  const auto otherName = at(other).name;
  if (!move(one, anyPlace(), anyName())) return;
  // What was moved may have been taken along with the other by now, or the other with it.
  if (isWithin(place, other) || !move(other, place, name)) return;
  if (!isWithin(otherPlace, one)) move(one, otherPlace, otherName);
}

void TruthWorker::exchangeFolders() {
  const HeldAlone held(world_);
  const auto one = anyFolder(TruthWorld::kWatched);
  const auto other = anyFolder(TruthWorld::kWatched);
  if (one == kNoSlot || other == kNoSlot || isWithin(one, other) || isWithin(other, one)) return;
  if (hasMounts(one) || hasMounts(other)) return;
  const auto path = pathOf(one);
  const auto before = truthClock();
  if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, pathOf(other).c_str(), RENAME_EXCHANGE) != 0) return;  // not on every file system
  auto& exchanged = record(What::Exchanged, at(one).parent, at(one).name, before);
  exchanged.newFolder = at(at(other).parent).number;
  exchanged.newName = at(other).name;
  exchanged.item = at(one).number;
  exchanged.otherItem = at(other).number;
  std::swap(at(one).parent, at(other).parent);
  std::swap(at(one).name, at(other).name);
}

void TruthWorker::replaceFolder() {
  const HeldAlone held(world_);
  const auto folder = anyFolder(TruthWorld::kWatched);
  const auto target = anyPlace();
  if (folder == kNoSlot || !isMovable(folder, target)) return;
  const auto victim = makeFolderIn(target, anyName());
  if (victim == kNoSlot) return;
  const auto name = at(victim).name;
  const auto path = pathOf(folder);
  const auto before = truthClock();
  require(::rename(path.c_str(), pathOf(victim).c_str()) == 0, "rename", path);
  record(What::Removed, target, name, before).item = at(victim).number;
  at(victim).isAlive = false;
  --world_.alive;
  recordMove(at(folder).parent, at(folder).name, target, name, at(folder).number, before);
  at(folder).parent = target;
  at(folder).name = name;
}

void TruthWorker::removeFolder(Slot folder) {
  const auto path = pathOf(folder);
  const auto before = truthClock();
  require(::rmdir(path.c_str()) == 0, "rmdir", path);
  record(What::Removed, at(folder).parent, at(folder).name, before).item = at(folder).number;
  at(folder).isAlive = false;
  --world_.alive;
}

void TruthWorker::removeBelow(Slot folder) {
  for (auto& item : at(folder).items) {
    if (item.kind == TruthItem::Kind::None) continue;
    const auto path = pathOf(folder, item.name);
    const auto before = truthClock();
    require(::unlink(path.c_str()) == 0, "unlink", path);
    record(What::Removed, folder, item.name, before);
    item = {};
  }
  for (Slot slot = TruthWorld::kFirst; slot < TruthWorld::kFolders; ++slot) {
    if (!at(slot).isAlive || at(slot).parent != folder) continue;
    removeBelow(slot);
    removeFolder(slot);
  }
}

void TruthWorker::removeTree() {
  const HeldAlone held(world_);
  const auto folder = anyFolder(oneOf(6) ? TruthWorld::kOutside : TruthWorld::kWatched);
  // Large ones only where there is no more room.
  if (folder == kNoSlot || hasMounts(folder) || (hasFolders(folder) && !isCrowded())) return;
  removeBelow(folder);
  removeFolder(folder);
}

void TruthWorker::recreate() {
  const HeldAlone held(world_);
  const auto folder = anyFolder(TruthWorld::kWatched);
  if (folder == kNoSlot || hasMounts(folder) || hasFolders(folder)) return;
  const auto parent = at(folder).parent;
  const auto name = at(folder).name;
  removeBelow(folder);
  removeFolder(folder);
  const auto made = makeFolderIn(parent, name);
  if (made == kNoSlot) return;
  fill(made, pick(3));
  makeChainIn(made, pick(3));
}

// Nobody else is in need of the folder meanwhile.
void TruthWorker::hideFolder() {
  if (!world_.hides) return;
  const HeldAlone held(world_);
  const auto folder = anyFolder(TruthWorld::kWatched);
  if (folder == kNoSlot) return;
  const auto path = pathOf(folder);
  for (const mode_t mode : {mode_t{0}, mode_t{0750}}) {
    const auto before = truthClock();
    require(::chmod(path.c_str(), mode) == 0, "chmod", path);
    record(What::Attributes, at(folder).parent, at(folder).name, before).item = at(folder).number;
    constexpr long kLongest = 3'000'000;
    const timespec pause{0, static_cast<long>(pick(kLongest))};
    if (mode == 0) ::nanosleep(&pause, nullptr);
  }
}

void TruthWorker::moveOut() {
  const HeldAlone held(world_);
  const auto folder = anyFolder(TruthWorld::kWatched);
  if (folder != kNoSlot) move(folder, TruthWorld::kOutside, anyName());
}

void TruthWorker::moveIn() {
  const HeldAlone held(world_);
  const auto folder = anyFolder(TruthWorld::kOutside);
  if (folder != kNoSlot) move(folder, anyPlace(), anyName());
}

}  // namespace kestrine::test
