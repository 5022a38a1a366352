#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fsevents/polling/FolderTable.h"

namespace platform::fsevents {

/// One look at an open folder: its names by getdents64(2), each item by statx(2), a part at a time. The descriptor must stay open, and
/// nobody else may read from it meanwhile. Threads: as its owner's.
class FolderListing {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Progress { More, Done, Failed };

  FolderListing(int folder, const StampRules& rules) : folder_(folder), rules_(rules) {}

  /// Reads on until the time has come or everything was read; at least a few dozen items.
  [[nodiscard]] Progress read(Clock::time_point end);
  /// Why it Failed: errno. What was read by then says nothing about what is missing.
  [[nodiscard]] int error() const { return error_; }
  /// Of the first item that could not be looked at for another reason than rights; 0 when there was none. Such an item is named only.
  [[nodiscard]] int itemError() const { return itemError_; }
  /// The clock that change times are stamped with, as it was before the first item was looked at and when the table was complete;
  /// nanoseconds.
  [[nodiscard]] std::int64_t began() const { return began_; }
  [[nodiscard]] std::int64_t ended() const { return ended_; }
  /// The largest difference seen between a change time and this kernel's clock, future ones left out: the clock that stamps is no further
  /// behind ours than this.
  [[nodiscard]] std::int64_t offset() const { return offset_; }

  /// The item is to be looked at again when everything else was read: something happened to it meanwhile.
  void lookAgain(std::string_view name) { again_.emplace_back(name); }
  /// Looks again at those, and at what is known of the folder but was not in the list: a list that is read while the folder changes may
  /// leave out what was there all the time. Then the table is complete; to be called once, after Done. False: EOVERFLOW.
  [[nodiscard]] bool finish(const FolderTable& before);
  FolderTable& table() { return table_; }

  static constexpr std::int64_t kNoOffset = INT64_MIN;

 private:
  static constexpr std::size_t kBufferSize = std::size_t{32} << 10U;

  PolledItem look(const char* name, std::uint64_t listedInode, unsigned char type);
  bool append(std::string_view name, PolledItem item);

  int folder_;
  StampRules rules_;
  FolderTable table_;
  std::vector<std::string> again_;
  int error_ = 0;
  int itemError_ = 0;
  std::int64_t began_ = 0;
  std::int64_t ended_ = 0;
  std::int64_t now_ = 0;
  std::int64_t offset_ = kNoOffset;
  std::size_t at_ = 0;
  std::size_t filled_ = 0;
  alignas(8) std::array<char, kBufferSize> buffer_;
};

/// What stands at a name in an open folder, or, with an empty name, the folder itself: absent, or named only where it cannot be looked at
/// (`error`: errno, else 0).
PolledItem lookAt(int folder, const char* name, std::uint64_t listedInode, unsigned char type, int& error);
/// Two stamps further apart than this differ; nanoseconds.
std::int64_t timeStepOf(const StampRules& rules);
/// CLOCK_REALTIME_COARSE in nanoseconds.
std::int64_t stampClock();
/// Whether a change that came right after a look at this time could have left the item as the look showed it.
bool isRecent(const PolledItem& item, std::int64_t lookedAt, const StampRules& rules);

}  // namespace platform::fsevents
