#pragma once

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/fsevents/support/ModelLedger.h"

namespace kestrine::test {

/// A random workload on nested folders, as fast as the machine does it, with a copy of the tree in memory and a ledger of what must be told
/// of it.
class ModelWorld {
 public:
  /// `watched` and `outside` are empty folders of one file system; `seed` repeats the workload.
  ModelWorld(std::string watched, std::string outside, unsigned seed);
  ~ModelWorld();

  /// Makes `count` random changes.
  void change(int count);
  /// To be called after a flush: the ledger so far, completed by what must be told of the folders that were new.
  const ModelLedger& account();
  /// Begins a new ledger; all folders are known to the stream now.
  void settle();
  /// Every folder of the watched tree.
  [[nodiscard]] std::vector<std::string> folders() const;

 private:
  enum class Kind { File, Link, Folder };
  struct Item {
    Item* parent = nullptr;
    std::string name;
    Kind kind = Kind::File;
    bool isNew = false;       // the stream cannot know this folder yet
    bool wasTouched = false;  // changed inside a folder that is new
    bool hasTwins = false;    // other names of the same file exist or existed
    int moves = 0;
    std::map<std::string, std::unique_ptr<Item>> children = {};
  };
  using Operation = void (ModelWorld::*)();

  [[nodiscard]] std::string pathOf(const Item& item) const;
  [[nodiscard]] bool isWatched(const Item& item) const;
  /// Whether the stream may not have marked this folder yet.
  [[nodiscard]] static bool isUnknown(const Item* folder);
  [[nodiscard]] static bool isWithin(const Item* item, const Item* folder);
  [[nodiscard]] std::size_t pick(std::size_t below) { return random_() % below; }
  /// The lists to pick from, made again when folders came or went.
  void refresh();
  void collect(Item& folder);
  Item& anyFolder();
  /// Null when there is none of that kind.
  Item* anyFile(bool linksToo);
  /// A folder that is not the watched one itself and has at most so many items below; null when none was found.
  Item* smallFolder();
  std::string newName(const char* prefix);

  Item& add(Item& folder, const std::string& name, Kind kind);
  std::unique_ptr<Item> take(Item& item);
  /// Writes a change of an item into the ledger: with its flag, or, in a folder that is new, as something that must be told in the end.
  void tell(Item& item, FSEventStreamEventFlags flag);
  /// The same for a name under which nothing is any more.
  void tellGone(const Item& item, FSEventStreamEventFlags flag);
  void removeBelow(Item& folder);
  void putAt(std::unique_ptr<Item> item, Item& folder, const std::string& name);
  void completeBelow(Item& folder);
  void settleBelow(Item& folder);

  void createFile();
  void createFileIn(Item& folder);
  void createLink();
  void write();
  void chmodFile();
  void chmodFolder();
  void linkFile();
  void removeFile();
  void renameFile();
  void replaceFile();
  void makeOneFolder();
  void makeDeepFolders();
  void removeFolder();
  void renameFolder();
  void moveOut();
  void moveIn();
  void createOutside();
  void createFileOutside(const std::string& name);

  std::string watchedPath_;
  std::string outsidePath_;
  Item watched_;
  Item outside_;
  std::mt19937 random_;
  ModelLedger ledger_;
  int counter_ = 0;
  std::vector<Item*> folders_;
  std::vector<Item*> files_;
  bool stale_ = true;
};

}  // namespace kestrine::test
