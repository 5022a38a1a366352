#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/Process.h"

namespace kestrine::test {

/// A second process that uses preferences: this test program again, told by its environment to do one of the jobs of UserDefaultsHelper.cpp
/// in place of the tests.
struct HelperJob {
  std::string name;
  std::string folder;
  int count = 0;
  /// Gives up root's rights first, when it has them.
  bool unprivileged = false;
};

std::unique_ptr<Process> startHelper(const HelperJob& job);
Outcome runHelper(const HelperJob& job);
/// The command line and environment, for a helper that something else starts.
std::vector<std::string> helperCommand();
std::map<std::string, std::string> helperEnvironment(const HelperJob& job);

/// Hands the folder over to the user that an unprivileged helper becomes, with these permissions.
void giveToUnprivileged(const std::string& folder, unsigned permissions);

/// Has later temporary folders made in memory, where the machine has such a place: for tests about order, which a disk would turn into
/// tests of syncing.
void useMemoryForTemporaryFolders();

/// What is in the folder, sorted.
std::vector<std::string> namesIn(const std::string& folder);

/// How often `piece` stands in `text`.
int occurrences(const std::string& text, const std::string& piece);

/// What the two processes of the store test share, in a file of their folder.
struct SharedRounds {
  int events;
  int covered;
};

}  // namespace kestrine::test
