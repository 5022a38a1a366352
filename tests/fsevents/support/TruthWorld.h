#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

namespace kestrine::test {

/// A short name, as it lies in memory that several processes share.
using TruthName = std::array<char, 12>;
inline std::string_view textOf(const TruthName& name) { return name.data(); }

/// One change that a worker made, with the clock (CLOCK_MONOTONIC, nanoseconds) before and after the system call. Folders are called by
/// numbers that never come again; so the log says what every path meant at every moment.
struct TruthRecord {
  enum class What : std::uint8_t { Made, Removed, Moved, Exchanged, Written, Attributes };
  std::int64_t before = 0;
  std::int64_t after = 0;
  What what = What::Made;
  std::uint8_t worker = 0;
  std::uint32_t folder = 0;
  TruthName name{};
  /// Where it is now, of what was moved or exchanged.
  std::uint32_t newFolder = 0;
  TruthName newName{};
  /// The number of the item itself when it is a folder, otherwise 0; and of what it was exchanged with.
  std::uint32_t item = 0;
  std::uint32_t otherItem = 0;
};

/// An item of a folder that is not a folder.
struct TruthItem {
  enum class Kind : std::uint8_t { None, File, Other };
  Kind kind = Kind::None;
  /// Has or had other names.
  bool isTwin = false;
  TruthName name{};
};

struct TruthFolder {
  static constexpr std::size_t kItems = 14;
  bool isAlive = false;
  /// Only this worker makes, renames and removes files here, unless it holds the world for itself.
  std::uint8_t owner = 0;
  std::uint16_t parent = 0;
  std::uint32_t number = 0;
  TruthName name{};
  /// Of the root of a mounted file system: the folder that it hides, which has its place again afterwards. Otherwise 0.
  std::uint16_t hidden = 0;
  std::array<TruthItem, kItems> items{};
};

/// A tree of folders that several processes work on at once, in memory that they share, exact at every moment.
///
/// The lock is about names: what changes a path of others' items (folders that are made, moved and removed) holds it alone; what a worker
/// does to the files of its own folders shares it. Writing to an open file needs no lock, so files are written while the folders above
/// them move. Everything that was done goes to the worker's log.
struct TruthWorld {
  static constexpr std::size_t kWorkers = 4;
  static constexpr std::size_t kFolders = 160;
  static constexpr std::size_t kRecords = 65536;
  static constexpr std::uint16_t kWatched = 0;
  static constexpr std::uint16_t kOutside = 1;
  /// No folder: what is hidden by mounts is kept here.
  static constexpr std::uint16_t kHidden = 2;
  static constexpr std::uint16_t kFirst = 3;
  static constexpr std::uint32_t kWatchedNumber = 1;
  static constexpr std::uint32_t kOutsideNumber = 2;
  static constexpr std::uint32_t kHiddenNumber = 3;

  pthread_rwlock_t lock{};
  std::array<sem_t, kWorkers> begin{};
  std::array<sem_t, kWorkers> done{};
  /// How many records each worker is to write until it is done; 0 ends it.
  std::array<std::atomic<std::uint32_t>, kWorkers> quota{};
  /// Whether folders lose their rights for moments.
  std::atomic<bool> hides{false};
  /// Whether file systems are mounted and unmounted.
  std::atomic<bool> mounts{false};
  /// Why a worker has ended early.
  std::array<std::array<char, 256>, kWorkers> fault{};

  std::uint32_t lastNumber = 0;
  std::uint32_t alive = 0;
  std::array<TruthFolder, kFolders> folders{};
  std::array<std::atomic<std::uint32_t>, kWorkers> recorded{};
  std::array<std::array<TruthRecord, kRecords>, kWorkers> records{};

  /// In memory of its own, which processes forked afterwards share; throws std::system_error.
  static TruthWorld* make();
  static void destroy(TruthWorld* world);
};

std::int64_t truthClock();

}  // namespace kestrine::test
