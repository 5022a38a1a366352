#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kestrine::test {

// Changes of the file system as the tests make them. Each throws std::system_error when the kernel refuses.

void makeFolders(const std::string& path);
void moveItem(const std::string& from, const std::string& to);
void exchangeItems(const std::string& one, const std::string& other);
void removeItem(const std::string& path);
/// With everything in it.
void removeTree(const std::string& path);
void setMode(const std::string& path, mode_t mode);
void makeHardLink(const std::string& existing, const std::string& name);
void makeLink(const std::string& target, const std::string& name);
/// An empty file, or an existing one opened and closed; `text` appended by one write.
void touchFile(const std::string& path);

/// Folders nested beyond what one path may be long, made one from within the other. Returns the path of the innermost.
std::string makeDeepFolders(const std::string& top, const std::vector<std::string>& names);
/// A file in a folder whose path may be longer than PATH_MAX.
void writeDeepFile(const std::string& folder, const std::string& name, const std::string& text);

/// The working directory of the process, changed for a scope.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const std::string& path);
  ~WorkingDirectory();
  WorkingDirectory(const WorkingDirectory&) = delete;
  WorkingDirectory& operator=(const WorkingDirectory&) = delete;

 private:
  std::string before_;
};

}  // namespace kestrine::test
