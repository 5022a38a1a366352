#include "platform/fsevents/status/Losses.h"

#include <algorithm>
#include <utility>

#include "platform/foundation/files/Paths.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/value/Dictionary.h"
#include "platform/fsevents/event/ShownPath.h"

namespace platform::fsevents {
namespace {

/// How many reasons are remembered as said in the log: so many different ones in turn are said again.
constexpr std::size_t kLoggedReasons = 64;

std::string beginningOfBelow(std::string_view path) { return path == "/" ? "/" : std::string(path) + "/"; }

/// The last folder that has both at or below it; "." where that has no name.
std::string above(std::string_view first, std::string_view second) {
  while (!first.empty() && first != "/" && !isAtOrBelowPath(second, first)) {
    const std::size_t slash = first.rfind('/');
    first = slash == std::string_view::npos ? std::string_view() : first.substr(0, std::max<std::size_t>(slash, 1));
  }
  return first.empty() ? "." : std::string(first);
}

/// Takes the places at and below a path out, in their order.
template <class Places>
std::vector<typename Places::node_type> takeAtAndBelow(Places& places, const std::string& path) {
  std::vector<typename Places::node_type> taken;
  if (const auto at = places.find(path); at != places.end()) taken.push_back(places.extract(at));
  const std::string below = beginningOfBelow(path);
  for (auto place = places.upper_bound(below); place != places.end() && place->first.starts_with(below);)
    taken.push_back(places.extract(place++));
  return taken;
}

Object described(const std::string& path, const auto& record, bool lasting) {
  return Dictionary{{"path", path},
                    {"reason", record.reason},
                    {"remedy", record.remedy},
                    {"count", Object::numberWithUnsignedLongLong(record.count)},
                    {"lasting", Object::numberWithBool(lasting)}};
}

}  // namespace

bool Losses::begin(LossKind kind, const std::string& path, const std::string& reason, const std::string& remedy) {
  const std::string& place = shownPath(path);
  bool isNew = false;
  bool isSaid = false;
  {
    const MutexLock lock(mutex_);
    Kind& known = of(kind);
    if (const auto there = known.lasting.find(place); there != known.lasting.end()) {
      ++there->second.count;
    } else if (known.lasting.size() < kNamed) {
      // One that was met here before goes on being counted.
      const auto before = std::ranges::find_if(past_, [&](const Past& past) { return past.path == place && past.record.reason == reason; });
      const std::uint64_t count = before == past_.end() ? 0 : before->record.count;
      if (before != past_.end()) past_.erase(before);
      known.lasting.emplace(place, Record{reason, remedy, count + 1});
      notices_.add({true, place, reason, remedy});
      isNew = true;
    } else {
      isNew = beginAmongRest(known, place, {reason, remedy, 1});
    }
    isSaid = isNewInLog(reason);
    settle();
  }
  if (isSaid) NSLog("FSEventStream: " + reason + " (" + place + ")" + (remedy.empty() ? "" : "; " + remedy));
  return isNew;
}

bool Losses::beginAmongRest(Kind& kind, const std::string& path, Record record) {
  Rest& rest = kind.rest;
  if (!rest.lasts()) {
    // From the start at what stands above the named ones too: where there are so many of them, the next will not be far.
    rest.path = above(above(kind.lasting.begin()->first, kind.lasting.rbegin()->first), path);
    rest.record = {record.reason + " (here and in further folders)", record.remedy, 0};
    notices_.add({true, rest.path, rest.record.reason, rest.record.remedy});
  } else {
    widenRest(rest, path);
  }
  ++rest.record.count;
  if (rest.members.contains(std::hash<std::string>()(path))) return false;
  if (rest.members.size() < kCounted) {
    rest.members.insert(std::hash<std::string>()(path));
  } else {
    rest.isUncounted = true;
  }
  return true;
}

void Losses::widenRest(Rest& rest, const std::string& path) {
  const std::string former = std::exchange(rest.path, above(rest.path, path));
  if (former == rest.path) return;
  notices_.add({true, rest.path, rest.record.reason, rest.record.remedy});
  if (!lastsAt(former)) notices_.add({false, former, rest.record.reason, rest.record.remedy});
}

bool Losses::end(LossKind kind, const std::string& path) {
  if (!any()) return false;
  const std::string& place = shownPath(path);
  const MutexLock lock(mutex_);
  Kind& known = of(kind);
  bool wasLost = false;
  if (auto there = known.lasting.extract(place); !there.empty()) {
    over(place, std::move(there.mapped()));
    wasLost = true;
  }
  if (known.rest.members.erase(std::hash<std::string>()(place)) > 0) {
    if (!known.rest.lasts()) endRest(known);
    wasLost = true;
  }
  settle();
  return wasLost;
}

void Losses::forget(const std::string& path) {
  if (!any()) return;
  const MutexLock lock(mutex_);
  for (Kind& kind : kinds_) endAtAndBelow(kind, shownPath(path));
  settle();
}

void Losses::endAtAndBelow(Kind& kind, const std::string& path) {
  auto places = takeAtAndBelow(kind.lasting, path);
  for (auto& place : places) over(place.key(), std::move(place.mapped()));
  if (kind.rest.lasts() && isAtOrBelowPath(kind.rest.path, path)) endRest(kind);
}

void Losses::endRest(Kind& kind) {
  Rest rest = std::exchange(kind.rest, {});
  over(rest.path, std::move(rest.record));
}

void Losses::over(const std::string& path, Record record) {
  if (!lastsAt(path)) notices_.add({false, path, record.reason, record.remedy});
  const auto same = std::ranges::find_if(past_, [&](const Past& past) { return past.path == path && past.record.reason == record.reason; });
  if (same != past_.end()) {
    same->record.count += record.count;
    return;
  }
  past_.push_back({path, std::move(record)});
  if (past_.size() > kRemembered) past_.pop_front();
}

void Losses::move(const std::string& from, const std::string& to) {
  if (!any()) return;
  const MutexLock lock(mutex_);
  std::map<std::string, Record> left;
  for (Kind& kind : kinds_) {
    for (auto& place : takeAtAndBelow(kind.lasting, from)) {
      left.emplace(place.key(), place.mapped());
      place.key() = to + place.key().substr(from.size());
      notices_.add({true, place.key(), place.mapped().reason, place.mapped().remedy});
      kind.lasting.insert(std::move(place));
    }
    if (!kind.rest.lasts()) continue;
    // Which they are was known by their paths.
    if (isAtOrBelowPath(kind.rest.path, from)) kind.rest.isUncounted = true;
    if (kind.rest.isUncounted || isAtOrBelowPath(from, kind.rest.path)) widenRest(kind.rest, to);
  }
  for (auto& [path, record] : left) {
    if (!lastsAt(path)) notices_.add({false, path, record.reason, record.remedy});
  }
  settle();
}

std::vector<LossNotice> Losses::takeNotices() {
  if (!hasNotices()) return {};
  const MutexLock lock(mutex_);
  hasNotices_.store(false, std::memory_order_relaxed);
  return notices_.take();
}

bool Losses::lastsAt(std::string_view path) const {
  return std::ranges::any_of(
      kinds_, [&](const Kind& kind) { return kind.lasting.contains(path) || (kind.rest.lasts() && kind.rest.path == path); });
}

bool Losses::isNewInLog(const std::string& reason) {
  if (std::ranges::find(logged_, reason) != logged_.end()) return false;
  logged_.push_back(reason);
  if (logged_.size() > kLoggedReasons) logged_.pop_front();
  return true;
}

void Losses::settle() {
  std::size_t lasting = 0;
  for (const Kind& kind : kinds_) lasting += kind.lasting.size() + (kind.rest.lasts() ? 1U : 0U);
  lasting_.store(lasting, std::memory_order_relaxed);
  hasNotices_.store(!notices_.isEmpty(), std::memory_order_release);
}

void Losses::describe(Dictionary& entries) const {
  const MutexLock lock(mutex_);
  Array losses;
  std::size_t notShown = 0;
  for (const Kind& kind : kinds_) {
    if (kind.rest.lasts()) losses.push_back(described(kind.rest.path, kind.rest.record, true));
    for (const auto& [path, record] : kind.lasting) {
      if (losses.size() < kShown) {
        losses.push_back(described(path, record, true));
      } else {
        ++notShown;
      }
    }
  }
  for (const Past& past : past_) losses.push_back(described(past.path, past.record, false));
  Array unreadable;
  for (const auto& [path, record] : kinds_[static_cast<std::size_t>(LossKind::Rights)].lasting) unreadable.emplace_back(path);
  entries["losses"] = std::move(losses);
  entries["unreadable"] = std::move(unreadable);
  if (notShown > 0) entries["lossesNotShown"] = Object::numberWithUnsignedLongLong(notShown);
}

}  // namespace platform::fsevents
