#include "tests/fsevents/support/TruthJudge.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>

namespace kestrine::test {

namespace {

constexpr std::size_t kFaultsShown = 3;
constexpr std::size_t kLinesShown = 40;
/// What says that a folder itself came, went or moved, with all that is in it: kMount and kUnmount included.
constexpr FSEventStreamEventFlags kWhole = kCreated | kRemoved | kRenamed | 0x40 | 0x80;

constexpr std::array kWhat = {"made", "removed", "moved", "exchanged", "written", "attributes of"};

double milliseconds(std::int64_t time, std::int64_t since) {
  constexpr double kNanoseconds = 1e6;
  return static_cast<double>(time - since) / kNanoseconds;
}

// The last two names of a path, which others are compared with.
std::vector<std::string> lastNames(const std::string& path) {
  std::vector<std::string> names;
  auto end = path.size();
  for (int i = 0; i < 2 && end != std::string::npos && end > 0; ++i) {
    const auto slash = path.rfind('/', end - 1);
    if (slash == std::string::npos) break;
    names.push_back(path.substr(slash + 1, end - slash - 1));
    end = slash;
  }
  return names;
}

}  // namespace

std::string TruthJudge::describe(const TruthRecord& record, std::int64_t time) const {
  const auto place = [&](std::uint32_t folder, const TruthName& name) {
    return fmt::format("{}/{} (in {})", chronicle_.pathAt(folder, record.before), textOf(name), folder);
  };
  auto text = fmt::format("\n  {:+9.3f} worker {} {} {}", milliseconds(record.before, time), record.worker,
                          kWhat.at(static_cast<std::size_t>(record.what)), place(record.folder, record.name));
  if (record.newFolder != 0) text += " -> " + place(record.newFolder, record.newName);
  if (record.item != 0) text += fmt::format(" [folder {}]", record.item);
  return text;
}

void TruthJudge::fault(const std::string& what, const std::string& path, std::int64_t time) {
  if (faults_.size() >= kFaultsShown) return;
  auto text = what;
  const auto names = lastNames(path);
  const auto matters = [&](const std::string_view name) { return std::find(names.begin(), names.end(), name) != names.end(); };
  std::vector<std::string> lines;
  for (const auto& record : records_) {
    const bool isOfFolders = record.item != 0 && record.what != TruthRecord::What::Attributes;
    if (!isOfFolders && !matters(textOf(record.name)) && !matters(textOf(record.newName))) continue;
    constexpr double kNear = 30;
    const bool isNear = std::abs(milliseconds(record.before, time)) < kNear;
    if (isNear || matters(textOf(record.name)) || matters(textOf(record.newName))) lines.push_back(describe(record, time));
  }
  const auto append = [&](const char* title) {
    text += title;
    for (std::size_t i = lines.size() > kLinesShown ? lines.size() - kLinesShown : 0; i < lines.size(); ++i) text += lines[i];
    lines.clear();
  };
  append("\n done (milliseconds from then):");
  for (const auto& event : *events_) {
    const auto told = lastNames(event.event.path);
    if (std::any_of(told.begin(), told.end(), matters))
      lines.push_back(fmt::format("\n  {:+9.3f} {}", milliseconds(event.time, time), describeEvent(event.event).substr(0, 400)));
  }
  append("\n told:");
  faults_.push_back(text);
}

void TruthJudge::hear(const TimedEvent& told, const Rules& rules) {
  const auto& event = told.event;
  const bool isScan = (event.flags & kMustScan) != 0;
  if (isScan) ++scans_;
  if (isScan && !rules.maySayLost) fault("a loss is told that was none: " + describeEvent(event), event.path, told.time);
  const auto path = event.path.substr(std::min(root_.size(), event.path.size()));
  if (!isAtOrBelow(event.path, root_)) return fault("not a path below the watched one: " + describeEvent(event), event.path, told.time);
  if (path.empty()) {
    if (isScan) folders_[TruthWorld::kWatchedNumber] = std::max(folders_[TruthWorld::kWatchedNumber], told.time);
    return;
  }
  if (isAtOrBelow(path, kFlood)) return;
  if (isExcluded(path)) return fault("told though it is excluded: " + describeEvent(event), event.path, told.time);
  const auto meanings = chronicle_.meaningsOf(path, told.time);
  if (meanings.empty()) return fault("a path that never was: " + describeEvent(event), event.path, told.time);
  for (const auto& meaning : meanings) {
    auto& place = places_[meaning.place];
    place = std::max(place, std::min(told.time, meaning.folderUntil));
    if (meaning.item == 0 || (!isScan && (event.flags & kWhole) == 0)) continue;
    auto& folder = folders_[meaning.item];
    folder = std::max(folder, std::min(told.time, meaning.until));
  }
}

bool TruthJudge::isExcluded(const std::string& path) const {
  return std::any_of(excluded_.begin(), excluded_.end(), [&](const std::string& excluded) { return isAtOrBelow(path, excluded); });
}

bool TruthJudge::isCovered(const Place& place, const std::vector<std::uint32_t>& way, std::int64_t time) const {
  const auto found = places_.find(place);
  if (found != places_.end() && found->second >= time) return true;
  return std::any_of(way.begin(), way.end(), [&](std::uint32_t folder) {
    const auto whole = folders_.find(folder);
    return whole != folders_.end() && whole->second >= time;
  });
}

void TruthJudge::check(const TruthRecord& record, std::uint32_t folder, const TruthName& name) {
  const auto way = chronicle_.waysUp(folder, record.before);
  if (way.back() != TruthWorld::kWatchedNumber) return;
  const Place place{folder, std::string(textOf(name))};
  const auto isBrief = [this](std::uint32_t number) { return briefRoots_.contains(number); };
  const bool isMount = record.folder == TruthWorld::kHiddenNumber || record.newFolder == TruthWorld::kHiddenNumber;
  if (isBrief(record.item) || (isMount && brieflyHidden_.contains(record.item))) return;
  if (std::any_of(way.begin(), way.end(), isBrief) || isCovered(place, way, record.before)) return;
  const auto path = chronicle_.pathAt(folder, record.before) + "/" + place.name;
  if (!isExcluded(path)) fault("not covered:" + describe(record, record.before), path, record.before);
}

void TruthJudge::findBriefMounts() {
  using What = TruthRecord::What;
  // A root comes at the time at which what it hides goes, and goes at the time at which that comes.
  std::unordered_map<std::int64_t, std::uint32_t> hiddenAt;
  std::unordered_map<std::uint32_t, std::uint32_t> hiddenBy;
  for (const auto& record : records_) {
    if (record.newFolder == TruthWorld::kHiddenNumber) hiddenAt[record.before] = record.item;
    const auto hidden = hiddenAt.find(record.before);
    if (record.what == What::Made && record.item != 0 && hidden != hiddenAt.end()) hiddenBy[hidden->second] = record.item;
    const auto root = hiddenBy.find(record.item);
    if (record.folder == TruthWorld::kHiddenNumber && root != hiddenBy.end()) {
      brieflyHidden_.insert(record.item);
      briefRoots_.insert(root->second);
    }
  }
}

// All of the window after those before, in the order of time, for whoever looks for the cause of what is wrong with it.
void TruthJudge::dump(const char* file) const {
  std::ofstream out(file, std::ios::app);
  for (const auto& record : records_) out << record.before << describe(record, records_.front().before).substr(1) << "\n";
  for (const auto& told : *events_) out << told.time << " told " << describeEvent(told.event) << "\n";
}

std::vector<std::string> TruthJudge::judge(std::vector<TruthRecord> records, const std::vector<TimedEvent>& events, const Rules& rules) {
  using What = TruthRecord::What;
  std::stable_sort(records.begin(), records.end(), [](const auto& a, const auto& b) { return a.before < b.before; });
  records_ = std::move(records);
  events_ = &events;
  chronicle_.take(records_);
  findBriefMounts();
  if (const char* file = std::getenv("KESTRINE_TRUTH_DUMP"); file != nullptr) dump(file);
  for (const auto& event : events) hear(event, rules);
  for (const auto& record : records_) {
    if (rules.onlyLasting) break;
    const Place place{record.folder, std::string(textOf(record.name))};
    if (record.what == What::Written && !chronicle_.existedAt(place, record.before)) continue;
    check(record, record.folder, record.name);
    if (record.what == What::Moved || record.what == What::Exchanged) check(record, record.newFolder, record.newName);
  }
  chronicle_.settle();
  records_.clear();
  briefRoots_.clear();
  brieflyHidden_.clear();
  places_.clear();
  folders_.clear();
  return std::exchange(faults_, {});
}

}  // namespace kestrine::test
