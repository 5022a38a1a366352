#pragma once

#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "tests/fsevents/support/StreamProcess.h"
#include "tests/fsevents/support/TruthChronicle.h"

namespace kestrine::test {

/// Holds what was told in one window against what was done in it.
///
/// A change at a time is covered by what was delivered after that time, and only by what named a path which the item, or a folder above it,
/// still had then: whoever reads the disk at each event sees the change. So an event of a folder covers what is in it when it says that
/// the folder itself came, went or moved, or that it is to be scanned.
class TruthJudge {
 public:
  struct Rules {
    /// Losses may be told.
    bool maySayLost = false;
    /// Where folders are compared from time to time, only what became of them can be told.
    bool onlyLasting = false;
  };
  /// A folder in the watched one that the logs know nothing of, for what is to flood the queue.
  static constexpr const char* kFlood = "/flood";
  /// `excluded`: paths below the root ("/a/b") of which nothing may be told and nothing is missed.
  TruthJudge(std::string root, std::vector<std::string> excluded) : root_(std::move(root)), excluded_(std::move(excluded)) {}

  /// What is wrong, with what is needed to look for the cause; at most a few. Ends the window.
  std::vector<std::string> judge(std::vector<TruthRecord> records, const std::vector<TimedEvent>& events, const Rules& rules);

  [[nodiscard]] const TruthChronicle& chronicle() const { return chronicle_; }
  /// How many events asked for a scan so far.
  [[nodiscard]] std::size_t scans() const { return scans_; }

 private:
  using Place = TruthChronicle::Place;
  void hear(const TimedEvent& event, const Rules& rules);
  void check(const TruthRecord& record, std::uint32_t folder, const TruthName& name);
  void findBriefMounts();
  [[nodiscard]] bool isCovered(const Place& place, const std::vector<std::uint32_t>& way, std::int64_t time) const;
  void dump(const char* file) const;
  void fault(const std::string& what, const std::string& path, std::int64_t time);
  [[nodiscard]] std::string describe(const TruthRecord& record, std::int64_t time) const;

  [[nodiscard]] bool isExcluded(const std::string& path) const;

  std::string root_;
  std::vector<std::string> excluded_;
  TruthChronicle chronicle_;
  std::size_t scans_ = 0;

  // Of one window.
  std::vector<TruthRecord> records_;
  /// Roots of file systems that came and went in the window, and what they hid. The kernel tells that the table of mounts has changed, not
  /// how: of one that came and went before anybody read the table nobody can tell, and nothing of it remains.
  std::set<std::uint32_t> briefRoots_;
  std::set<std::uint32_t> brieflyHidden_;
  const std::vector<TimedEvent>* events_ = nullptr;
  /// Until when a place is covered, and everything in a folder.
  std::unordered_map<Place, std::int64_t, TruthChronicle::PlaceHash> places_;
  std::unordered_map<std::uint32_t, std::int64_t> folders_;
  std::vector<std::string> faults_;
};

}  // namespace kestrine::test
