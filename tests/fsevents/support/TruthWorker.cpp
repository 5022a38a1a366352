#include "tests/fsevents/support/TruthWorker.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace kestrine::test {

namespace {

/// Few enough names that they come again soon, in the same folder and in others.
constexpr std::size_t kNames = 40;
constexpr int kTries = 20;

}  // namespace

TruthWorker::TruthWorker(TruthWorld& world, std::size_t number, unsigned seed, std::string watched, std::string outside)
    : world_(world),
      number_(number),
      random_(seed + static_cast<unsigned>(number)),
      watched_(std::move(watched)),
      outside_(std::move(outside)) {}

void TruthWorker::run() {
  for (;;) {
    while (::sem_wait(&world_.begin[number_]) != 0) continue;
    const auto quota = world_.quota[number_].load();
    if (quota == 0) ::_exit(0);
    while (world_.recorded[number_].load() < quota) work();
    ::sem_post(&world_.done[number_]);
  }
}

void TruthWorker::require(bool fine, const char* call, const std::string& path) {
  if (fine) return;
  fmt::format_to_n(world_.fault[number_].data(), world_.fault[number_].size() - 1, "{} {}: {}", call, path, std::strerror(errno));
  ::_exit(1);
}

void TruthWorker::work() {
  struct Weighed {
    Operation operation;
    unsigned weight;
  };
  static constexpr std::array kOperations = {
      Weighed{&TruthWorker::createFile, 24},     Weighed{&TruthWorker::writeFile, 18},    Weighed{&TruthWorker::changeAttributes, 6},
      Weighed{&TruthWorker::removeFile, 14},     Weighed{&TruthWorker::renameFile, 10},   Weighed{&TruthWorker::linkFile, 2},
      Weighed{&TruthWorker::createOther, 2},     Weighed{&TruthWorker::makeChain, 4},     Weighed{&TruthWorker::changeFolderAttributes, 2},
      Weighed{&TruthWorker::renameFolder, 6},    Weighed{&TruthWorker::dance, 1},         Weighed{&TruthWorker::swapFolders, 1},
      Weighed{&TruthWorker::exchangeFolders, 1}, Weighed{&TruthWorker::replaceFolder, 1}, Weighed{&TruthWorker::removeTree, 3},
      Weighed{&TruthWorker::recreate, 1},        Weighed{&TruthWorker::moveOut, 2},       Weighed{&TruthWorker::moveIn, 2},
      Weighed{&TruthWorker::makeOutside, 1},     Weighed{&TruthWorker::hideFolder, 1},    Weighed{&TruthWorker::mountOrUnmount, 1}};
  static const unsigned kAll = [] {
    unsigned all = 0;
    for (const auto& operation : kOperations) all += operation.weight;
    return all;
  }();
  auto at = static_cast<unsigned>(pick(kAll));
  std::size_t index = 0;
  while (at >= kOperations[index].weight) at -= kOperations[index++].weight;
  (this->*kOperations[index].operation)();
}

TruthName TruthWorker::anyName() {
  TruthName name{};
  fmt::format_to_n(name.data(), name.size() - 1, "n{}", pick(kNames));
  return name;
}

std::string TruthWorker::pathOf(Slot folder) const {
  if (folder == TruthWorld::kWatched) return watched_;
  if (folder == TruthWorld::kOutside) return outside_;
  return pathOf(at(folder).parent) + "/" + at(folder).name.data();
}

bool TruthWorker::isWithin(Slot folder, Slot above) const {
  for (; folder != above; folder = at(folder).parent) {
    if (folder < TruthWorld::kFirst) return false;
  }
  return true;
}

std::size_t TruthWorker::depthOf(Slot folder) const {
  std::size_t depth = 0;
  for (; folder >= TruthWorld::kFirst; folder = at(folder).parent) ++depth;
  return depth;
}

