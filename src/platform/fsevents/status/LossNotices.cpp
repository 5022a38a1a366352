#include "platform/fsevents/status/LossNotices.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace platform::fsevents {

void LossNotices::add(LossNotice notice) {
  waiting_.push_back(std::move(notice));
  if (waiting_.size() > bound_) abridge();
}

std::vector<LossNotice> LossNotices::take() {
  bound_ = kUnabridged;
  return std::exchange(waiting_, {});
}

void LossNotices::abridge() {
  // Per path the beginnings that still wait for their end: when that comes, the reader need not hear of either.
  std::unordered_map<std::string_view, std::vector<std::size_t>> begun;
  std::vector<bool> isLeftOut(waiting_.size());
  for (std::size_t i = 0; i < waiting_.size(); ++i) {
    std::vector<std::size_t>& open = begun[waiting_[i].path];
    if (waiting_[i].begins) {
      open.push_back(i);
    } else if (!open.empty()) {
      for (const std::size_t one : open) isLeftOut[one] = true;
      isLeftOut[i] = true;
      open.clear();
    }
  }
  std::vector<LossNotice> kept;
  for (std::size_t i = 0; i < waiting_.size(); ++i) {
    if (!isLeftOut[i]) kept.push_back(std::move(waiting_[i]));
  }
  waiting_ = std::move(kept);
  // As many again must come before it is worth another look.
  bound_ = std::max(kUnabridged, 2 * waiting_.size());
}

}  // namespace platform::fsevents
