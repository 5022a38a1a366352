#include "tests/support/TestFolder.h"

#include <linux/magic.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace kestrine::test {

namespace {

constexpr const char* kMemory = "/dev/shm";
// What a whole run has been seen to need at once is a tenth of this.
constexpr unsigned long long kRoom = 1ULL << 30U;
constexpr unsigned long long kFiles = 300000;

unsigned long long availableMemory() {
  std::ifstream file("/proc/meminfo");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("MemAvailable:")) return std::stoull(line.substr(13)) * 1024;
  }
  return 0;
}

/// Programs are copied there and started, which a container's /dev/shm often forbids.
bool memoryIsFit() {
  struct statvfs status {};
  return isInMemory(kMemory) && access(kMemory, R_OK | W_OK | X_OK) == 0 && statvfs(kMemory, &status) == 0 &&
         (status.f_flag & (ST_NOEXEC | ST_RDONLY)) == 0 && static_cast<unsigned long long>(status.f_bavail) * status.f_frsize >= kRoom &&
         (status.f_files == 0 || status.f_favail >= kFiles) && availableMemory() >= 2 * kRoom;
}

std::string absoluteVariable(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr && value[0] == '/' ? value : "";
}

}  // namespace

bool isInMemory(const std::string& path) {
  struct statfs status {};
  return statfs(path.c_str(), &status) == 0 && status.f_type == TMPFS_MAGIC;
}

std::string testFolder() {
  if (std::string given = absoluteVariable("KESTRINE_TEST_FOLDER"); !given.empty()) {
    // Not only for oneself: some tests go on as another user.
    if (mkdir(given.c_str(), 0755) == 0) chmod(given.c_str(), 0755);
    return given;
  }
  if (std::string given = absoluteVariable("TMPDIR"); !given.empty()) return given;
  static const bool inMemory = memoryIsFit();
  return inMemory ? kMemory : "/tmp";
}

const std::string& testFolderPrefix() {
  static const std::string prefix = [] {
    constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz234567";
    std::array<unsigned char, 6> random{};
    if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) std::abort();
    std::string text = "kestrine-";
    for (const unsigned char byte : random) text += kLetters[byte % 32];
    return text + "-";
  }();
  return prefix;
}

}  // namespace kestrine::test
