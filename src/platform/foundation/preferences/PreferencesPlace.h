#pragma once

#include <optional>
#include <string>

#include "platform/foundation/preferences/PreferencesFolder.h"

namespace platform {

/// Where a file really stands that is called `name` in a folder: where the symbolic links end that begin there, whether or not there is a
/// file. What is done by `folder()` and `name()` leaves the links as they are. Threads: a value of one thread; `origin` must outlive it.
class PreferencesPlace {
 public:
  /// `path` is the folder's. Throws std::system_error: ELOOP, ENOENT when the folder that a link leads to is not there, and EACCES when
  /// root would follow a link of somebody else into a folder that is not his.
  PreferencesPlace(const PreferencesFolder& origin, const std::string& path, std::string name);

  [[nodiscard]] const PreferencesFolder& folder() const { return elsewhere_ ? *elsewhere_ : origin_; }
  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] std::string path() const { return path_ + "/" + name_; }

 private:
  const PreferencesFolder& origin_;
  std::optional<PreferencesFolder> elsewhere_;
  std::string path_;
  std::string name_;
};

}  // namespace platform
