#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/fsevents/source/ChangeSource.h"

#ifndef FAN_RENAME
#define FAN_RENAME 0x10000000
#endif
#ifndef FAN_REPORT_TARGET_FID
#define FAN_REPORT_TARGET_FID 0x00001000
#endif
#ifndef FAN_EVENT_INFO_TYPE_OLD_DFID_NAME
#define FAN_EVENT_INFO_TYPE_OLD_DFID_NAME 10
#define FAN_EVENT_INFO_TYPE_NEW_DFID_NAME 12
#endif
#ifndef AT_HANDLE_FID
#define AT_HANDLE_FID 0x200
#endif

namespace platform::fsevents {
namespace {

constexpr std::uint64_t kFolderMask =
    FAN_CREATE | FAN_DELETE | FAN_RENAME | FAN_MODIFY | FAN_CLOSE_WRITE | FAN_ATTRIB | FAN_ONDIR | FAN_EVENT_ON_CHILD;
constexpr std::uint64_t kFileMask = FAN_MODIFY | FAN_CLOSE_WRITE | FAN_ATTRIB;

struct BitRow {
  std::uint64_t kernel;
  std::uint32_t ours;
};
constexpr BitRow kBits[] = {
    // NOLINT(modernize-avoid-c-arrays): a table
    {FAN_CREATE, RawChange::kCreated},          {FAN_DELETE, RawChange::kRemoved},    {FAN_MODIFY, RawChange::kModified},
    {FAN_CLOSE_WRITE, RawChange::kClosedWrite}, {FAN_ATTRIB, RawChange::kAttributes}, {FAN_RENAME, RawChange::kRenamed},
};

/// Room for a file_handle, whose bytes follow its header.
struct HandleBuffer {
  alignas(file_handle) std::array<char, sizeof(file_handle) + MAX_HANDLE_SZ> bytes;
  file_handle* operator->() { return reinterpret_cast<file_handle*>(bytes.data()); }
};

/// Without limits of its own where the user may have that (CAP_SYS_ADMIN).
FileHandle openQueue(int& error) {
  constexpr unsigned kFlags = FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_REPORT_DFID_NAME | FAN_REPORT_FID | FAN_REPORT_TARGET_FID;
  constexpr unsigned kUnlimited = FAN_UNLIMITED_QUEUE | FAN_UNLIMITED_MARKS;
  FileHandle queue(::fanotify_init(kFlags | kUnlimited, O_RDONLY | O_CLOEXEC | O_LARGEFILE));
  if (!queue.isOpen()) queue = FileHandle(::fanotify_init(kFlags, O_RDONLY | O_CLOEXEC | O_LARGEFILE));
  if (!queue.isOpen()) error = errno;
  return queue;
}

/// Unprivileged fanotify, one mark per folder, paths from our own table of file handles (fanotify(7), name_to_handle_at(2)). Needs
/// Linux 5.17. Its key: one byte for the file system, one for the handle's type, the handle.
class FanotifySource final : public ChangeSource {
 public:
  explicit FanotifySource(FileHandle queue) : ChangeSource(std::move(queue)), self_(::getpid()) {}

  [[nodiscard]] const char* name() const override { return "fanotify"; }
  [[nodiscard]] bool knowsTargets() const override { return true; }
  [[nodiscard]] bool mergesRenames() const override { return true; }
  [[nodiscard]] std::size_t orphans() const override { return orphans_; }
  // A mark is removed through the folder, and only who may open files by their handles (CAP_DAC_READ_SEARCH) can tell where it went; the
  // kernel removes it with the folder.
  void forget(std::string_view key, int onFileSystem) override {
    if (!key.empty() && !unmark(key, onFileSystem)) ++orphans_;
  }

  int keyOf(int folder, KernelKey& key) override {
    key.clear();
    return makeKey(folder, "", AT_EMPTY_PATH, key);
  }

  [[nodiscard]] std::unique_ptr<ChangeSource> renewed() const override {
    int error = 0;
    FileHandle queue = openQueue(error);
    if (!queue.isOpen()) return nullptr;
    auto fresh = std::make_unique<FanotifySource>(std::move(queue));
    fresh->identificationOnly_ = identificationOnly_;
    fresh->fileSystems_ = fileSystems_;
    return fresh;
  }

