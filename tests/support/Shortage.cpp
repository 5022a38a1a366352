#include "tests/support/Shortage.h"

#include <dirent.h>
#include <sys/resource.h>
#include <sys/statvfs.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>

#include "platform/foundation/base/SystemError.h"
#include "tests/support/TestFolder.h"

namespace kestrine::test {

namespace {

constexpr unsigned long long kMegabyte = 1ULL << 20U;
// Below these a test that needs a little more fails for no fault of the code's.
constexpr unsigned long long kLeastRoom = 4 * kMegabyte;
constexpr unsigned long long kLeastFiles = 100;
constexpr unsigned long long kLeastMemory = 100 * kMegabyte;
constexpr unsigned long long kLeastDescriptors = 3;

std::string megabytes(unsigned long long bytes) { return std::to_string(bytes / kMegabyte) + " MiB"; }

std::optional<unsigned long long> availableMemory() {
  std::ifstream file("/proc/meminfo");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("MemAvailable:")) return std::stoull(line.substr(13)) * 1024;
  }
  return std::nullopt;
}

/// Descriptors of this process; none when there is none left to count them with.
std::optional<unsigned long long> openDescriptors() {
  DIR* const folder = opendir("/proc/self/fd");
  if (folder == nullptr) return std::nullopt;
  unsigned long long count = 0;
  while (readdir(folder) != nullptr) ++count;
  closedir(folder);
  // Without ".", ".." and the one that it was read with.
  return count - 3;
}

void append(std::string& text, const std::string& what) { text += (text.empty() ? "" : "; ") + what; }

void lookAtRoom(const std::string& folder, std::string& text) {
  struct statvfs status {};
  if (statvfs(folder.c_str(), &status) != 0) return;
  const unsigned long long room = static_cast<unsigned long long>(status.f_bavail) * status.f_frsize;
  if (room < kLeastRoom) append(text, "disk space (" + megabytes(room) + " left in " + folder + ")");
  // A file system without a limit says that it has none at all.
  if (status.f_files != 0 && status.f_favail < kLeastFiles) {
    append(text, "files (" + std::to_string(status.f_favail) + " left in " + folder + ")");
  }
}

void lookAtDescriptors(std::string& text) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    const auto open = openDescriptors();
    if (!open || *open + kLeastDescriptors > limit.rlim_cur) {
      append(text, "descriptors (the process may have " + std::to_string(limit.rlim_cur) + ")");
    }
  }
  std::ifstream file("/proc/sys/fs/file-nr");
  unsigned long long used = 0;
  unsigned long long unused = 0;
  unsigned long long most = 0;
  if (file >> used >> unused >> most && used >= most - most / 50) {
    append(text, "open files (" + std::to_string(used) + " of " + std::to_string(most) + " on the whole machine)");
  }
}

}  // namespace

std::optional<std::string> shortageOf(const std::string& folder) {
  std::string text;
  lookAtRoom(folder, text);
  lookAtDescriptors(text);
  if (const auto memory = availableMemory(); memory && *memory < kLeastMemory) {
    append(text, "memory (" + megabytes(*memory) + " left)");
  }
  if (text.empty()) return std::nullopt;
  return text;
}

std::optional<std::string> shortageIn(const std::string& failure) {
  struct Sign {
    std::string words;
    const char* what;
  };
  const std::array<Sign, 6> signs = {{{platform::errnoText(ENOSPC), "disk space"},
                                      {platform::errnoText(EDQUOT), "disk space"},
                                      {platform::errnoText(ENFILE), "open files"},
                                      {platform::errnoText(EMFILE), "descriptors"},
                                      {platform::errnoText(ENOMEM), "memory"},
                                      {"std::bad_alloc", "memory"}}};
  for (const Sign& sign : signs) {
    if (failure.find(sign.words) != std::string::npos) return std::string(sign.what) + " (the failure says \"" + sign.words + "\")";
  }
  return std::nullopt;
}

void ShortageListener::OnTestStart(const testing::TestInfo&) { shortage_.reset(); }

void ShortageListener::OnTestPartResult(const testing::TestPartResult& result) {
  if (!result.failed() || shortage_) return;
  shortage_ = shortageOf(testFolder());
  if (!shortage_) shortage_ = shortageIn(result.message());
}

void ShortageListener::OnTestEnd(const testing::TestInfo&) {
  if (!shortage_) return;
  std::printf("the machine ran short of %s\n", shortage_->c_str());
  std::fflush(stdout);
}

}  // namespace kestrine::test
