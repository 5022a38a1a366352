#include "tests/fsevents/support/ModelLedger.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <unordered_map>

namespace kestrine::test {

namespace {

constexpr std::size_t kFaultsShown = 40;

// The kind of what is at `path`; 0 when nothing is.
FSEventStreamEventFlags kindOf(const std::string& path) {
  struct stat facts {};
  if (::lstat(path.c_str(), &facts) != 0) return 0;
  return S_ISDIR(facts.st_mode) ? kIsFolder : S_ISLNK(facts.st_mode) ? kIsLink : kIsFile;
}

// `path` with `from` at its head replaced; empty when it is not below `from` (nor, where that counts, is `from`).
std::string renamed(const std::string& path, const std::string& from, const std::string& to, bool itselfToo) {
  if (!isAtOrBelow(path, from) || (path.size() == from.size() && !itselfToo)) return {};
  return to + path.substr(from.size());
}

bool hasFolderAbove(const std::string& path, const std::set<std::string>& folders) {
  for (auto slash = path.rfind('/'); slash != std::string::npos && slash > 0; slash = path.rfind('/', slash - 1)) {
    if (folders.contains(path.substr(0, slash))) return true;
  }
  return false;
}

// The changes since the last flush in order, for whoever looks for the cause of a fault: KESTRINE_MODEL_TRACE=<file>. One workload at a
// time.
void trace(const std::string& line, bool anew = false) {
  static const char* const kFile = std::getenv("KESTRINE_MODEL_TRACE");
  if (kFile == nullptr) return;
  static auto& stream = *new std::ofstream(kFile);
  if (anew) {
    stream.close();
    stream.open(kFile);
  }
  stream << line << std::endl;
}

void add(std::vector<std::string>& faults, const std::string& fault) {
  if (faults.size() < kFaultsShown) faults.push_back(fault);
}

}  // namespace

/// What was told, by path.
struct ModelLedger::Account {
  std::unordered_map<std::string, FSEventStreamEventFlags> all;
  std::unordered_map<std::string, FSEventStreamEventFlags> last;
  explicit Account(const std::vector<FSEvent>& events) {
    for (const auto& event : events) {
      all[event.path] |= event.flags;
      last[event.path] = event.flags;
    }
  }
};

void ModelLedger::demand(const std::string& path, FSEventStreamEventFlags flag) {
  trace("demand " + describeEvent({path, flag, 0}));
  demands_.push_back({path, moves_.size(), flag, false});
  permit(path);
}

void ModelLedger::demandOfFolder(const std::string& path, FSEventStreamEventFlags flag) {
  trace("demand " + describeEvent({path, flag, 0}));
  demands_.push_back({path, moves_.size(), flag, true});
  permitted_.push_back({path, moves_.size(), 0, true});
}

void ModelLedger::demandSomething(const std::string& path) { demand(path, 0); }

void ModelLedger::permit(const std::string& path) {
  trace("permit " + path);
  permitted_.push_back({path, moves_.size(), 0, false});
}

void ModelLedger::permitBelow(const std::string& folder) { folders_.push_back({folder, moves_.size(), 0, false}); }

void ModelLedger::moved(const std::string& from, const std::string& to) {
  trace("moved " + from + " -> " + to);
  moves_.emplace_back(from, to);
}

void ModelLedger::clear() {
  trace("settled", true);
  demands_.clear();
  permitted_.clear();
  folders_.clear();
  moves_.clear();
  distrusted_.clear();
}

std::vector<std::string> ModelLedger::namesOf(const Entry& entry) const {
  std::vector<std::string> names{entry.path};
  for (auto i = entry.moves; i-- > 0;) {
    if (auto name = renamed(names.back(), moves_[i].second, moves_[i].first, entry.followsItself); !name.empty())
      names.push_back(std::move(name));
  }
  auto current = entry.path;
  for (auto i = entry.moves; i < moves_.size(); ++i) {
    if (auto name = renamed(current, moves_[i].first, moves_[i].second, entry.followsItself); !name.empty()) {
      current = name;
      names.push_back(std::move(name));
    }
  }
  return names;
}

// A listing finds an item where it is by now, below a folder that the stream may still know by a former name: the queue has yet to tell
// that the folder moved on.
std::vector<std::string> ModelLedger::namesInListings(const Entry& entry) const {
  auto names = namesOf(entry);
  for (auto slash = entry.path.rfind('/'); slash != std::string::npos && slash > 0; slash = entry.path.rfind('/', slash - 1)) {
    for (const auto& folder : namesOf({entry.path.substr(0, slash), entry.moves, 0, true}))
      names.push_back(folder + entry.path.substr(slash));
  }
  return names;
}

// The moves that gave an item its other names, and whether they came before or after the change.
std::string ModelLedger::describeMoves(const Entry& entry) const {
  std::string text;
  const auto names = namesOf(entry);
  for (std::size_t i = 0; i < moves_.size(); ++i) {
    const bool matters = std::any_of(names.begin(), names.end(), [&](const auto& name) {
      return isAtOrBelow(name, moves_[i].first) || isAtOrBelow(name, moves_[i].second);
    });
    if (matters) text += std::string("\n    ") + (i < entry.moves ? "before: " : "after: ") + moves_[i].first + " -> " + moves_[i].second;
  }
  return text;
}

// What was told of anything of the same name: for whoever looks for the cause of a fault.
std::string ModelLedger::describeNamesakes(const Account& account, const std::string& path) {
  std::string text;
  const auto last = path.substr(path.rfind('/'));
  for (const auto& [told, flags] : account.all) {
    if (told != path && told.ends_with(last)) text += "\n    namesake: " + describeEvent({told, flags, 0});
  }
  return text;
}

void ModelLedger::findUnmet(const Account& account, std::vector<std::string>& faults) const {
  for (const auto& entry : demands_) {
    FSEventStreamEventFlags flags = 0;
    bool told = false;
    const auto names = entry.flag == 0 ? namesInListings(entry) : namesOf(entry);
    for (const auto& name : names) {
      const auto found = account.all.find(name);
      if (found == account.all.end()) continue;
      told = true;
      flags |= found->second;
    }
    if (told && (flags & entry.flag) == entry.flag) continue;
    add(faults, std::string(told ? "told without the flag " : "not told, with the flag ") + describeEvent({entry.path, entry.flag, 0}) +
                    " but " + describeEvent({entry.path, flags, 0}) + describeMoves(entry) + describeNamesakes(account, entry.path));
  }
}

bool ModelLedger::isPermitted(const std::string& path, const std::set<std::string>& names, const std::set<std::string>& folders) const {
  return names.contains(path) || hasFolderAbove(path, folders);
}

void ModelLedger::findUncalledFor(const std::vector<FSEvent>& events, std::vector<std::string>& faults) const {
  std::set<std::string> names;
  for (const auto& entry : permitted_) {
    for (auto& name : namesOf(entry)) names.insert(std::move(name));
  }
  std::set<std::string> folders;
  for (const auto& entry : folders_) {
    for (auto& name : namesOf(entry)) folders.insert(std::move(name));
  }
  for (const auto& event : events) {
    if (!isPermitted(event.path, names, folders)) add(faults, "not changed: " + describeEvent(event));
    if ((event.flags & (kMustScan | kUserDropped | kKernelDropped)) != 0) add(faults, "a rescan without a loss: " + describeEvent(event));
  }
}

// The last that is told of a path agrees with what became of it.
void ModelLedger::findWrongEnds(const Account& account, std::vector<std::string>& faults) const {
  for (const auto& entry : demands_) {
    if (entry.flag == 0 || distrusted_.contains(entry.path) || namesOf(entry).size() > 1) continue;
    const auto found = account.last.find(entry.path);
    if (found == account.last.end()) continue;
    const auto flags = found->second;
    const auto kind = kindOf(entry.path);
    const bool there = kind != 0;
    const bool toldAway = ((flags & kRemoved) != 0 && (flags & (kCreated | kRenamed)) == 0) || (flags & kind) == 0;
    const bool toldThere = (flags & (kRemoved | kRenamed)) == 0;
    if (there ? toldAway : toldThere)
      add(faults, std::string(there ? "is there" : "is gone") + ", but the last told is " + describeEvent({entry.path, flags, 0}));
  }
}

std::vector<std::string> ModelLedger::faultsOf(const std::vector<FSEvent>& events) const {
  std::vector<std::string> faults;
  for (std::size_t i = 1; i < events.size(); ++i) {
    if (events[i].id <= events[i - 1].id)
      add(faults, "identifiers do not grow: " + describeEvent(events[i - 1]) + ", " + describeEvent(events[i]));
  }
  const Account account(events);
  findUnmet(account, faults);
  findUncalledFor(events, faults);
  findWrongEnds(account, faults);
  return faults;
}

std::vector<std::string> ModelLedger::gapsOf(const std::vector<FSEvent>& events) const {
  std::set<std::string> rescans;
  for (const auto& event : events) {
    if ((event.flags & kMustScan) != 0) rescans.insert(event.path);
  }
  const Account account(events);
  std::vector<std::string> faults;
  for (const auto& entry : demands_) {
    bool covered = false;
    for (const auto& name : namesOf(entry))
      covered = covered || account.all.contains(name) || rescans.contains(name) || hasFolderAbove(name, rescans);
    if (!covered) add(faults, "not covered: " + entry.path);
  }
  return faults;
}

}  // namespace kestrine::test
