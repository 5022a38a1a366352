#include "tests/fsevents/support/fuse/FuseNodes.h"

#include <linux/fuse.h>

namespace kestrine::test {

namespace {

bool isAt(const std::string& path, const std::string& folder) {
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

}  // namespace

FuseNodes::FuseNodes() : paths_{{FUSE_ROOT_ID, ""}}, last_(FUSE_ROOT_ID) {}

std::uint64_t FuseNodes::numberOf(const std::string& path, const struct statx& facts) {
  if (path.empty()) return FUSE_ROOT_ID;
  const Identity identity{facts.stx_ino, facts.stx_btime.tv_sec, facts.stx_btime.tv_nsec};
  const auto [known, isNew] = numbers_.try_emplace(identity, last_ + 1);
  if (isNew) ++last_;
  paths_[known->second] = path;
  return known->second;
}

const std::string* FuseNodes::pathOf(std::uint64_t number) const {
  const auto found = paths_.find(number);
  return found == paths_.end() ? nullptr : &found->second;
}

void FuseNodes::moved(const std::string& from, const std::string& to) {
  for (auto& [number, path] : paths_) {
    if (number != FUSE_ROOT_ID && isAt(path, from)) path = to + path.substr(from.size());
  }
}

void FuseNodes::exchanged(const std::string& one, const std::string& other) {
  for (auto& [number, path] : paths_) {
    if (number == FUSE_ROOT_ID) continue;
    if (isAt(path, one)) {
      path = other + path.substr(one.size());
    } else if (isAt(path, other)) {
      path = one + path.substr(other.size());
    }
  }
}

}  // namespace kestrine::test
