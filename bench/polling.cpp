// bench_polling PATH        what a pass over everything at and below PATH costs, next to the bare walk with statx, and the memory it holds
// Prints one line of JSON. Passes and walks take turns; the medians are told.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "platform/fsevents/polling/PolledRegion.h"

namespace {

using namespace kestrine::bench;
using platform::FileHandle;
using platform::FSEventStreamEventFlags;
using platform::fsevents::NodeId;
using platform::fsevents::PolledRegion;

constexpr int kRounds = 9;
constexpr std::size_t kBufferSize = std::size_t{32} << 10U;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool isDots(const char* name) { return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')); }

/// The names of an open folder's items, each looked at by statx(2) when `looks`; the subfolders among them are appended.
std::size_t walkFolder(int folder, const std::string& path, bool looks, std::vector<std::string>& folders) {
  alignas(dirent64) static std::array<char, kBufferSize> buffer;
  std::size_t items = 0;
  for (ssize_t count = 0; (count = ::getdents64(folder, buffer.data(), buffer.size())) > 0;) {
    for (ssize_t at = 0; at < count;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer.data() + at);
      at += entry->d_reclen;
      if (isDots(entry->d_name)) continue;
      ++items;
      struct statx status {};
      if (looks && ::statx(folder, entry->d_name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_BASIC_STATS, &status) != 0) fail("statx");
      if (entry->d_type == DT_DIR) folders.push_back(path + "/" + entry->d_name);
    }
  }
  return items;
}

/// The folders that a region polls, by their paths; nothing is expected to change.
class Folders final : public PolledRegion::Host {
 public:
  explicit Folders(const std::string& root) : paths_{root} {
    for (std::size_t at = 0; at < paths_.size(); ++at) {
      const FileHandle folder(::open(paths_[at].c_str(), kFolderFlags));
      if (!folder.isOpen()) fail("open");
      items_ += walkFolder(folder.fileDescriptor(), std::string(paths_[at]), false, paths_);
    }
  }
  void addTo(PolledRegion& region) const {
    for (std::size_t at = 0; at < paths_.size(); ++at) {
      const FileHandle folder(::open(paths_[at].c_str(), kFolderFlags));
      if (!region.add(static_cast<NodeId>(at), folder.fileDescriptor(), PolledRegion::Why::OthersWrite)) fail("add");
    }
  }
  [[nodiscard]] double walk() const {
    std::vector<std::string> ignored;
    const double before = processorSeconds();
    for (const std::string& path : paths_) {
      const FileHandle folder(::open(path.c_str(), kFolderFlags));
      if (!folder.isOpen()) fail("open");
      ignored.clear();
      walkFolder(folder.fileDescriptor(), path, true, ignored);
    }
    return processorSeconds() - before;
  }
  [[nodiscard]] std::size_t items() const { return items_; }
  [[nodiscard]] std::size_t folders() const { return paths_.size(); }
  [[nodiscard]] std::size_t told() const { return told_; }

 private:
  FileHandle openFolder(NodeId folder) override { return FileHandle(::open(paths_[folder].c_str(), kFolderFlags)); }
  bool tryMark(NodeId /*folder*/, int /*descriptor*/) override { return false; }
  void left(NodeId /*folder*/) override {}
  void changed(NodeId /*folder*/, std::string_view /*name*/, FSEventStreamEventFlags /*flags*/) override { ++told_; }
  void changedAt(std::string_view /*place*/, std::string_view /*name*/, FSEventStreamEventFlags /*flags*/) override { ++told_; }
  void folderGone(NodeId /*folder*/, std::string_view /*name*/, FSEventStreamEventFlags /*flags*/) override {}
  void folderFound(NodeId /*folder*/, std::string_view /*name*/, FSEventStreamEventFlags /*flags*/) override {}
  void failed(NodeId /*folder*/, int /*error*/) override { fail("a folder"); }
  void recovered(NodeId /*folder*/) override {}

  std::vector<std::string> paths_;
  std::size_t items_ = 0;
  std::size_t told_ = 0;
};

double pass(PolledRegion& region, Folders& folders) {
  const double before = processorSeconds();
  region.hasten();
  const auto due = region.due();
  while (region.due() == due) region.work(folders, std::chrono::milliseconds(20));
  return processorSeconds() - before;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) {
    std::fprintf(stderr, "bench_polling PATH\n");
    return 2;
  }
  Folders folders(arguments[1]);
  static_cast<void>(folders.walk());  // warms the kernel's caches
  const std::size_t before = residentBytes();
  PolledRegion region(std::chrono::nanoseconds(1), false);
  folders.addTo(region);
  const std::size_t bytes = residentBytes() - before;
  usleep(50'000);  // nothing is young enough to be in question
  pass(region, folders);
  usleep(50'000);
  pass(region, folders);
  const std::size_t told = folders.told();
  std::vector<double> passes;
  std::vector<double> walks;
  for (int round = 0; round < kRounds; ++round) {
    passes.push_back(pass(region, folders));
    walks.push_back(folders.walk());
  }
  std::printf("{\"pass\": %.6f, \"walk\": %.6f, \"items\": %zu, \"folders\": %zu, \"bytes\": %zu, \"interval\": %.3f, \"invented\": %zu}\n",
              median(passes), median(walks), folders.items(), folders.folders(), bytes,
              static_cast<double>(region.interval().count()) / 1e3, folders.told() - told);
  return 0;
}
