#include "platform/fsevents/folders/PastChanges.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrine::test {
namespace {

using namespace std::chrono_literals;
using platform::FSEventStreamEventFlags;
using platform::fsevents::FileSystemPolicy;
using platform::fsevents::PastChanges;

// The moment of these tests, in milliseconds, and times around it.
constexpr std::uint64_t kMoment = 1'700'000'000'500;
constexpr statx_timestamp kBefore{1'700'000'000, 499'999'999, {}};
constexpr statx_timestamp kAt{1'700'000'000, 500'000'000, {}};
constexpr statx_timestamp kLongBefore{-1, 0, {}};

FileSystemPolicy policy(bool stampsRenames, std::chrono::nanoseconds step) {
  return {platform::fsevents::FileSystemKind::Local, false, stampsRenames, step};
}

struct statx item(unsigned type, statx_timestamp birth, statx_timestamp change, statx_timestamp modification) {
  struct statx info {};
  info.stx_mask = STATX_BASIC_STATS | STATX_BTIME;
  info.stx_mode = static_cast<std::uint16_t>(type | 0644U);
  info.stx_btime = birth;
  info.stx_ctime = change;
  info.stx_mtime = modification;
  return info;
}

constexpr FSEventStreamEventFlags kCreated = 0x100;
constexpr FSEventStreamEventFlags kMode = 0x400;
constexpr FSEventStreamEventFlags kRenamed = 0x800;
constexpr FSEventStreamEventFlags kModified = 0x1000;
constexpr FSEventStreamEventFlags kFile = 0x10000;
constexpr FSEventStreamEventFlags kFolder = 0x20000;
constexpr FSEventStreamEventFlags kLink = 0x40000;

struct Row {
  const char* what;
  struct statx info;
  bool amongChanged;
  FSEventStreamEventFlags expected;
};

TEST(PastChanges, TellsByTheTimesOfAnItem) {
  const PastChanges past(kMoment, 0ns, policy(true, 0ns));
  const Row rows[] = {
      {"untouched", item(S_IFREG, kLongBefore, kBefore, kBefore), false, 0},
      {"untouched among others", item(S_IFREG, kLongBefore, kBefore, kBefore), true, 0},
      {"written at the very moment", item(S_IFREG, kLongBefore, kAt, kAt), false, kModified | kFile},
      {"another mode", item(S_IFREG, kLongBefore, kAt, kBefore), false, kMode | kFile},
      {"renamed, or another mode", item(S_IFREG, kLongBefore, kAt, kBefore), true, kRenamed | kMode | kFile},
      {"new", item(S_IFREG, kAt, kAt, kAt), true, kCreated | kModified | kFile},
      {"new with an old time of writing", item(S_IFREG, kAt, kAt, kBefore), true, kCreated | kFile},
      {"folder with other entries", item(S_IFDIR, kLongBefore, kAt, kAt), false, kModified | kFolder},
      {"folder that came", item(S_IFDIR, kLongBefore, kAt, kBefore), true, kRenamed | kMode | kFolder},
      {"link", item(S_IFLNK, kAt, kAt, kAt), true, kCreated | kModified | kLink},
      {"written, its time set back", item(S_IFREG, kLongBefore, kAt, kLongBefore), false, kMode | kFile},
  };
  for (const Row& row : rows) EXPECT_EQ(past.of(row.info, row.amongChanged), row.expected) << row.what;
}

TEST(PastChanges, TakesWhatMayHaveComeForRenamedWhereRenamesLeaveNoStamp) {
  const PastChanges past(kMoment, 0ns, policy(false, 0ns));
  EXPECT_EQ(past.of(item(S_IFDIR, kLongBefore, kBefore, kBefore), true), kRenamed | kFolder);
  EXPECT_EQ(past.of(item(S_IFDIR, kLongBefore, kBefore, kBefore), false), 0U);
}

TEST(PastChanges, AllowsForSlackAndForCoarseTimes) {
  constexpr statx_timestamp kEarlier{1'699'999'995, 500'000'000, {}};
  const auto info = item(S_IFREG, kLongBefore, kEarlier, kEarlier);
  EXPECT_EQ(PastChanges(kMoment, 4s, policy(true, 0ns)).of(info, false), 0U);
  EXPECT_EQ(PastChanges(kMoment, 5s, policy(true, 0ns)).of(info, false), kModified | kFile);
  EXPECT_EQ(PastChanges(kMoment, 3s, policy(true, 2s)).of(info, false), kModified | kFile);
}

TEST(PastChanges, WithoutATimeOfBirthTellsNothingAsNew) {
  const PastChanges past(kMoment, 0ns, policy(true, 0ns));
  struct statx info = item(S_IFREG, kAt, kAt, kAt);
  info.stx_mask &= ~static_cast<unsigned>(STATX_BTIME);
  EXPECT_EQ(past.of(info, true), kRenamed | kModified | kFile);
}

TEST(PastChanges, SeesEntriesThatCameOrWentByTheFoldersTime) {
  const PastChanges past(kMoment, 0ns, policy(true, 0ns));
  EXPECT_FALSE(past.entriesChanged(item(S_IFDIR, kLongBefore, kAt, kBefore)));
  EXPECT_TRUE(past.entriesChanged(item(S_IFDIR, kLongBefore, kAt, kAt)));
}

}  // namespace
}  // namespace kestrine::test
