#pragma once

#include <string>

namespace kestrine::test {

/// A new empty folder in `testFolder()`, removed with everything in it (unreadable folders and paths beyond PATH_MAX included) when
/// destroyed.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  /// `path()` + "/" + `name`.
  [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// Removes the folder and what is in it as far as the system allows; what is not a folder stays, and so does what is mounted there, with
/// the folders on the way to it.
void removeFolder(const std::string& path);

/// These throw std::runtime_error when the system refuses; reading a file that does not exist is such a refusal.
void writeFile(const std::string& path, const std::string& text);
void appendFile(const std::string& path, const std::string& text);
std::string readFile(const std::string& path);
void makeFolder(const std::string& path);

}  // namespace kestrine::test
