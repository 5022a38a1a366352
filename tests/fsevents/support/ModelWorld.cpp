#include "tests/fsevents/support/ModelWorld.h"

#include <algorithm>

namespace kestrine::test {

ModelWorld::ModelWorld(std::string watched, std::string outside, unsigned seed)
    : watchedPath_(std::move(watched)), outsidePath_(std::move(outside)), random_(seed) {
  watched_.kind = Kind::Folder;
  outside_.kind = Kind::Folder;
}

ModelWorld::~ModelWorld() = default;

std::string ModelWorld::pathOf(const Item& item) const {
  if (&item == &watched_) return watchedPath_;
  if (&item == &outside_) return outsidePath_;
  return pathOf(*item.parent) + "/" + item.name;
}

bool ModelWorld::isWatched(const Item& item) const { return isWithin(&item, &watched_); }

bool ModelWorld::isUnknown(const Item* folder) {
  for (; folder != nullptr; folder = folder->parent) {
    if (folder->isNew) return true;
  }
  return false;
}

bool ModelWorld::isWithin(const Item* item, const Item* folder) {
  for (; item != nullptr; item = item->parent) {
    if (item == folder) return true;
  }
  return false;
}

void ModelWorld::collect(Item& folder) {
  folders_.push_back(&folder);
  for (auto& [name, child] : folder.children) {
    if (child->kind == Kind::Folder) {
      collect(*child);
    } else {
      files_.push_back(child.get());
    }
  }
}

void ModelWorld::refresh() {
  if (!stale_) return;
  folders_.clear();
  files_.clear();
  collect(watched_);
  stale_ = false;
}

ModelWorld::Item& ModelWorld::anyFolder() {
  refresh();
  return *folders_[pick(folders_.size())];
}

ModelWorld::Item* ModelWorld::anyFile(bool linksToo) {
  refresh();
  constexpr int kTries = 20;
  for (int i = 0; i < kTries && !files_.empty(); ++i) {
    auto* file = files_[pick(files_.size())];
    if (linksToo || file->kind == Kind::File) return file;
  }
  return nullptr;
}

ModelWorld::Item* ModelWorld::smallFolder() {
  constexpr int kTries = 10;
  constexpr std::size_t kSmall = 12;
  for (int i = 0; i < kTries; ++i) {
    auto& folder = anyFolder();
    if (&folder != &watched_ && folder.children.size() <= kSmall) return &folder;
  }
  return nullptr;
}

std::string ModelWorld::newName(const char* prefix) {
  // Few enough names that they come again while others of them are still on their way.
  constexpr int kNames = 400;
  counter_ = (counter_ + 1) % kNames;
  return prefix + std::to_string(counter_);
}

ModelWorld::Item& ModelWorld::add(Item& folder, const std::string& name, Kind kind) {
  auto item = std::make_unique<Item>();
  item->parent = &folder;
  item->name = name;
  item->kind = kind;
  auto& added = *(folder.children[name] = std::move(item));
  if (!stale_ && isWatched(folder)) (kind == Kind::Folder ? folders_ : files_).push_back(&added);
  return added;
}

std::unique_ptr<ModelWorld::Item> ModelWorld::take(Item& item) {
  const auto place = item.parent->children.find(item.name);
  auto taken = std::move(place->second);
  taken->parent->children.erase(place);
  if (item.kind == Kind::Folder) {
    stale_ = true;
  } else if (!stale_) {
    const auto found = std::find(files_.begin(), files_.end(), &item);
    if (found != files_.end()) {
      *found = files_.back();
      files_.pop_back();
    }
  }
  return taken;
}

void ModelWorld::tell(Item& item, FSEventStreamEventFlags flag) {
  const auto path = pathOf(item);
  if (isUnknown(item.parent)) {
    item.wasTouched = true;
    ledger_.permit(path);
  } else {
    ledger_.demand(path, flag);
  }
  if (item.hasTwins) ledger_.distrust(path);
}

void ModelWorld::tellGone(const Item& item, FSEventStreamEventFlags flag) {
  const auto path = pathOf(item);
  if (isUnknown(item.parent)) {
    ledger_.permit(path);
  } else {
    ledger_.demand(path, flag);
  }
  if (item.hasTwins) ledger_.distrust(path);
}

void ModelWorld::putAt(std::unique_ptr<Item> item, Item& folder, const std::string& name) {
  item->parent = &folder;
  item->name = name;
  auto& placed = *(folder.children[name] = std::move(item));
  if (placed.kind == Kind::Folder) {
    stale_ = true;
  } else if (!stale_ && isWatched(folder)) {
    files_.push_back(&placed);
  }
}

void ModelWorld::completeBelow(Item& folder) {
  for (auto& [name, child] : folder.children) {
    if (child->wasTouched) ledger_.demandSomething(pathOf(*child));
    child->wasTouched = false;
    if (child->kind == Kind::Folder) completeBelow(*child);
  }
}

void ModelWorld::settleBelow(Item& folder) {
  folder.isNew = false;
  folder.moves = 0;
  for (auto& [name, child] : folder.children) {
    child->wasTouched = false;
    if (child->kind == Kind::Folder) settleBelow(*child);
  }
}

const ModelLedger& ModelWorld::account() {
  completeBelow(watched_);
  return ledger_;
}

void ModelWorld::settle() {
  ledger_.clear();
  settleBelow(watched_);
  settleBelow(outside_);
}

std::vector<std::string> ModelWorld::folders() const {
  std::vector<std::string> paths;
  std::vector<const Item*> open{&watched_};
  while (!open.empty()) {
    const auto* folder = open.back();
    open.pop_back();
    paths.push_back(pathOf(*folder));
    for (const auto& [name, child] : folder->children) {
      if (child->kind == Kind::Folder) open.push_back(child.get());
    }
  }
  return paths;
}

}  // namespace kestrine::test
