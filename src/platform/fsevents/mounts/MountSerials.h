#pragma once

#include <cstdint>
#include <map>

namespace platform::fsevents {

/// The numbers by which the kernel tells mounts apart for as long as it runs, where the ids of /proc/self/mountinfo are given again at once
/// (statmount(2), listmount(2): Linux 6.8 and later, and not in every container). They touch no file system.
///
/// Threads: owned and used by one thread.
class MountSerials {
 public:
  /// Asks anew; only mounts not seen before cost a system call each. False where the kernel does not tell.
  bool read();
  /// Of the mount with this id of mountinfo; 0 when it is not known.
  [[nodiscard]] std::uint64_t of(int id) const;

 private:
  std::map<int, std::uint64_t> byId_;
  std::map<std::uint64_t, int> ids_;
};

}  // namespace platform::fsevents
