#include "platform/concurrency/loop/TimerTable.h"

namespace platform {

void TimerTable::arm(ItemSerial item, TimePoint first, Nanoseconds interval) {
  byItem_.emplace(item, first);
  byTime_.emplace(std::pair(first, item), interval);
}

void TimerTable::cancel(ItemSerial item) {
  const auto timer = byItem_.find(item);
  if (timer == byItem_.end()) return;
  byTime_.erase({timer->second, item});
  byItem_.erase(timer);
}

void TimerTable::clear() {
  byTime_.clear();
  byItem_.clear();
}

std::optional<TimerTable::TimePoint> TimerTable::next() const {
  if (byTime_.empty()) return std::nullopt;
  return byTime_.begin()->first.first;
}

std::optional<ItemSerial> TimerTable::takeDue(TimePoint now) {
  if (byTime_.empty() || byTime_.begin()->first.first > now) return std::nullopt;
  auto node = byTime_.extract(byTime_.begin());
  auto& [due, item] = node.key();
  const ItemSerial taken = item;
  if (const auto interval = node.mapped(); interval.count() > 0) {
    due += ((now - due) / interval + 1) * interval;
    byItem_[item] = due;
    byTime_.insert(std::move(node));
  } else {
    byItem_.erase(item);
  }
  return taken;
}

}  // namespace platform
