#include "tests/fsevents/support/KernelMarks.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string_view>

namespace kestrine::test {

namespace fs = std::filesystem;

namespace {

std::string processFolder(pid_t process) { return process == 0 ? "/proc/self" : "/proc/" + std::to_string(process); }

void readMarks(const fs::path& file, std::vector<std::uint64_t>& marks) {
  std::ifstream stream(file);
  std::string line;
  while (std::getline(stream, line)) {
    if (!line.starts_with("inotify wd:") && !line.starts_with("fanotify ino:")) continue;
    constexpr std::string_view kKey = " ino:";
    constexpr int kHexadecimal = 16;
    // "inotify wd:1 ino:4f sdev:…" and "fanotify ino:4f sdev:…"
    marks.push_back(std::stoull(line.substr(line.find(kKey) + kKey.size()), nullptr, kHexadecimal));
  }
}

std::uint64_t inodeOf(const fs::path& path) {
  struct stat facts {};
  return ::stat(path.c_str(), &facts) == 0 ? facts.st_ino : 0;
}

// Folders by inode, each with one path to speak of it.
std::map<std::uint64_t, std::string> foldersOf(const std::vector<std::string>& roots) {
  std::map<std::uint64_t, std::string> folders;
  for (const auto& root : roots) {
    if (!fs::is_directory(root)) continue;
    folders.emplace(inodeOf(root), root);
    for (auto entry = fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied);
         entry != fs::recursive_directory_iterator(); ++entry) {
      if (entry->is_directory() && !entry->is_symlink()) folders.emplace(inodeOf(entry->path()), entry->path().string());
    }
  }
  return folders;
}

// The folders that a change of `roots` themselves may be seen in: every ancestor, of the path as it is spelled and of what it resolves to,
// by inode and by device. Folders of several file systems may have one inode number in common, and a mark does not tell them apart.
std::map<std::uint64_t, std::map<dev_t, std::string>> waysTo(const std::vector<std::string>& roots) {
  std::map<std::uint64_t, std::map<dev_t, std::string>> ways;
  for (const auto& root : roots) {
    for (const auto& start : {fs::absolute(root), fs::weakly_canonical(root)}) {
      for (fs::path path = start;; path = path.parent_path()) {
        struct stat facts {};
        if (::stat(path.c_str(), &facts) == 0) ways[facts.st_ino].emplace(facts.st_dev, path.string());
        if (path == path.parent_path()) break;
      }
    }
  }
  return ways;
}

}  // namespace

std::vector<std::uint64_t> kernelMarks(pid_t process) {
  std::vector<std::uint64_t> marks;
  std::error_code gone;  // descriptors come and go while the folder is read
  for (const auto& entry : fs::directory_iterator(processFolder(process) + "/fdinfo", gone)) readMarks(entry.path(), marks);
  return marks;
}

std::size_t countFolders(const std::vector<std::string>& roots) { return foldersOf(roots).size(); }

std::string differenceOfMarks(const std::vector<std::uint64_t>& marks, const std::vector<std::string>& roots) {
  const auto folders = foldersOf(roots);
  const auto ways = waysTo(roots);
  std::map<std::uint64_t, int> counts;
  for (const auto inode : marks) ++counts[inode];
  std::string difference;
  for (const auto& [inode, path] : folders) {
    if (!counts.contains(inode)) difference += "not marked: " + path + "\n";
  }
  for (const auto& [inode, count] : counts) {
    const bool content = folders.contains(inode);
    const auto way = ways.find(inode);
    const int allowed = (content ? 1 : 0) + (way == ways.end() ? 0 : static_cast<int>(way->second.size()));
    if (count <= allowed) continue;
    const auto name = content ? folders.at(inode) : way != ways.end() ? way->second.begin()->second : "inode " + std::to_string(inode);
    difference += std::to_string(count) + " marks instead of at most " + std::to_string(allowed) + ": " + name + "\n";
  }
  return difference;
}

std::size_t openDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

}  // namespace kestrine::test
