#pragma once

#include <sys/types.h>

#include <array>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/fsevents/support/StreamProcess.h"
#include "tests/fsevents/support/TruthJudge.h"
#include "tests/fsevents/support/TruthMirror.h"
#include "tests/fsevents/support/TruthWorld.h"

namespace kestrine::test {

/// Several processes that change one tree at random, a stream in another process that watches it, and the judgement of what it told.
///
/// Work goes in windows, each as long as chance has it and short enough that no queue of the kernel's can overflow even if nobody reads it.
/// After each the stream is flushed, and what it told is held against what was done, and a copy that follows the events against the disk.
/// Made before the test has threads of its own.
class TruthRun {
 public:
  struct Options {
    std::string folder;
    std::string source;
    /// Lines of shell that run before the stream, in a user namespace of its own.
    std::string inNamespace = {};
    double latency = 0.004;
    /// Below the watched folder: "/a/b".
    std::vector<std::string> exclusions = {};
  };
  explicit TruthRun(Options options);
  ~TruthRun();
  TruthRun(const TruthRun&) = delete;
  TruthRun& operator=(const TruthRun&) = delete;

  /// The number that the workload's choices depend on (not what happens between the processes): KESTRINE_TRUTH_SEED, or by chance.
  [[nodiscard]] unsigned seed() const { return seed_; }
  /// KESTRINE_TRUTH_OPERATIONS, or this.
  static std::size_t operations(std::size_t otherwise);

  /// What is particular about a window.
  struct Window {
    TruthJudge::Rules rules = {};
    /// The stream is stopped until all is done: the kernel merges what it can.
    bool isUnread = false;
    /// Folders are without any rights for moments.
    bool hides = false;
    /// File systems are mounted and unmounted; only in a mount namespace of the test's own.
    bool mounts = false;
    /// Runs while the workers do.
    std::function<void()> meanwhile = {};
  };
  /// One window of at least so many changes. Empty when nothing is wrong with it.
  std::vector<std::string> window(std::size_t changes, const Window& how);
  /// Windows of random length until so many changes were made or something is wrong.
  std::vector<std::string> windows(std::size_t changes, const Window& how);
  /// Does so much that no queue holds what is told of it, unless it may be without limit.
  void flood() const;
  /// Leaves the stream's process without descriptors for a moment.
  void starve();
  /// What is wrong with the marks; waits for them to become right.
  std::string differenceOfAllMarks();
  /// Folders in the watched one that are not excluded.
  [[nodiscard]] std::size_t watchedFolders() const { return countFolders({watched_}, exclusions_); }
  /// Changes that were made, and events that were told of them.
  [[nodiscard]] std::size_t done() const { return done_; }
  [[nodiscard]] std::size_t told() const { return told_; }
  [[nodiscard]] std::size_t scans() const { return judge_.scans(); }
  [[nodiscard]] StreamProcess& process() { return *process_; }
  [[nodiscard]] std::string watched() const { return watched_; }
  [[nodiscard]] std::string outer() const { return outside_; }
  [[nodiscard]] std::mt19937& random() { return random_; }

  static constexpr std::size_t kLongestWindow = 4000;

 private:
  void startWorkers();
  void endWorkers();
  std::string waitForWorkers();
  std::vector<TruthRecord> takeRecords();

  unsigned seed_;
  std::mt19937 random_;
  std::string watched_;
  std::string outside_;
  /// As whole paths.
  std::vector<std::string> exclusions_;
  TruthWorld* world_;
  std::array<pid_t, TruthWorld::kWorkers> workers_{};
  std::unique_ptr<StreamProcess> process_;
  TruthJudge judge_;
  std::unique_ptr<TruthMirror> mirror_;
  std::size_t done_ = 0;
  std::size_t told_ = 0;
};

}  // namespace kestrine::test
