#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <unordered_map>

namespace kestrine::test {

/// The numbers by which the kernel speaks of files, and where each of them is, relative to the folder that is served ("" is that folder).
/// Nothing is ever given up, since a test is short. Threads: one.
class FuseNodes {
 public:
  FuseNodes();
  /// The number of what is at the path at the moment, as these facts know it.
  std::uint64_t numberOf(const std::string& path, const struct statx& facts);
  /// Null for a number that was never given.
  [[nodiscard]] const std::string* pathOf(std::uint64_t number) const;
  /// What was at `from`, with everything below it, is at `to`.
  void moved(const std::string& from, const std::string& to);
  void exchanged(const std::string& one, const std::string& other);

 private:
  /// Inode and time of birth, since some file systems use an inode again at once.
  using Identity = std::tuple<std::uint64_t, std::int64_t, std::uint32_t>;
  std::map<Identity, std::uint64_t> numbers_;
  std::unordered_map<std::uint64_t, std::string> paths_;
  std::uint64_t last_;
};

}  // namespace kestrine::test
