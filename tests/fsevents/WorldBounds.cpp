#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <fstream>
#include <mutex>

#include "platform/concurrency/thread/LoopThread.h"
#include "tests/fsevents/support/WorldTest.h"

// What the stream keeps while nobody takes it is bounded, in bytes, and each watched path has a bound of its own.

namespace kestrine::test {
namespace {

/// Holds up the handler until it is let go.
class Gate {
 public:
  void pass() {
    std::unique_lock lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  void awaitSomebody() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [this] { return waiting_ > 0; });
  }
  void open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int waiting_ = 0;
  bool open_ = false;
};

class WorldBounds : public WorldTest {
 protected:
  // Renames one file to ever new names, each as long as a name may be, until the stream says that it has given up something.
  static bool stormIn(const std::string& folder, WatchedStream& stream) {
    constexpr int kMost = 3'000'000;
    constexpr std::size_t kLength = 200;
    std::string now = folder + "/" + std::string(kLength, 'x');
    touchFile(now);
    for (int i = 0; i < kMost; ++i) {
      std::string next = std::to_string(i);
      next = folder + "/" + std::string(kLength - next.size(), 'x') + next;
      moveItem(now, next);
      now = std::move(next);
      if (i % 10'000 == 0 && stream.stream().status().objectForKey("losses").count() > 0) return true;
    }
    return false;
  }
  static std::size_t memoryOfKind(const std::string& kind) {
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with(kind)) return std::stoull(line.substr(kind.size() + 1)) * 1024;
    }
    return 0;
  }
  static std::size_t memoryNow() { return memoryOfKind("VmRSS"); }
  static std::size_t mostMemory() { return memoryOfKind("VmHWM"); }
  // proc(5): from now on the most that was in use is counted anew.
  static void forgetMostMemory() { std::ofstream("/proc/self/clear_refs") << 5 << std::flush; }
};
KESTRINE_PER_SOURCE(WorldBounds);

TEST_P(WorldBounds, OfOneWatchedPathLeaveTheOthersAlone) {
  const auto other = base_ / "other";
  const auto leaving = base_ / "leaving";
  for (const auto& folder : {other, leaving}) makeFolders(folder + "/sub");
  Gate gate;
  const auto stream =
      watch({.paths = {root_, other, leaving}, .flags = kFileEvents | kWatchRoot, .onDelivery = [&gate](FSEventStream&) { gate.pass(); }});
  writeFile(in("first"), "text");
  gate.awaitSomebody();
  // Now everything that happens is kept.
  writeFile(other + "/sub/kept", "text");
  moveItem(leaving, outside("left"));
  const bool gaveUp = stormIn(root_, *stream);
  writeFile(other + "/sub/kept-too", "text");
  gate.open();
  EXPECT_TRUE(gaveUp) << "no bound";
  // On a slow machine the kernel's queue may be full before the stream's own bound is.
  EXPECT_TRUE(stream->waitUntil([&](const std::vector<FSEvent>& events) {
    return std::any_of(events.begin(), events.end(), [&](const FSEvent& event) {
      return event.path == root_ && (event.flags & kMustScan) != 0 && (event.flags & (kUserDropped | kKernelDropped)) != 0;
    });
  })) << stream->describe();
  stream->flush();
  EXPECT_NE(stream->flagsOf(other + "/sub/kept") & kCreated, 0U);
  EXPECT_NE(stream->flagsOf(other + "/sub/kept-too") & kCreated, 0U);
  EXPECT_NE(stream->flagsOf(leaving) & kRootChanged, 0U);
  EXPECT_EQ(stream->flagsOf(other) & (kMustScan | kUserDropped), 0U);
  EXPECT_EQ(stream->flagsOf(leaving) & (kMustScan | kUserDropped), 0U);
  EXPECT_TRUE(isWatched(*stream, root_, "after"));
}

TEST_P(WorldBounds, OfMemoryHoldForFilesThatMoveInByTheHundredThousand) {
  // Names of one file cost the disk less than files and the stream as much.
  const int count = longOrShort(600'000, 100'000);
  constexpr int kFolders = 20;
  constexpr std::size_t kLength = 200;
  makeFolders(outside("many"));
  for (int i = 0; i < count; ++i) {
    // A file may not have any number of names everywhere.
    constexpr int kNames = 50'000;
    const auto file = outside("many/file" + std::to_string(i / kNames));
    if (i % kNames == 0) touchFile(file);
    const auto folder = outside("many/" + std::to_string(i % kFolders));
    if (i < kFolders) makeFolder(folder);
    const auto name = std::to_string(i);
    makeHardLink(file, folder + "/" + std::string(kLength - name.size(), 'x') + name);
  }
  // A handler that keeps nothing.
  std::atomic<FSEventStreamEventFlags> ofTheFolder = 0;
  std::atomic<bool> toldAfter = false;
  std::atomic<bool> scanned = false;
  const auto after = in("many/7/after");
  const platform::LoopThread thread("test", "test");
  FSEventStream stream(
      [&](FSEventStream&, std::span<const FSEvent> events) {
        for (const auto& event : events) {
          if (event.path == in("many")) ofTheFolder |= event.flags;
          if (event.path == after && (event.flags & kCreated) != 0) toldAfter = true;
          if ((event.flags & kMustScan) != 0) scanned = true;
        }
      },
      {root_}, platform::kFSEventStreamEventIdSinceNow, 0.05, kFileEvents, GetParam());
  stream.scheduleWithRunLoop(thread.sharedLoop());
  ASSERT_TRUE(stream.start());
  const auto before = memoryNow();
  forgetMostMemory();
  moveItem(outside("many"), in("many"));
  EXPECT_TRUE(eventually([&] {
    stream.flushSync();
    return (ofTheFolder & kRenamed) != 0 || scanned;
  }));
  stream.flushSync();
  const auto most = mostMemory();
  constexpr std::size_t kBound = std::size_t{256} << 20U;
  EXPECT_LT(most - std::min(before, most), kBound) << (most >> 20U) << " after " << (before >> 20U);
  writeFile(after, "text");
  stream.flushSync();
  EXPECT_TRUE(toldAfter);
}

}  // namespace
}  // namespace kestrine::test
