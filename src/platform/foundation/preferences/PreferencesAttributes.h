#pragma once

#include <sys/stat.h>

#include <string>
#include <utility>
#include <vector>

namespace platform {

/// What a preferences file keeps when it is replaced: its mode, and where the writer may give them, its owner, group and extended
/// attributes. Of a new file: for its owner only, and when root makes it, the owner is the one of the folder. Threads: a value of one
/// thread.
class PreferencesAttributes {
 public:
  /// Of a file that is not there yet, in the folder.
  explicit PreferencesAttributes(const struct stat& folder);
  /// Of the file that is open.
  explicit PreferencesAttributes(int descriptor);

  /// Gives them to the file that is open. Throws std::system_error.
  void putOn(int descriptor) const;

 private:
  mode_t mode_;
  uid_t owner_;
  gid_t group_;
  std::vector<std::pair<std::string, std::string>> extended_;
};

/// What root makes in the folder of another belongs to that other.
void giveToOwnerOf(const struct stat& folder, int descriptor);

}  // namespace platform
