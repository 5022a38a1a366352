#include "tests/fsevents/support/KernelMarks.h"

#include <sys/stat.h>

#include <algorithm>
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

// Folders by inode and device, each with one path to speak of it. Folders of several file systems may have one inode number in common, and
// a mark does not tell them apart.
using Folders = std::map<std::uint64_t, std::map<dev_t, std::string>>;

void addFolder(const fs::path& path, Folders& folders) {
  struct stat facts {};
  if (::stat(path.c_str(), &facts) == 0) folders[facts.st_ino].emplace(facts.st_dev, path.string());
}

Folders foldersOf(const std::vector<std::string>& roots, const std::vector<std::string>& excluded) {
  Folders folders;
  for (const auto& root : roots) {
    if (!fs::is_directory(root)) continue;
    addFolder(root, folders);
    for (auto entry = fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied);
         entry != fs::recursive_directory_iterator(); ++entry) {
      if (!entry->is_directory() || entry->is_symlink()) continue;
      if (std::find(excluded.begin(), excluded.end(), entry->path().string()) != excluded.end()) {
        entry.disable_recursion_pending();
      } else {
        addFolder(entry->path(), folders);
      }
    }
  }
  return folders;
}

// The folders that a change of `roots` themselves may be seen in: every ancestor, of the path as it is spelled and of what it resolves to.
Folders waysTo(const std::vector<std::string>& roots) {
  Folders ways;
  for (const auto& root : roots) {
    for (const auto& start : {fs::absolute(root), fs::weakly_canonical(root)}) {
      for (fs::path path = start;; path = path.parent_path()) {
        addFolder(path, ways);
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

std::size_t countFolders(const std::vector<std::string>& roots, const std::vector<std::string>& excluded) {
  std::size_t count = 0;
  for (const auto& [inode, paths] : foldersOf(roots, excluded)) count += paths.size();
  return count;
}

std::string differenceOfMarks(const std::vector<std::uint64_t>& marks, const std::vector<std::string>& roots,
                              const std::vector<std::string>& excluded) {
  const auto folders = foldersOf(roots, excluded);
  const auto ways = waysTo(roots);
  std::map<std::uint64_t, std::size_t> counts;
  for (const auto inode : marks) ++counts[inode];
  std::string difference;
  const auto ofInode = [](const Folders& all, std::uint64_t inode) { return all.contains(inode) ? all.at(inode).size() : 0; };
  for (const auto& [inode, paths] : folders) {
    const auto found = counts.find(inode);
    if (found == counts.end() || found->second < paths.size()) difference += "not marked: " + paths.begin()->second + "\n";
  }
  for (const auto& [inode, count] : counts) {
    const auto allowed = ofInode(folders, inode) + ofInode(ways, inode);
    if (count <= allowed) continue;
    const auto name = folders.contains(inode) ? folders.at(inode).begin()->second
                      : ways.contains(inode)  ? ways.at(inode).begin()->second
                                              : "inode " + std::to_string(inode);
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
