#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "tests/fsevents/support/TruthWorker.h"

// What workers do to the files of their own folders.

namespace kestrine::test {

using What = TruthRecord::What;

namespace {

/// So that a reader sees that a file has or had other names, through which it may have been written.
constexpr mode_t kTwin = S_ISVTX;

}  // namespace

// `folder` is the number that `slot` had when the file was opened; by now it may be another's.
void TruthWorker::writeTo(int file, std::uint32_t folder, Slot slot, const TruthName& name) {
  const auto before = truthClock();
  require(::write(file, "x", 1) == 1, "write", name.data());
  record(What::Written, slot, name, before).folder = folder;
  if (oneOf(4)) {
    const auto again = truthClock();
    require(::write(file, "y", 1) == 1, "write", name.data());
    record(What::Written, slot, name, again).folder = folder;
  }
  ::close(file);
}

void TruthWorker::createFile() {
  Held held(world_);
  const auto slot = ownPlace();
  if (slot == kNoSlot) return;
  const auto name = anyName();
  auto* item = freeItem(slot);
  if (item == nullptr || isTaken(slot, name)) return;
  const auto path = pathOf(slot, name);
  const auto before = truthClock();
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  require(file >= 0, "create", path);
  record(What::Made, slot, name, before);
  *item = {TruthItem::Kind::File, false, name};
  const auto number = at(slot).number;
  held.release();
  writeTo(file, number, slot, name);
}

void TruthWorker::writeFile() {
  Held held(world_);
  const auto slot = ownPlace();
  const auto* item = slot == kNoSlot ? nullptr : anyItem(slot, true);
  if (item == nullptr) return;
  const auto name = item->name;
  const auto path = pathOf(slot, name);
  const int file = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  require(file >= 0, "open", path);
  const auto number = at(slot).number;
  held.release();
  writeTo(file, number, slot, name);
}

void TruthWorker::changeAttributes() {
  const Held held(world_);
  const auto slot = ownPlace();
  const auto* item = slot == kNoSlot ? nullptr : anyItem(slot, true);
  if (item == nullptr) return;
  const auto path = pathOf(slot, item->name);
  const auto before = truthClock();
  if (oneOf(3)) {
    require(::utimensat(AT_FDCWD, path.c_str(), nullptr, 0) == 0, "utimensat", path);
  } else {
    const mode_t twin = item->isTwin ? kTwin : 0;
    require(::chmod(path.c_str(), twin | (oneOf(2) ? 0600U : 0640U)) == 0, "chmod", path);
  }
  record(What::Attributes, slot, item->name, before);
}

void TruthWorker::removeFile() {
  const Held held(world_);
  const auto slot = ownPlace();
  auto* item = slot == kNoSlot ? nullptr : anyItem(slot, false);
  if (item == nullptr) return;
  const auto path = pathOf(slot, item->name);
  const auto before = truthClock();
  require(::unlink(path.c_str()) == 0, "unlink", path);
  record(What::Removed, slot, item->name, before);
  *item = {};
}

void TruthWorker::renameFile() {
  const Held held(world_);
  const auto slot = ownPlace();
  const auto target = oneOf(2) ? slot : ownPlace();
  auto* item = slot == kNoSlot || target == kNoSlot || mountOf(slot) != mountOf(target) ? nullptr : anyItem(slot, false);
  if (item == nullptr) return;
  auto* place = oneOf(4) ? anyItem(target, false) : nullptr;
  const bool replaces = place != nullptr;
  // The kernel makes nothing of a rename between two names of one file.
  if (replaces && (place == item || (place->isTwin && item->isTwin))) return;
  const auto name = replaces ? place->name : anyName();
  if (!replaces) place = freeItem(target);
  if (place == nullptr || (!replaces && isTaken(target, name))) return;
  const auto path = pathOf(slot, item->name);
  const auto before = truthClock();
  require(::rename(path.c_str(), pathOf(target, name).c_str()) == 0, "rename", path);
  if (replaces) record(What::Removed, target, name, before);
  recordMove(slot, item->name, target, name, 0, before);
  *place = {item->kind, item->isTwin, name};
  *item = {};
}

void TruthWorker::linkFile() {
  const Held held(world_);
  const auto slot = ownPlace();
  const auto target = ownPlace();
  auto* item = slot == kNoSlot || target == kNoSlot || mountOf(slot) != mountOf(target) ? nullptr : anyItem(slot, true);
  auto* place = item == nullptr ? nullptr : freeItem(target);
  const auto name = anyName();
  if (place == nullptr || isTaken(target, name)) return;
  const auto existing = pathOf(slot, item->name);
  const auto path = pathOf(target, name);
  auto before = truthClock();
  require(::chmod(existing.c_str(), kTwin | 0600U) == 0, "chmod", existing);
  record(What::Attributes, slot, item->name, before);
  before = truthClock();
  require(::link(existing.c_str(), path.c_str()) == 0, "link", path);
  record(What::Made, target, name, before);
  item->isTwin = true;
  *place = {TruthItem::Kind::File, true, name};
}

void TruthWorker::createOther() {
  const Held held(world_);
  const auto slot = ownPlace();
  auto* item = slot == kNoSlot ? nullptr : freeItem(slot);
  const auto name = anyName();
  if (item == nullptr || isTaken(slot, name)) return;
  const auto path = pathOf(slot, name);
  const auto before = truthClock();
  if (oneOf(4)) {
    require(::mkfifo(path.c_str(), 0644) == 0, "mkfifo", path);
  } else {
    require(::symlink(oneOf(2) ? ".." : "nowhere", path.c_str()) == 0, "symlink", path);
  }
  record(What::Made, slot, name, before);
  *item = {TruthItem::Kind::Other, false, name};
}

void TruthWorker::changeFolderAttributes() {
  const Held held(world_);
  const auto slot = ownPlace();
  if (slot == kNoSlot || slot < TruthWorld::kFirst) return;
  const auto path = pathOf(slot);
  const auto before = truthClock();
  require(::chmod(path.c_str(), oneOf(2) ? 0700 : 0750) == 0, "chmod", path);
  record(What::Attributes, at(slot).parent, at(slot).name, before).item = at(slot).number;
}

}  // namespace kestrine::test
