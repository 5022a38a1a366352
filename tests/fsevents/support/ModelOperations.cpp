#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <iterator>
#include <system_error>

#include "tests/fsevents/support/FileOperations.h"
#include "tests/fsevents/support/ModelWorld.h"
#include "tests/support/TemporaryDirectory.h"

// The changes that the random workload is made of.

namespace kestrine::test {

namespace {

constexpr std::size_t kManyFiles = 500;
constexpr std::size_t kManyFolders = 120;

void require(bool fine, const std::string& what) {
  if (!fine) throw std::system_error(errno, std::generic_category(), what);
}

void writeOnce(const std::string& path, int flags) {
  const int file = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, 0644);
  require(file >= 0, path);
  const bool written = ::write(file, "x", 1) == 1;
  ::close(file);
  require(written, path);
}

}  // namespace

void ModelWorld::change(int count) {
  struct Weighed {
    Operation operation;
    unsigned weight;
  };
  static constexpr std::array kOperations = {
      Weighed{&ModelWorld::createFile, 22},  Weighed{&ModelWorld::write, 16},          Weighed{&ModelWorld::chmodFile, 8},
      Weighed{&ModelWorld::removeFile, 16},  Weighed{&ModelWorld::renameFile, 10},     Weighed{&ModelWorld::replaceFile, 4},
      Weighed{&ModelWorld::linkFile, 3},     Weighed{&ModelWorld::createLink, 3},      Weighed{&ModelWorld::makeOneFolder, 4},
      Weighed{&ModelWorld::chmodFolder, 2},  Weighed{&ModelWorld::makeDeepFolders, 2}, Weighed{&ModelWorld::removeFolder, 4},
      Weighed{&ModelWorld::renameFolder, 3}, Weighed{&ModelWorld::moveOut, 1},         Weighed{&ModelWorld::moveIn, 1},
      Weighed{&ModelWorld::createOutside, 1}};
  unsigned all = 0;
  for (const auto& operation : kOperations) all += operation.weight;
  for (int i = 0; i < count; ++i) {
    auto at = static_cast<unsigned>(pick(all));
    std::size_t index = 0;
    while (at >= kOperations[index].weight) at -= kOperations[index++].weight;
    (this->*kOperations[index].operation)();
  }
}

void ModelWorld::createFile() {
  if (files_.size() > kManyFiles) return removeFile();
  createFileIn(anyFolder());
}

void ModelWorld::createFileIn(Item& folder) {
  const auto name = newName("f");
  if (folder.children.contains(name)) return;
  auto& file = add(folder, name, Kind::File);
  writeOnce(pathOf(file), O_CREAT | O_EXCL);
  tell(file, kCreated | kModified);
}

void ModelWorld::createLink() {
  auto& folder = anyFolder();
  const auto name = newName("s");
  if (folder.children.contains(name)) return;
  auto& link = add(folder, name, Kind::Link);
  makeLink(pick(2) == 0 ? ".." : "nowhere", pathOf(link));
  tell(link, kCreated);
}

void ModelWorld::write() {
  auto* file = anyFile(false);
  if (file == nullptr) return createFile();
  writeOnce(pathOf(*file), O_APPEND);
  tell(*file, kModified);
}

void ModelWorld::chmodFile() {
  auto* file = anyFile(false);
  if (file == nullptr) return createFile();
  setMode(pathOf(*file), pick(2) == 0 ? 0600 : 0640);
  tell(*file, kMetadata);
}

void ModelWorld::chmodFolder() {
  auto& folder = anyFolder();
  if (&folder == &watched_) return;
  setMode(pathOf(folder), pick(2) == 0 ? 0700 : 0750);
  if (!isUnknown(&folder)) return ledger_.demandOfFolder(pathOf(folder), kMetadata | kIsFolder);
  // The kernel tells this of the folder itself, which means nothing to a stream that does not know it.
  folder.wasTouched = true;
  ledger_.permit(pathOf(folder));
}

void ModelWorld::linkFile() {
  auto* file = anyFile(false);
  auto& folder = anyFolder();
  const auto name = newName("h");
  if (file == nullptr || folder.children.contains(name)) return;
  file->hasTwins = true;
  auto& twin = add(folder, name, Kind::File);
  twin.hasTwins = true;
  makeHardLink(pathOf(*file), pathOf(twin));
  tell(twin, kCreated);
}

void ModelWorld::removeFile() {
  auto* file = anyFile(true);
  if (file == nullptr) return createFile();
  removeItem(pathOf(*file));
  tellGone(*file, kRemoved);
  take(*file);
}

void ModelWorld::renameFile() {
  auto* file = anyFile(true);
  if (file == nullptr) return createFile();
  auto& folder = pick(2) == 0 ? *file->parent : anyFolder();
  const auto name = newName("f");
  if (folder.children.contains(name)) return;
  const auto from = pathOf(*file);
  moveItem(from, pathOf(folder) + "/" + name);
  tellGone(*file, kRenamed);
  auto taken = take(*file);
  putAt(std::move(taken), folder, name);
  tell(*file, kRenamed);
}