bool TruthWorker::hasFolders(Slot folder) const {
  return std::any_of(world_.folders.begin() + TruthWorld::kFirst, world_.folders.end(),
                     [&](const TruthFolder& other) { return other.isAlive && other.parent == folder; });
}

bool TruthWorker::isTaken(Slot folder, const TruthName& name) const {
  for (const auto& item : at(folder).items) {
    if (item.kind != TruthItem::Kind::None && item.name == name) return true;
  }
  return std::any_of(world_.folders.begin() + TruthWorld::kFirst, world_.folders.end(),
                     [&](const TruthFolder& other) { return other.isAlive && other.parent == folder && other.name == name; });
}

bool TruthWorker::isCrowded() const { return world_.alive * 10 > TruthWorld::kFolders * 9; }

TruthWorker::Slot TruthWorker::anyFolder(Slot above) {
  for (int i = 0; i < kTries; ++i) {
    const auto slot = static_cast<Slot>(TruthWorld::kFirst + pick(TruthWorld::kFolders - TruthWorld::kFirst));
    if (at(slot).isAlive && isWithin(slot, above)) return slot;
  }
  return kNoSlot;
}

TruthWorker::Slot TruthWorker::anyPlace() {
  const auto slot = oneOf(8) ? kNoSlot : anyFolder(TruthWorld::kWatched);
  return slot == kNoSlot ? TruthWorld::kWatched : slot;
}

TruthWorker::Slot TruthWorker::ownPlace() {
  for (int i = 0; i < kTries; ++i) {
    const auto slot = static_cast<Slot>(pick(TruthWorld::kFolders));
    if (at(slot).isAlive && at(slot).owner == number_ && !isWithin(slot, TruthWorld::kHidden)) return slot;
  }
  return kNoSlot;
}

TruthWorker::Slot TruthWorker::add(Slot parent, const TruthName& name) {
  for (Slot slot = TruthWorld::kFirst; slot < TruthWorld::kFolders; ++slot) {
    auto& folder = at(slot);
    if (folder.isAlive) continue;
    folder = TruthFolder{};
    folder.isAlive = true;
    folder.owner = static_cast<std::uint8_t>(pick(TruthWorld::kWorkers));
    folder.parent = parent;
    folder.number = ++world_.lastNumber;
    folder.name = name;
    ++world_.alive;
    return slot;
  }
  return kNoSlot;
}

TruthItem* TruthWorker::freeItem(Slot folder) {
  for (auto& item : at(folder).items) {
    if (item.kind == TruthItem::Kind::None) return &item;
  }
  return nullptr;
}

TruthItem* TruthWorker::anyItem(Slot folder, bool filesOnly) {
  for (int i = 0; i < kTries; ++i) {
    auto& item = at(folder).items[pick(TruthFolder::kItems)];
    if (item.kind == TruthItem::Kind::File || (!filesOnly && item.kind == TruthItem::Kind::Other)) return &item;
  }
  return nullptr;
}

TruthRecord& TruthWorker::record(TruthRecord::What what, Slot folder, const TruthName& name, std::int64_t before) {
  const auto index = world_.recorded[number_].load();
  require(index < TruthWorld::kRecords, "more was done than can be remembered in", "the log");
  auto& record = world_.records[number_][index];
  record = TruthRecord{};
  record.before = before;
  record.after = truthClock();
  record.what = what;
  record.worker = static_cast<std::uint8_t>(number_);
  record.folder = at(folder).number;
  record.name = name;
  world_.recorded[number_].store(index + 1);
  return record;
}

void TruthWorker::recordMove(Slot folder, const TruthName& name, Slot newFolder, const TruthName& newName, std::uint32_t item,
                             std::int64_t before) {
  auto& moved = record(TruthRecord::What::Moved, folder, name, before);
  moved.newFolder = at(newFolder).number;
  moved.newName = newName;
  moved.item = item;
}

}  // namespace kestrine::test