  int mark(int descriptor, bool isFolder, KernelKey& key) override {
    key.clear();
    if (const int error = makeKey(descriptor, "", AT_EMPTY_PATH, key); error != 0) return error;
    const unsigned flags = isFolder ? FAN_MARK_ADD | FAN_MARK_ONLYDIR : FAN_MARK_ADD;
    if (::fanotify_mark(this->descriptor(), flags, isFolder ? kFolderMask : kFileMask, descriptor, nullptr) != 0) return errno;
    return 0;
  }

  void identify(int parent, const char* name, KernelKey& key) const override {
    key.clear();
    if (const_cast<FanotifySource*>(this)->makeKey(parent, name, 0, key) != 0) key.clear();  // NOLINT: fills a cache of file systems
  }

  void forEachDepartureAhead(const Visitor& visit) const override {
    bool isCurrent = true;
    for (std::string_view bytes : unread()) {
      fanotify_event_metadata event;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by the next line
      for (; readEvent(bytes, event); bytes.remove_prefix(event.event_len)) {
        if (std::exchange(isCurrent, false) || (event.mask & (FAN_RENAME | FAN_DELETE)) == 0 || (event.mask & FAN_ONDIR) == 0) continue;
        RawChange departure;
        KernelKey keys[3];  // NOLINT(modernize-avoid-c-arrays): folder, new folder, target
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): fills a cache of file systems
        const_cast<FanotifySource*>(this)->readRecords(bytes.data() + event.metadata_len, event.event_len - event.metadata_len, departure,
                                                       keys);
        visit(departure);
      }
    }
  }

 protected:
  std::size_t dispatchOne(char* bytes, std::size_t count, const Visitor& visit, std::optional<Clock::time_point>& wait) override {
    static_cast<void>(wait);
    fanotify_event_metadata event;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by the next line
    if (!readEvent({bytes, count}, event)) return count;
    RawChange change;
    for (const BitRow& row : kBits) {
      if ((event.mask & row.kernel) != 0) change.bits |= row.ours;
    }
    if ((event.mask & FAN_Q_OVERFLOW) != 0) change.bits = RawChange::kOverflow;
    change.isDirectory = (event.mask & FAN_ONDIR) != 0;
    change.own = event.pid == self_;
    KernelKey keys[3];  // NOLINT(modernize-avoid-c-arrays): folder, new folder, target
    readRecords(bytes + event.metadata_len, event.event_len - event.metadata_len, change, keys);
    visit(change);
    return event.event_len;
  }

 private:
  static bool readEvent(std::string_view bytes, fanotify_event_metadata& event) {
    if (bytes.size() < sizeof event) return false;
    // Copied: the kernel aligns events to four bytes, the structure wants eight.
    std::memcpy(&event, bytes.data(), sizeof event);
    return event.event_len >= sizeof event && event.event_len <= bytes.size() && event.vers == FANOTIFY_METADATA_VERSION;
  }

