#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/fsevents/support/StreamTest.h"

namespace kestrine::test {

/// What a random workload did between two flushes, and the judgement of what a stream told of it.
///
/// The kernel may tell a change under a name that the item's folder had a little earlier (it merges a change into an unread earlier one),
/// so where a folder above an item moved between the flushes, each of the item's names of that time will do. And what happens in a folder
/// that the stream cannot know yet (made or moved in since the last flush) is told as what is found there in the end.
class ModelLedger {
 public:
  /// A change of `path` that must be told with `flag`.
  void demand(const std::string& path, FSEventStreamEventFlags flag);
  /// The same for a change of a folder's own: it may be told under another name that the folder itself had meanwhile.
  void demandOfFolder(const std::string& path, FSEventStreamEventFlags flag);
  /// A change of `path` that may be told.
  void permit(const std::string& path);
  /// A change of something that is now at `path` and must be told in some way.
  void demandSomething(const std::string& path);
  /// A folder has moved: within the watched tree, out of it or into it.
  void moved(const std::string& from, const std::string& to);
  /// What is below `folder` may be told too: the folder is new to the stream.
  void permitBelow(const std::string& folder);
  /// The last event of `path` says nothing about whether it is there: other names of the same file were in play.
  void distrust(const std::string& path) { distrusted_.insert(path); }

  /// What is wrong with `events` as an account of the above, at most some dozens of lines; empty when nothing is.
  [[nodiscard]] std::vector<std::string> faultsOf(const std::vector<FSEvent>& events) const;
  /// Only whether each change is covered, by its path or by a rescan at or above it.
  [[nodiscard]] std::vector<std::string> gapsOf(const std::vector<FSEvent>& events) const;
  void clear();
  [[nodiscard]] std::size_t size() const { return demands_.size(); }

 private:
  struct Entry {
    std::string path;
    std::size_t moves = 0;  // how many moves came before
    FSEventStreamEventFlags flag = 0;
    bool followsItself = false;  // its own moves count, not only those of the folders above it
  };
  struct Account;
  [[nodiscard]] std::vector<std::string> namesOf(const Entry& entry) const;
  [[nodiscard]] std::vector<std::string> namesInListings(const Entry& entry) const;
  [[nodiscard]] bool isPermitted(const std::string& path, const std::set<std::string>& names, const std::set<std::string>& folders) const;
  [[nodiscard]] std::string describeMoves(const Entry& entry) const;
  static std::string describeNamesakes(const Account& account, const std::string& path);
  void findUnmet(const Account& account, std::vector<std::string>& faults) const;
  void findUncalledFor(const std::vector<FSEvent>& events, std::vector<std::string>& faults) const;
  void findWrongEnds(const Account& account, std::vector<std::string>& faults) const;

  std::vector<Entry> demands_;
  std::vector<Entry> permitted_;
  std::vector<Entry> folders_;
  std::vector<std::pair<std::string, std::string>> moves_;
  std::set<std::string> distrusted_;
};

}  // namespace kestrine::test
