#pragma once

#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

#include "tests/fsevents/support/StreamProcess.h"

namespace kestrine::test {

/// A reader of a stream as applications are: it keeps a copy of what is at each path and looks only where an event sends it. What the copy
/// and the disk differ in when all has been told was missed. Of a file with several names (the workers make it "sticky") only
/// its presence counts, since a write through one name is told under that.
class TruthMirror {
 public:
  /// What is at or below an excluded path is not looked at.
  TruthMirror(std::string root, std::vector<std::string> excluded);
  void follow(const std::vector<TimedEvent>& events);
  /// What differs, a line each; at most some. Empty when nothing does.
  [[nodiscard]] std::vector<std::string> differences() const;
  [[nodiscard]] std::size_t size() const { return copy_.size(); }

 private:
  struct Facts {
    ino_t inode = 0;
    mode_t mode = 0;
    off_t size = 0;
    bool isTwin = false;
    timespec changed{};
  };
  using Copy = std::map<std::string, Facts>;
  static bool look(const std::string& path, Facts& facts);
  void read(const std::string& folder, Copy& copy) const;
  static std::string differ(const Facts& known, const Facts& present);
  void drop(const std::string& path);
  void visit(const std::string& path, bool whole);
  void visitNames(const std::string& folder);

  [[nodiscard]] bool isExcluded(const std::string& path) const;

  std::string root_;
  std::vector<std::string> excluded_;
  /// By path; a folder's content follows it, since '/' is made to sort before every other byte.
  Copy copy_;
};

}  // namespace kestrine::test