  bool unmark(std::string_view key, int onFileSystem) {
    if (onFileSystem < 0 || !mayOpenByHandle_ || identificationOnly_ != 0 || key.size() < 2) return false;
    HandleBuffer handle;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by the next lines
    handle->handle_bytes = static_cast<unsigned>(key.size() - 2);
    handle->handle_type = static_cast<unsigned char>(key[1]);
    key.substr(2).copy(reinterpret_cast<char*>(handle->f_handle), key.size() - 2);
    const FileHandle folder(::open_by_handle_at(onFileSystem, handle.operator->(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK));
    if (!folder.isOpen()) {
      mayOpenByHandle_ = errno != EPERM;
      return errno == ESTALE;  // removed, and its mark with it
    }
    return ::fanotify_mark(descriptor(), FAN_MARK_REMOVE | FAN_MARK_ONLYDIR, kFolderMask, folder.fileDescriptor(), nullptr) == 0 ||
           errno == ENOENT;
  }

  int makeKey(int folder, const char* name, int flags, KernelKey& key) {
    HandleBuffer handle;  // NOLINT(cppcoreguidelines-pro-type-member-init): the kernel fills it
    handle->handle_bytes = MAX_HANDLE_SZ;
    int mountId = 0;
    // overlayfs and ramfs give handles for identification only (Linux 6.5).
    if (::name_to_handle_at(folder, name, handle.operator->(), &mountId, flags | identificationOnly_) != 0) {
      if (errno != EOPNOTSUPP || identificationOnly_ != 0) return errno;
      if (::name_to_handle_at(folder, name, handle.operator->(), &mountId, flags | AT_HANDLE_FID) != 0)
        return errno == EINVAL ? EOPNOTSUPP : errno;
      identificationOnly_ = AT_HANDLE_FID;
    }
    if (mountId != lastMountId_) {
      struct statfs info {};
      const FileHandle opened(name[0] == '\0' ? -1 : ::openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
      if (::fstatfs(opened.isOpen() ? opened.fileDescriptor() : folder, &info) != 0) return errno;
      lastFileSystem_ = fileSystemNumber(&info.f_fsid);
      lastMountId_ = mountId;
    }
    appendKey(lastFileSystem_, *handle.operator->(), key);
    return 0;
  }

  static void appendKey(unsigned char fileSystem, const file_handle& handle, KernelKey& key) {
    const auto type = static_cast<unsigned char>(handle.handle_type);
    key.append(&fileSystem, 1);
    key.append(&type, 1);
    key.append(handle.f_handle, handle.handle_bytes);
  }

  unsigned char fileSystemNumber(const void* fsid) {
    std::uint64_t value = 0;
    static_assert(sizeof value == sizeof(__kernel_fsid_t));
    std::memcpy(&value, fsid, sizeof value);
    for (std::size_t i = 0; i < fileSystems_.size(); ++i) {
      if (fileSystems_[i] == value) return static_cast<unsigned char>(i);
    }
    // More than 255 file systems below one folder share the last number; their handles still differ in all likelihood.
    if (fileSystems_.size() < 255) fileSystems_.push_back(value);
    return static_cast<unsigned char>(fileSystems_.size() - 1);
  }

  void readRecords(const char* record, std::size_t left, RawChange& change, KernelKey* keys) {
    while (left >= sizeof(fanotify_event_info_header)) {
      const auto* header = reinterpret_cast<const fanotify_event_info_header*>(record);
      if (header->len < sizeof *header || header->len > left) return;
      if (header->len >= sizeof(fanotify_event_info_fid) + sizeof(file_handle)) readRecord(record, *header, change, keys);
      record += header->len;
      left -= header->len;
    }
  }

  void readRecord(const char* record, const fanotify_event_info_header& header, RawChange& change, KernelKey* keys) {
    const auto* info = reinterpret_cast<const fanotify_event_info_fid*>(record);
    const auto* handle = reinterpret_cast<const file_handle*>(info->handle);
    const char* after = reinterpret_cast<const char*>(handle->f_handle) + handle->handle_bytes;
    const char* end = record + header.len;
    if (handle->handle_bytes > MAX_HANDLE_SZ || after > end) return;
    const int slot = header.info_type == FAN_EVENT_INFO_TYPE_FID ? 2 : header.info_type == FAN_EVENT_INFO_TYPE_NEW_DFID_NAME ? 1 : 0;
    appendKey(fileSystemNumber(&info->fsid), *handle, keys[slot]);
    std::string_view name(after, ::strnlen(after, static_cast<std::size_t>(end - after)));
    if (name == ".") name = {};
    if (slot == 2) {
      change.target = keys[2].view();
    } else if (slot == 1) {
      change.newFolder = keys[1].view();
      change.newName = name;
    } else {
      change.folder = keys[0].view();
      change.name = name;
    }
  }

  pid_t self_;
  std::size_t orphans_ = 0;
  bool mayOpenByHandle_ = true;
  int identificationOnly_ = 0;
  int lastMountId_ = -1;
  unsigned char lastFileSystem_ = 0;
  std::vector<std::uint64_t> fileSystems_;
};

}  // namespace

std::unique_ptr<ChangeSource> makeFanotifySource(int& error) {
  FileHandle queue = openQueue(error);
  return queue.isOpen() ? std::make_unique<FanotifySource>(std::move(queue)) : nullptr;
}

}  // namespace platform::fsevents