void ModelWorld::replaceFile() {
  auto* file = anyFile(true);
  auto* victim = anyFile(true);
  // The kernel makes nothing of a rename between two names of one file.
  if (file == nullptr || victim == nullptr || file == victim || file->hasTwins || victim->hasTwins) return;
  moveItem(pathOf(*file), pathOf(*victim));
  tellGone(*file, kRenamed);
  auto& folder = *victim->parent;
  const auto name = victim->name;
  take(*victim);
  auto taken = take(*file);
  putAt(std::move(taken), folder, name);
  tell(*file, kRenamed);
}

void ModelWorld::makeOneFolder() {
  auto& parent = anyFolder();
  if (folders_.size() > kManyFolders) return removeFolder();
  const auto name = newName("d");
  if (parent.children.contains(name)) return;
  auto& folder = add(parent, name, Kind::Folder);
  makeFolder(pathOf(folder));
  tell(folder, kCreated | kIsFolder);
  folder.isNew = true;
  ledger_.permitBelow(pathOf(folder));
}

void ModelWorld::makeDeepFolders() {
  auto* parent = &anyFolder();
  if (folders_.size() > kManyFolders) return removeFolder();
  constexpr int kLevels = 3;
  for (int level = 0; level < kLevels; ++level) {
    const auto name = newName("d");
    if (parent->children.contains(name)) return;
    auto& folder = add(*parent, name, Kind::Folder);
    makeFolder(pathOf(folder));
    tell(folder, kCreated | kIsFolder);
    folder.isNew = true;
    ledger_.permitBelow(pathOf(folder));
    parent = &folder;
  }
  createFileIn(*parent);
}

void ModelWorld::removeBelow(Item& folder) {
  while (!folder.children.empty()) {
    auto& child = *folder.children.begin()->second;
    if (child.kind == Kind::Folder) removeBelow(child);
    removeItem(pathOf(child));
    tellGone(child, child.kind == Kind::Folder ? kRemoved | kIsFolder : kRemoved);
    take(child);
  }
}

void ModelWorld::removeFolder() {
  auto* folder = smallFolder();
  if (folder == nullptr) return;
  removeBelow(*folder);
  removeItem(pathOf(*folder));
  tellGone(*folder, kRemoved | kIsFolder);
  take(*folder);
}

void ModelWorld::renameFolder() {
  auto& folder = anyFolder();
  auto& target = anyFolder();
  const auto name = newName("r");
  if (&folder == &watched_ || isWithin(&target, &folder) || target.children.contains(name)) return;
  const auto from = pathOf(folder);
  const auto to = pathOf(target) + "/" + name;
  moveItem(from, to);
  tellGone(folder, kRenamed | kIsFolder);
  // Where the stream cannot know one of the places yet, it sees the folder leave or arrive only, and finds it anew. A folder that moves
  // again and again may have to be looked for.
  const bool unknown = isUnknown(&folder) || isUnknown(&target);
  const bool lost = unknown || ++folder.moves > 1;
  if (lost) ledger_.permitBelow(from);
  auto taken = take(folder);
  putAt(std::move(taken), target, name);
  ledger_.moved(from, to);
  tell(folder, kRenamed | kIsFolder);
  if (unknown) folder.isNew = true;
  if (lost) ledger_.permitBelow(to);
}

void ModelWorld::moveOut() {
  auto* folder = smallFolder();
  if (folder == nullptr || outside_.children.size() > 20) return moveIn();
  const auto name = newName("o");
  if (outside_.children.contains(name)) return;
  const auto from = pathOf(*folder);
  moveItem(from, outsidePath_ + "/" + name);
  tellGone(*folder, kRenamed | kIsFolder);
  ledger_.permitBelow(from);
  ledger_.moved(from, outsidePath_ + "/" + name);
  auto taken = take(*folder);
  putAt(std::move(taken), outside_, name);
}

void ModelWorld::moveIn() {
  if (outside_.children.empty()) return;
  auto place = outside_.children.begin();
  std::advance(place, static_cast<std::ptrdiff_t>(pick(outside_.children.size())));
  auto& item = *place->second;
  auto& target = anyFolder();
  const auto name = newName("i");
  if (target.children.contains(name)) return;
  const auto from = pathOf(item);
  const auto to = pathOf(target) + "/" + name;
  moveItem(from, to);
  ledger_.moved(from, to);
  auto taken = take(item);
  putAt(std::move(taken), target, name);
  tell(item, item.kind == Kind::Folder ? kRenamed | kIsFolder : kRenamed);
  if (item.kind != Kind::Folder) return;
  item.isNew = true;
  ledger_.permitBelow(pathOf(item));
}

void ModelWorld::createOutside() {
  if (outside_.children.size() > 20) return moveIn();
  const auto name = newName("x");
  if (outside_.children.contains(name)) return;
  if (pick(2) == 0) return createFileOutside(name);
  auto& folder = add(outside_, name, Kind::Folder);
  makeFolder(pathOf(folder));
  auto& inner = add(folder, "inner", Kind::Folder);
  makeFolder(pathOf(inner));
  auto& file = add(inner, "file", Kind::File);
  writeOnce(pathOf(file), O_CREAT);
}

void ModelWorld::createFileOutside(const std::string& name) { writeOnce(pathOf(add(outside_, name, Kind::File)), O_CREAT); }

}  // namespace kestrine::test
