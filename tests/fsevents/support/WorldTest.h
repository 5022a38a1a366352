#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/fsevents/support/StreamTest.h"

namespace kestrine::test {

inline constexpr FSEventStreamEventFlags kMount = 0x40;
inline constexpr FSEventStreamEventFlags kUnmount = 0x80;

/// For what happens to the world under a watch. Mounts only inside `inMountNamespace`.
class WorldTest : public StreamTest {
 protected:
  /// How many events of the path have this flag.
  static std::size_t told(const WatchedStream& stream, const std::string& path, FSEventStreamEventFlags flag);
  /// A change in the folder that is told as what it is; `name` must be new there.
  static testing::AssertionResult isWatched(WatchedStream& stream, const std::string& folder, const std::string& name);
  /// The same where only polling sees changes, which takes its time; `writer` is another way to the same folder.
  static testing::AssertionResult isPolled(WatchedStream& stream, const std::string& folder, const std::string& name,
                                           const std::string& writer = {});
  /// Unmounts what nobody but the stream has anything to do with; empty, or why not. Where the stream has changes to work on (`flushed`: it
  /// has none) it may have a folder open for a moment.
  static std::string tryToUnmount(const std::string& point, bool flushed);
  /// No rescan of anything was asked for so far.
  static testing::AssertionResult nothingIsLost(const WatchedStream& stream);
  /// Entries of a list in the status: the "path" of each where they are dictionaries.
  static std::vector<std::string> listed(WatchedStream& stream, const char* key);
  /// Sets the kernel's limit of marks, or of queues, of the source under test: for a user namespace of the test's own (`inMountNamespace`
  /// with the rights of an ordinary user), in which nothing counts but what is marked in it.
  static void limitMarks(int value);
  static void limitQueues(int value);
  /// Of every source, so that no other can stand in.
  static void limitAllQueues(int value);
  /// Whether the folder has a mark of this process.
  static bool isMarked(const std::string& folder);
  static std::int64_t foldersMarked(WatchedStream& stream) {
    return stream.stream().status().objectForKey("foldersMarked").longLongValue();
  }
};

}  // namespace kestrine::test
