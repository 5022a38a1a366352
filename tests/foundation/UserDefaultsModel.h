#pragma once

#include <atomic>
#include <string>

#include "tests/foundation/UserDefaultsHelper.h"

namespace kestrine::test {

/// What the processes of the model test share, in a file of their folder: which values were begun to be written, and which of them the
/// store has acknowledged. Whatever happens, a key holds a value that is not older than the last acknowledged one and not newer than the
/// last begun.
///
/// A key's values are the numbers 1, 2, 3...; each fifth stands for its removal. A key is written by one thread only. Two more "keys" are
/// counters that everybody adds to.
struct StoreLedger {
  static constexpr int kProcesses = 4;
  static constexpr int kThreads = 2;
  static constexpr int kKeysEach = 3;
  static constexpr int kKeys = kProcesses * kThreads * kKeysEach;

  struct Account {
    std::atomic<long> begun;
    std::atomic<long> acknowledged;
  };
  Account keys[kKeys];
  /// Added to by `exchange`, and by a foreign writer that takes the lock and edits the file where it stands or replaces it.
  Account exchanged;
  Account edited;

  std::atomic<long> operations;
  std::atomic<long> goal;
  /// Checks of values, and looks at a file that was just being edited, which tell nothing.
  std::atomic<long> checks;
  std::atomic<long> unreadable;
  /// A process that edits in place must not be killed then: it would itself lose what it has taken away.
  std::atomic<int> editing[kProcesses];
  std::atomic<int> faults;
  char fault[1024];
};

/// The ledger in the folder; made when it is not there. Stays mapped.
StoreLedger& storeLedger(const std::string& folder);

/// A process that works at random on the domain "model" until the goal is reached; `count` is its number.
void workOnTheModel(const HelperJob& job);
/// Checks each key and each counter of what is on disk. What is wrong goes into the ledger.
void checkTheModel(const std::string& folder, StoreLedger& ledger);

/// Mounts the image in the folder again and again, has values acknowledged and cuts the file system off without its log; `count` times.
void cutThePower(const HelperJob& job);

}  // namespace kestrine::test
