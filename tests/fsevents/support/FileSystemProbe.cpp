#include "tests/fsevents/support/FileSystemProbe.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <compare>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <thread>

#include "platform/foundation/base/FileHandle.h"
#include "tests/support/TemporaryDirectory.h"

// The C library's headers may be older than these.
#ifndef FAN_REPORT_TARGET_FID
#define FAN_REPORT_TARGET_FID 0x00001000
#endif
#ifndef FAN_RENAME
#define FAN_RENAME 0x10000000
#endif
#ifndef AT_HANDLE_FID
#define AT_HANDLE_FID 0x200
#endif

namespace kestrine::test {

namespace {

namespace fs = std::filesystem;
using platform::FileHandle;
using std::chrono::nanoseconds;

constexpr const char* kYes = "yes";
constexpr const char* kNo = "no";

std::string refused(int error) { return strerrorname_np(error); }

FileHandle openFolder(const std::string& path) { return FileHandle(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); }

FileHandle openFanotify() {
  return FileHandle(::fanotify_init(
      FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_REPORT_DIR_FID | FAN_REPORT_NAME | FAN_REPORT_FID | FAN_REPORT_TARGET_FID,
      O_RDONLY | O_CLOEXEC));
}

/// 0 or errno.
int mark(const FileHandle& queue, const std::string& path) {
  const FileHandle folder = openFolder(path);
  const std::uint64_t mask = FAN_CREATE | FAN_RENAME | FAN_ONDIR | FAN_EVENT_ON_CHILD;
  return ::fanotify_mark(queue.fileDescriptor(), FAN_MARK_ADD | FAN_MARK_ONLYDIR, mask, folder.fileDescriptor(), nullptr) == 0 ? 0 : errno;
}

/// The kinds of records that the next event of this kind has; none when there is no such event.
std::set<int> recordsOfNext(const FileHandle& queue, std::uint64_t bit) {
  std::array<char, 8192> buffer;
  std::set<int> records;
  for (;;) {
    const ssize_t size = ::read(queue.fileDescriptor(), buffer.data(), buffer.size());
    if (size <= 0) return records;
    auto left = static_cast<std::size_t>(size);
    const char* at = buffer.data();
    while (left >= sizeof(fanotify_event_metadata) && records.empty()) {
      fanotify_event_metadata event{};
      std::memcpy(&event, at, sizeof event);
      for (std::size_t place = sizeof event; (event.mask & bit) != 0 && place + sizeof(fanotify_event_info_header) <= event.event_len;) {
        fanotify_event_info_header header{};
        std::memcpy(&header, at + place, sizeof header);
        records.insert(header.info_type);
        place += header.len;
      }
      at += event.event_len;
      left -= event.event_len;
    }
    if (!records.empty()) return records;
  }
}

std::string probeFanotify(const FileHandle& queue, const std::string& folder) {
  if (const int error = mark(queue, folder); error != 0) return refused(error);
  writeFile(folder + "/told-by-fanotify", "");
  return recordsOfNext(queue, FAN_CREATE).empty() ? "marks, but no events" : kYes;
}

std::string probeWholeRenames(const FileHandle& queue, const std::string& from, const std::string& to) {
  if (mark(queue, from) != 0 || mark(queue, to) != 0) return kNo;
  writeFile(from + "/renamed", "");
  fs::rename(from + "/renamed", to + "/renamed too");
  const std::set<int> records = recordsOfNext(queue, FAN_RENAME);
  constexpr int kTarget = FAN_EVENT_INFO_TYPE_FID;
  constexpr int kOldPlace = 10;
  constexpr int kNewPlace = 12;
  if (!records.contains(kOldPlace) || !records.contains(kNewPlace)) return kNo;
  return records.contains(kTarget) ? kYes : "without the item";
}

std::string probeHandles(const std::string& path) {
  const FileHandle folder = openFolder(path);
  union {
    file_handle handle;
    std::array<char, sizeof(file_handle) + MAX_HANDLE_SZ> room;
  } space{};
  int mount = 0;
  int error = 0;
  for (const int flags : {0, AT_HANDLE_FID}) {
    space.handle.handle_bytes = MAX_HANDLE_SZ;
    if (::name_to_handle_at(folder.fileDescriptor(), "", &space.handle, &mount, AT_EMPTY_PATH | flags) == 0) {
      return flags == 0 ? kYes : "to tell apart";
    }
    if (error == 0) error = errno;
  }
  return refused(error);
}

std::string probeInotify(const std::string& folder) {
  const FileHandle queue(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (::inotify_add_watch(queue.fileDescriptor(), folder.c_str(), IN_CREATE) < 0) return refused(errno);
  writeFile(folder + "/told-by-inotify", "");
  std::array<char, 4096> buffer;
  return ::read(queue.fileDescriptor(), buffer.data(), buffer.size()) > 0 ? kYes : "watches, but no events";
}

struct stat factsOf(const std::string& path) {
  struct stat facts {};
  if (::lstat(path.c_str(), &facts) != 0) throw std::runtime_error("lstat " + path + ": " + std::strerror(errno));
  return facts;
}

bool linksTellOfSubfolders(const std::string& folder) {
  std::size_t folders = 0;
  for (const auto& entry : fs::directory_iterator(folder)) folders += entry.is_directory() && !entry.is_symlink() ? 1 : 0;
  return factsOf(folder).st_nlink == folders + 2;
}

std::string probeLinkCounts(const std::string& root, const std::string& folder) {
  bool right = linksTellOfSubfolders(root) && linksTellOfSubfolders(folder);
  for (const char* const name : {"/first", "/second"}) {
    makeFolder(folder + name);
    right = right && linksTellOfSubfolders(folder) && linksTellOfSubfolders(folder + name);
  }
  fs::remove(folder + "/first");
  right = right && linksTellOfSubfolders(folder);
  fs::rename(folder + "/second", folder + "/third");
  return right && linksTellOfSubfolders(folder) ? kYes : kNo;
}

struct Step {
  nanoseconds value;
  const char* text;
};
const std::array<Step, 7> kSteps = {{{nanoseconds(1), "1 ns"},
                                     {nanoseconds(100), "100 ns"},
                                     {std::chrono::microseconds(1), "1 µs"},
                                     {std::chrono::milliseconds(1), "1 ms"},
                                     {std::chrono::milliseconds(10), "10 ms"},
                                     {std::chrono::seconds(1), "1 s"},
                                     {std::chrono::seconds(2), "2 s"}}};

/// The finest step of those to which what was set and what was kept agree.
Step probeTimes(const std::string& folder) {
  const std::string file = folder + "/times";
  writeFile(file, "");
  // An odd second, and no zeros at the end of the fraction.
  const timespec set{1'700'000'001, 987'654'321};
  const std::array<timespec, 2> times = {set, set};
  if (::utimensat(AT_FDCWD, file.c_str(), times.data(), 0) != 0) throw std::runtime_error("utimensat: " + refused(errno));
  const timespec kept = factsOf(file).st_mtim;
  const auto inNanoseconds = [](const timespec& time) { return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec); };
  for (const Step& step : kSteps) {
    if (inNanoseconds(set) / step.value * step.value == inNanoseconds(kept)) return step;
  }
  throw std::runtime_error(fmt::format("a time was kept as {}.{:09}", kept.tv_sec, kept.tv_nsec));
}

std::strong_ordering operator<=>(const timespec& left, const timespec& right) {
  return std::pair(left.tv_sec, left.tv_nsec) <=> std::pair(right.tv_sec, right.tv_nsec);
}

/// Returns when a change made now has another time than the folder has.
void letTimePass(const std::string& folder, const std::string& beside) {
  constexpr std::chrono::seconds kLimit(30);
  const auto until = std::chrono::steady_clock::now() + kLimit;
  const std::string file = beside + "/clock";
  do {
    if (std::chrono::steady_clock::now() > until) throw std::runtime_error("the change times stand still");
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    writeFile(file, "tick");
    appendFile(file, "tick");
  } while ((factsOf(file).st_ctim <=> factsOf(folder).st_ctim) <= 0);
}

bool stampsRename(const std::string& from, const std::string& to, const std::string& beside) {
  letTimePass(from, beside);
  const timespec before = factsOf(from).st_ctim;
  fs::rename(from, to);
  return (factsOf(to).st_ctim <=> before) > 0;
}

std::string probeRenames(const std::string& folder) {
  makeFolder(folder + "/a");
  makeFolder(folder + "/other");
  makeFolder(folder + "/a/below");
  const bool within = stampsRename(folder + "/a", folder + "/b", folder);
  const bool elsewhere = stampsRename(folder + "/b", folder + "/other/b", folder);
  return within && elsewhere ? kYes : kNo;
}

std::string newFolder(const std::string& root, const char* name) {
  makeFolder(root + "/" + name);
  return root + "/" + name;
}

}  // namespace

std::vector<std::string> FileSystemAbilities::cells() const {
  return {fanotify, handles, wholeRenames, inotify, countsLinks, times, stampsRenames};
}

FileSystemAbilities probeFileSystem(const std::string& root, const std::string& former) {
  FileSystemAbilities abilities;
  const FileHandle queue = openFanotify();
  const int formerError = former.empty() ? 0 : mark(queue, former);
  if (formerError != 0) throw std::runtime_error("the first folder cannot be marked: " + refused(formerError));
  abilities.fanotify = queue.isOpen() ? probeFanotify(queue, newFolder(root, "fanotify")) : "no queue";
  abilities.wholeRenames = probeWholeRenames(queue, newFolder(root, "from"), newFolder(root, "to"));
  abilities.handles = probeHandles(newFolder(root, "handles"));
  abilities.inotify = probeInotify(newFolder(root, "inotify"));
  abilities.countsLinks = probeLinkCounts(root, newFolder(root, "links"));
  const Step step = probeTimes(newFolder(root, "times"));
  abilities.times = step.text;
  abilities.timeStep = step.value;
  abilities.stampsRenames = probeRenames(newFolder(root, "renames"));
  return abilities;
}

bool tellsApart(const std::string& folder, nanoseconds step) {
  const std::string file = folder + "/apart";
  // From the beginning of one of its steps on, where two changes are most easily taken for one.
  writeFile(file, "");
  letTimePass(file, folder);
  writeFile(file, "first");
  const timespec first = factsOf(file).st_ctim;
  std::this_thread::sleep_for(step);
  appendFile(file, "second");
  return (factsOf(file).st_ctim <=> first) > 0;
}

}  // namespace kestrine::test
