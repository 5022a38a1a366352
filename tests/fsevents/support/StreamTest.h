#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/fsevents/support/FileOperations.h"
#include "tests/fsevents/support/KernelMarks.h"
#include "tests/fsevents/support/WatchedStream.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace platform {
inline void PrintTo(FSEventStream::Source source, std::ostream* stream) {
  *stream << (source == FSEventStream::Source::Fanotify ? "fanotify" : "inotify");
}
}  // namespace platform

namespace kestrine::test {

using platform::FSEvent;
using platform::FSEventStream;
using platform::FSEventStreamEventFlags;

// The bits of an event, typed a second time so that a wrong constant in the product is found.
inline constexpr FSEventStreamEventFlags kMustScan = 0x1;
inline constexpr FSEventStreamEventFlags kUserDropped = 0x2;
inline constexpr FSEventStreamEventFlags kKernelDropped = 0x4;
inline constexpr FSEventStreamEventFlags kHistoryDone = 0x10;
inline constexpr FSEventStreamEventFlags kRootChanged = 0x20;
inline constexpr FSEventStreamEventFlags kCreated = 0x100;
inline constexpr FSEventStreamEventFlags kRemoved = 0x200;
inline constexpr FSEventStreamEventFlags kMetadata = 0x400;
inline constexpr FSEventStreamEventFlags kRenamed = 0x800;
inline constexpr FSEventStreamEventFlags kModified = 0x1000;
inline constexpr FSEventStreamEventFlags kIsFile = 0x10000;
inline constexpr FSEventStreamEventFlags kIsFolder = 0x20000;
inline constexpr FSEventStreamEventFlags kIsLink = 0x40000;
inline constexpr FSEventStreamEventFlags kKinds = kIsFile | kIsFolder | kIsLink;
// And those of a stream's creation.
inline constexpr platform::FSEventStreamCreateFlags kNoDefer = 0x2;
inline constexpr platform::FSEventStreamCreateFlags kWatchRoot = 0x4;
inline constexpr platform::FSEventStreamCreateFlags kIgnoreSelf = 0x8;
inline constexpr platform::FSEventStreamCreateFlags kFileEvents = 0x10;

/// "fanotify" or "inotify": the source as `status()` names it.
std::string sourceName(Source source);
/// What the kernel calls the limits of a user's marks and queues of this source, below /proc/sys/user.
std::string markLimitOf(Source source);
std::string queueLimitOf(Source source);
/// Why this machine cannot give `source` to this user (asked from the kernel itself); empty when it can.
std::string whyMissing(Source source);

/// Every test runs once over each source, and fails when the stream took the other. `base_` is an empty folder; `root_`, inside it, is what
/// most tests watch, so that there is an unwatched place beside it on the same file system.
class StreamTest : public testing::TestWithParam<Source> {
 protected:
  void SetUp() override;
  /// A started stream, or a failed test and one that is not started.
  std::unique_ptr<WatchedStream> watch(StreamOptions options);
  /// The same over `root_` alone, per item.
  std::unique_ptr<WatchedStream> watchRoot() { return watch({.paths = {root_}}); }
  [[nodiscard]] std::string in(const std::string& name) const { return root_ + "/" + name; }
  [[nodiscard]] std::string outside(const std::string& name) const { return base_.path() + "/outside/" + name; }
  /// Waits until the kernel's marks are those of the folders below `roots` and no other; says the difference when not.
  static testing::AssertionResult marksAreThoseOf(WatchedStream& stream, const std::vector<std::string>& roots);

  TemporaryDirectory base_;
  std::string root_;
};

/// Makes the suite of a fixture run per source, named "Suite.Test/fanotify" and "Suite.Test/inotify".
#define KESTRINE_PER_SOURCE(Suite) \
  INSTANTIATE_TEST_SUITE_P(, Suite, testing::Values(Source::Fanotify, Source::Inotify), ::kestrine::test::nameOfParameter)
std::string nameOfParameter(const testing::TestParamInfo<Source>& parameter);

}  // namespace kestrine::test
