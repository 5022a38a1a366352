#include "tests/fsevents/support/TruthMirror.h"

#include <dirent.h>
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <set>
#include <utility>

namespace kestrine::test {

namespace {

constexpr std::size_t kLinesShown = 12;
constexpr FSEventStreamEventFlags kWhole = kMustScan | kCreated | kRemoved | kRenamed | 0x40 | 0x80;

}  // namespace

TruthMirror::TruthMirror(std::string root, std::vector<std::string> excluded) : root_(std::move(root)), excluded_(std::move(excluded)) {
  visit(root_, true);
}

bool TruthMirror::isExcluded(const std::string& path) const {
  return std::find(excluded_.begin(), excluded_.end(), path) != excluded_.end();
}

bool TruthMirror::look(const std::string& path, Facts& facts) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return false;
  const bool isFolder = S_ISDIR(info.st_mode);
  facts = {info.st_ino, info.st_mode, isFolder ? 0 : info.st_size, !isFolder && (info.st_mode & S_ISVTX) != 0,
           isFolder ? timespec{} : info.st_mtim};
  return true;
}

void TruthMirror::read(const std::string& folder, Copy& copy) const {
  const std::unique_ptr<DIR, int (*)(DIR*)> open(::opendir(folder.c_str()), ::closedir);
  if (!open) return;
  while (const auto* entry = ::readdir(open.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const auto path = folder + "/" + name;
    Facts facts;
    if (isExcluded(path) || !look(path, facts)) continue;
    copy.insert_or_assign(path, facts);
    if (S_ISDIR(facts.mode)) read(path, copy);
  }
}

void TruthMirror::drop(const std::string& path) {
  copy_.erase(path);
  // What is below it lies between these two, since '0' follows '/'.
  copy_.erase(copy_.lower_bound(path + "/"), copy_.lower_bound(path + "0"));
}

void TruthMirror::visit(const std::string& path, bool whole) {
  Facts facts;
  if (!look(path, facts)) return drop(path);
  const auto known = copy_.find(path);
  const bool isSame = known != copy_.end() && known->second.inode == facts.inode;
  if (!isSame || whole || !S_ISDIR(facts.mode)) drop(path);
  copy_.insert_or_assign(path, facts);
  if (S_ISDIR(facts.mode) && (!isSame || whole)) read(path, copy_);
}

void TruthMirror::visitNames(const std::string& folder) {
  const auto known = copy_.find(folder);
  if (known == copy_.end() || !S_ISDIR(known->second.mode)) return;
  std::set<std::string> paths;
  const std::string below = folder + "/";
  for (auto item = copy_.lower_bound(below); item != copy_.end() && item->first.starts_with(below); ++item) {
    if (item->first.find('/', below.size()) == std::string::npos) paths.insert(item->first);
  }
  const std::unique_ptr<DIR, int (*)(DIR*)> open(::opendir(folder.c_str()), ::closedir);
  while (const auto* entry = open ? ::readdir(open.get()) : nullptr) {
    const std::string name = entry->d_name;
    // What was known there before is told of by itself.
    if (name == "." || name == ".." || isExcluded(below + name)) continue;
    if (paths.erase(below + name) == 0) visit(below + name, true);
  }
  for (const auto& gone : paths) drop(gone);
}

void TruthMirror::follow(const std::vector<TimedEvent>& events) {
  // All of it lies before now, so one look at each will do.
  std::map<std::string, FSEventStreamEventFlags> told;
  for (const auto& event : events) told[event.event.path] |= event.event.flags;
  for (const auto& [path, flags] : told) {
    // What the copy does not know the folder of, is told with that folder. Nor is a link followed that has come in a folder's place.
    const auto above = copy_.find(path.substr(0, path.rfind('/')));
    if (path != root_ && (above == copy_.end() || !S_ISDIR(above->second.mode))) continue;
    visit(path, (flags & kWhole) != 0);
    // Of a folder it says that names came or went, which only their absence shows (what is told of the past, after marks were made anew).
    if ((flags & (kModified | kIsFolder)) == (kModified | kIsFolder)) visitNames(path);
  }
}

std::string TruthMirror::differ(const Facts& known, const Facts& present) {
  if (known.inode != present.inode) return "is another item";
  if (known.isTwin || present.isTwin) return {};
  if (known.mode != present.mode) return fmt::format("has mode {:o}, not {:o}", present.mode, known.mode);
  if (known.size != present.size) return fmt::format("has {} bytes, not {}", present.size, known.size);
  if (known.changed.tv_sec != present.changed.tv_sec || known.changed.tv_nsec != present.changed.tv_nsec) return "was written";
  return {};
}

std::vector<std::string> TruthMirror::differences() const {
  Copy present;
  Facts facts;
  if (look(root_, facts)) present.emplace(root_, facts);
  read(root_, present);
  std::vector<std::string> lines;
  for (const auto& [path, was] : copy_) {
    const auto is = present.find(path);
    const auto difference = is == present.end() ? "is gone" : differ(was, is->second);
    if (!difference.empty() && lines.size() < kLinesShown) lines.push_back(path + " " + difference + ", which nothing told");
  }
  for (const auto& [path, is] : present) {
    if (!copy_.contains(path) && lines.size() < kLinesShown) lines.push_back(path + " is there, which nothing told");
  }
  return lines;
}

}  // namespace kestrine::test
