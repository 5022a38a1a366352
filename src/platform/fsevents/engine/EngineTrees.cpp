#include "platform/fsevents/engine/EngineTrees.h"

#include <algorithm>
#include <string>
#include <utility>

#include "platform/fsevents/folders/PathOpener.h"

namespace platform::fsevents {
namespace {

/// How long everything must have been quiet before kernel queues are renewed, and how much longer per folder.
constexpr std::chrono::milliseconds kQuiet(500);
constexpr std::chrono::microseconds kQuietPerFolder(50);
constexpr std::chrono::milliseconds kLongestBackoff(60'000);
/// Until a mount that could not be read is tried again: ever less often.
constexpr std::chrono::seconds kFirstAttachPause(1);
constexpr std::chrono::seconds kLastAttachPause(60);

/// The entry of this tree, or the end.
auto entryOf(auto& entries, const WatchedTree* tree) {
  return std::find_if(entries.begin(), entries.end(), [tree](const auto& entry) { return entry.tree.get() == tree; });
}

}  // namespace

WatchedTree& EngineTrees::add(TreeOptions options) {
  const std::uint32_t number = window_.coalescer().addTree();
  window_.setTree(number, options, kFSEventStreamEventFlagItemIsDir);
  entries_.push_back({number, std::make_unique<WatchedTree>(number, std::move(options), window_.coalescer(), status_)});
  return *entries_.back().tree;
}

void EngineTrees::remove(const WatchedTree& tree) {
  const auto entry = entryOf(entries_, &tree);
  if (entry == entries_.end()) return;
  window_.removeTree(entry->number);
  const HangWatch::Inside inside(watch_, watched_, shownPath(tree.options()));
  entries_.erase(entry);
}

bool EngineTrees::holds(const WatchedTree* tree) const { return entryOf(entries_, tree) != entries_.end(); }

void EngineTrees::clear() {
  while (!entries_.empty()) remove(*entries_.back().tree);
}

WatchedTree::Attached EngineTrees::attach(WatchedTree& tree, FSEventStreamEventFlags report, std::optional<std::uint64_t> since,
                                          int& error) {
  const HangWatch::Inside inside(watch_, watched_, shownPath(tree.options()));
  const WatchedTree::Attached attached = tree.attach(report, since, error);
  if (const auto entry = entryOf(entries_, &tree); entry != entries_.end()) {
    entry->due = Clock::time_point::min();
    window_.setTree(entry->number, tree.options(), tree.rootKind());
  }
  return attached;
}

WatchedTree::Attached EngineTrees::attachMount(WatchedTree& tree, FSEventStreamEventFlags report, std::optional<std::uint64_t> since,
                                               int& error) {
  const WatchedTree::Attached attached = attach(tree, report, since, error);
  if (const auto entry = entryOf(entries_, &tree); entry != entries_.end()) planAttaching(*entry, attached, error);
  return attached;
}

void EngineTrees::planAttaching(Entry& entry, WatchedTree::Attached attached, int error) {
  entry.attachAt.reset();
  // What is gone the table of mounts tells of.
  if (attached == WatchedTree::Attached::Standing || isGone(error)) return;
  entry.attachPause = std::clamp(entry.attachPause * 2, kFirstAttachPause, kLastAttachPause);
  entry.attachAt = Clock::now() + entry.attachPause;
}

void EngineTrees::attachAgain(Entry& entry) {
  int error = 0;
  const WatchedTree::Attached attached = attach(*entry.tree, 0, std::nullopt, error);
  planAttaching(entry, attached, error);
  if (attached != WatchedTree::Attached::Standing) return;
  status_.losses().end(LossKind::QueueLimit, shownPath(entry.tree->options()));
  // What happened in it meanwhile nobody knows.
  entry.tree->reportRoot(kFSEventStreamEventFlagMustScanSubDirs | entry.tree->rootKind());
}

void EngineTrees::relocate(WatchedTree& tree, std::string reportedPath, std::string openPath) {
  tree.relocate(std::move(reportedPath), std::move(openPath));
  if (const auto entry = entryOf(entries_, &tree); entry != entries_.end()) {
    window_.setTree(entry->number, tree.options(), tree.rootKind());
  }
}

void EngineTrees::coverChanged(WatchedTree& tree, const std::string& relative, bool isCovered) {
  const HangWatch::Inside inside(watch_, watched_, shownPath(tree.options()));
  isCovered ? tree.covered(relative) : tree.uncovered(relative);
  if (const auto entry = entryOf(entries_, &tree); entry != entries_.end()) entry->due = Clock::time_point::min();
}

void EngineTrees::forEach(const std::function<void(WatchedTree&)>& visit) const {
  for (const Entry& entry : entries_) visit(*entry.tree);
}

std::uint64_t EngineTrees::seenUpTo(std::uint64_t time) const {
  for (const Entry& entry : entries_) time = entry.tree->seenUpTo(time);
  return time;
}

std::string EngineTrees::firstPath() const { return entries_.empty() ? "/" : shownPath(entries_.front().tree->options()); }

bool EngineTrees::drain() {
  bool any = false;
  for (Entry& entry : entries_) {
    const bool drained = entry.tree->drain();
    entry.drained |= drained;
    any |= drained;
  }
  return any;
}

void EngineTrees::process() {
  for (Entry& entry : entries_) {
    if (entry.attachAt && *entry.attachAt <= Clock::now()) attachAgain(entry);
    // A tree with nothing to do is not asked, so that a wake-up that is not about it looks at no file system.
    const bool isDue = entry.due && *entry.due <= Clock::now();
    if (!isDue && !std::exchange(entry.drained, false) && !entry.tree->hasBacklog()) continue;
    const HangWatch::Inside inside(watch_, watched_, shownPath(entry.tree->options()));
    entry.drained = false;
    entry.due = entry.tree->process();
  }
}

void EngineTrees::processAll() {
  for (Entry& entry : entries_) {
    const HangWatch::Inside inside(watch_, watched_, shownPath(entry.tree->options()));
    entry.tree->processAll();
    // What waits for its time is asked for by the next `process`.
    entry.due = Clock::time_point::min();
  }
}

bool EngineTrees::hasBacklog() const {
  return std::any_of(entries_.begin(), entries_.end(), [](const Entry& entry) { return entry.tree->hasBacklog(); });
}

std::optional<EngineTrees::Clock::time_point> EngineTrees::due() const {
  std::optional<Clock::time_point> first;
  for (const Entry& entry : entries_) {
    for (const auto& due : {entry.due, entry.attachAt}) {
      if (due && (!first || *due < *first)) first = due;
    }
  }
  return first;
}

bool EngineTrees::takeMovedFolders() {
  bool moved = false;
  for (const Entry& entry : entries_) moved |= entry.tree->takeMovedFolders();
  return moved;
}

std::vector<EngineTrees::Covered> EngineTrees::takeCovered() {
  std::vector<Covered> all;
  for (const Entry& entry : entries_) {
    for (std::string& relative : entry.tree->takeCovered()) all.push_back({entry.tree.get(), std::move(relative)});
  }
  return all;
}

void EngineTrees::notQuiet() { tidyAt_ = Clock::now() + kQuiet + status_.foldersMarked.load() * kQuietPerFolder; }

void EngineTrees::tidyIfQuiet() {
  if (!tidyAt_) return;
  const bool needed = std::any_of(entries_.begin(), entries_.end(), [](const Entry& entry) { return entry.tree->needsTidying(); });
  if (!needed) {
    tidyAt_.reset();
    return;
  }
  if (*tidyAt_ > Clock::now()) return;
  tidyAt_.reset();
  for (const Entry& entry : entries_) {
    const HangWatch::Inside inside(watch_, watched_, shownPath(entry.tree->options()));
    entry.tree->tidy();
    if (entry.tree->needsTidying()) tidyAt_ = Clock::now();
  }
  tidyBackoff_ = tidyAt_ ? std::clamp(tidyBackoff_ * 2, kQuiet, kLongestBackoff) : std::chrono::milliseconds(0);
  if (tidyAt_) *tidyAt_ += tidyBackoff_;
}

void EngineTrees::addDescriptors(std::vector<pollfd>& queues) const {
  for (const Entry& entry : entries_) {
    if (const int descriptor = entry.tree->descriptor(); descriptor >= 0) queues.push_back({descriptor, POLLIN, 0});
  }
}

}  // namespace platform::fsevents
