#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace platform::fsevents {

/// Something that a reader of a stream is told about what is lost: at a path it begins, or nothing is lost there any more.
struct LossNotice {
  bool begins = false;
  std::string path;
  /// What was lost and why, for people. Where a loss ends: of the one that ended.
  std::string reason;
  /// What whoever runs the machine can do about it; empty where nothing is needed.
  std::string remedy;
};

/// The notices that no reader has taken yet, in order. A reader that does not come for a long time finds what began and ended in between
/// left out, so that they stay as few as there are places that are lost. Threads: one at a time.
class LossNotices {
 public:
  /// So many wait before any is left out.
  static constexpr std::size_t kUnabridged = 4096;

  void add(LossNotice notice);
  [[nodiscard]] bool isEmpty() const { return waiting_.empty(); }
  [[nodiscard]] std::vector<LossNotice> take();

 private:
  void abridge();

  std::vector<LossNotice> waiting_;
  std::size_t bound_ = kUnabridged;
};

}  // namespace platform::fsevents
