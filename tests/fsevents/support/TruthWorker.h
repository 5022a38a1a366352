#pragma once

#include <cstddef>
#include <optional>
#include <random>
#include <string>

#include "tests/fsevents/support/TruthWorld.h"

namespace kestrine::test {

/// One of the processes that change the world at random. Lives in a process of its own, forked for it, and never returns there.
class TruthWorker {
 public:
  TruthWorker(TruthWorld& world, std::size_t number, unsigned seed, std::string watched, std::string outside);
  /// Works whenever the world's semaphore says so, until its quota is 0 or a system call fails that must not.
  [[noreturn]] void run();

 private:
  using Slot = std::uint16_t;
  static constexpr Slot kNoSlot = 0xFFFF;
  using Operation = void (TruthWorker::*)();
  struct Held;
  struct HeldAlone;

  // TruthWorker.cpp: choosing, recording, the world's memory.
  void work();
  [[nodiscard]] std::size_t pick(std::size_t below) { return random_() % below; }
  [[nodiscard]] bool oneOf(std::size_t many) { return pick(many) == 0; }
  TruthName anyName();
  [[nodiscard]] std::string pathOf(Slot folder) const;
  [[nodiscard]] std::string pathOf(Slot folder, const TruthName& name) const { return pathOf(folder) + "/" + name.data(); }
  [[nodiscard]] bool isWithin(Slot folder, Slot above) const;
  [[nodiscard]] std::size_t depthOf(Slot folder) const;
  [[nodiscard]] bool isTaken(Slot folder, const TruthName& name) const;
  [[nodiscard]] bool hasFolders(Slot folder) const;
  /// The root of the mounted file system that the folder lies on; kWatched for that of all the rest.
  [[nodiscard]] Slot mountOf(Slot folder) const;
  /// Whether it, or a folder below it, is the root of one.
  [[nodiscard]] bool hasMounts(Slot folder) const;
  [[nodiscard]] bool isCrowded() const;
  /// A folder that is not the watched or the outer one itself, below `above`; and any, those included. kNoSlot when none was found.
  Slot anyFolder(Slot above);
  Slot anyPlace();
  Slot ownPlace();
  Slot add(Slot parent, const TruthName& name);
  TruthItem* freeItem(Slot folder);
  TruthItem* anyItem(Slot folder, bool filesOnly);
  TruthFolder& at(Slot folder) { return world_.folders[folder]; }
  [[nodiscard]] const TruthFolder& at(Slot folder) const { return world_.folders[folder]; }
  TruthRecord& record(TruthRecord::What what, Slot folder, const TruthName& name, std::int64_t before);
  void recordMove(Slot folder, const TruthName& name, Slot newFolder, const TruthName& newName, std::uint32_t item, std::int64_t before);
  void require(bool fine, const char* call, const std::string& path);

  // TruthFiles.cpp: what workers do to the files of their own folders, while others do the same elsewhere.
  void createFile();
  void writeFile();
  void writeTo(int file, std::uint32_t folder, Slot slot, const TruthName& name);
  void changeAttributes();
  void removeFile();
  void renameFile();
  void linkFile();
  void createOther();
  void changeFolderAttributes();

  // TruthFolders.cpp: what changes the paths of others.
  void makeChain();
  void makeChainIn(Slot parent, std::size_t length);
  Slot makeFolderIn(Slot parent, const TruthName& name);
  void fill(Slot folder, std::size_t files);
  void renameFolder();
  void dance();
  void swapFolders();
  void exchangeFolders();
  void replaceFolder();
  void removeTree();
  void recreate();
  void moveOut();
  void moveIn();
  void makeOutside();
  void hideFolder();
  /// Whether the system allows the rename, and the depth. Mounts are not taken along: two queues of the kernel's, which have no order
  /// between them, tell then of what is above a mount point and of what is below it, so that paths of the moment cannot be known.
  [[nodiscard]] bool isMovable(Slot folder, Slot target) const;
  bool move(Slot folder, Slot target, const TruthName& name);
  void removeBelow(Slot folder);
  void removeFolder(Slot folder);

  // TruthMounts.cpp: file systems that come and go, with all that is in them.
  void mountOrUnmount();
  void mountOn(Slot folder);
  void unmount(Slot root);
  void forget(Slot folder);

  TruthWorld& world_;
  std::size_t number_;
  std::mt19937 random_;
  std::string watched_;
  std::string outside_;
};

/// Holds the world together with others; and alone.
struct TruthWorker::Held {
  explicit Held(TruthWorld& world) : world_(world) { ::pthread_rwlock_rdlock(&world.lock); }
  ~Held() { release(); }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  void release() {
    if (isHeld_) ::pthread_rwlock_unlock(&world_.lock);
    isHeld_ = false;
  }

 private:
  TruthWorld& world_;
  bool isHeld_ = true;
};
struct TruthWorker::HeldAlone {
  explicit HeldAlone(TruthWorld& world) : world_(world) { ::pthread_rwlock_wrlock(&world.lock); }
  ~HeldAlone() { ::pthread_rwlock_unlock(&world_.lock); }
  HeldAlone(const HeldAlone&) = delete;
  HeldAlone& operator=(const HeldAlone&) = delete;

 private:
  TruthWorld& world_;
};

}  // namespace kestrine::test
