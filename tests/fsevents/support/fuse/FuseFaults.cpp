#include "tests/fsevents/support/fuse/FuseFaults.h"

namespace kestrine::test {

void FuseFaults::set(const std::string& operation, const std::string& path, int error) {
  if (error == 0) {
    errors_.erase({operation, path});
  } else {
    errors_[{operation, path}] = error;
  }
}

int FuseFaults::ask(const std::string& operation, const std::string& path) {
  ++asked_[{operation, path}];
  for (const char* kind : {operation.c_str(), "any"}) {
    if (const auto found = errors_.find({kind, path}); found != errors_.end()) return found->second;
  }
  return 0;
}

std::uint64_t FuseFaults::asked(const std::string& operation, const std::string& path) const {
  const auto found = asked_.find({operation, path});
  return found == asked_.end() ? 0 : found->second;
}

}  // namespace kestrine::test
