#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace kestrine::test {

/// What the file system is to answer instead of the truth, and how often it was asked. Threads: one.
class FuseFaults {
 public:
  /// Answers `error` to this operation ("lookup", "getattr", "opendir", "readdir", "open", "create", "write", or "any") on this path; 0
  /// takes it back. "readdirRest" lets the first part of a listing through.
  void set(const std::string& operation, const std::string& path, int error);
  void clear() { errors_.clear(); }

  /// Counts that the operation was asked for, and says which error to answer: 0 for the truth.
  int ask(const std::string& operation, const std::string& path);
  [[nodiscard]] std::uint64_t asked(const std::string& operation, const std::string& path) const;

 private:
  using Place = std::pair<std::string, std::string>;
  std::map<Place, int> errors_;
  std::map<Place, std::uint64_t> asked_;
};

}  // namespace kestrine::test
