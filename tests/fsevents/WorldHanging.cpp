#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <string_view>

#include "platform/fsevents/engine/LeftThreads.h"
#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/TestFuse.h"
#include "tests/fsevents/support/WorldTest.h"

// A file system that does not answer: whoever asks it waits, for hours if need be. That must be nobody but the thread that asks.

namespace kestrine::test {
namespace {

// Far beyond what anything here may take, and far below what a file system that hangs takes.
constexpr std::chrono::seconds kBounded(30);

std::size_t threadsNamed(std::string_view wanted) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream file(entry.path() / "comm");
    std::string name;
    if (std::getline(file, name) && name == wanted) ++count;
  }
  return count;
}

class WorldHanging : public WorldTest {
 protected:
  /// The body runs with the file system at a watched path of its own, and with it below the other watched path.
  void run(const std::function<void(TestFuse& disk, const std::string& point)>& body) {
    inMountNamespace([&] {
      if (const auto why = TestFuse::whyNot(); !why.empty()) GTEST_SKIP() << "left out: file systems that hang, because there is " << why;
      // This process runs no other test.
      setenv("KESTRINE_FSEVENTS_PATIENCE", patience_, 1);
      makeFolders(backing_);
      makeFolders(in("beside"));
      for (const auto& point : {base_ / "disk", in("disk")}) {
        SCOPED_TRACE("at " + point);
        removeTree(backing_);
        makeFolders(backing_ + "/sub/deep");
        makeFolders(point);
        TestFuse disk(backing_, point);
        body(disk, point);
      }
      // Whoever was left behind has its answer by now and is joined, which a thread sanitizer asks for.
      EXPECT_TRUE(eventually([] { return threadsNamed("fsevents") == 0; }));
      platform::fsevents::LeftThreads::collect();
    });
  }
  std::unique_ptr<WatchedStream> watchWith(const std::string& point) {
    std::vector<std::string> paths = {root_};
    if (!isAtOrBelow(point, root_)) paths.push_back(point);
    return watch({.paths = paths, .flags = kFileEvents | kWatchRoot});
  }
  // `action` on a thread of its own, which must be back in time. When it is not, the file system is ended so that the test can.
  static void expectBounded(TestFuse& disk, const char* what, const std::function<void()>& action) {
    auto done = std::async(std::launch::async, action);
    if (done.wait_for(kBounded) == std::future_status::ready) return;
    ADD_FAILURE() << what << " waits for a file system that hangs";
    disk.die();
    done.wait();
  }
  // Until whoever looks at the file system from time to time waits for it.
  static testing::AssertionResult isSaidToHang(WatchedStream& stream, const std::string& point) {
    const bool said = eventually([&] {
      const auto paths = listed(stream, "losses");
      return std::any_of(paths.begin(), paths.end(), [&](const std::string& path) { return isAtOrBelow(path, point); });
    });
    if (said) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "the status does not name " << point << ": " << stream.stream().status().description();
  }
  static testing::AssertionResult hasRecovered(WatchedStream& stream) {
    const bool over = eventually([&] {
      const auto losses = stream.stream().status().objectForKey("losses");
      for (std::size_t i = 0; i < losses.count(); ++i) {
        if (losses.objectAtIndex(i).objectForKey("lasting").boolValue()) return false;
      }
      return true;
    });
    if (over) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "a loss lasts: " << stream.stream().status().description();
  }
  // Told by itself: a flush may wait for the one that hangs.
  static testing::AssertionResult isToldInTime(WatchedStream& stream, const std::string& path) {
    writeFile(path, "text");
    if (stream.waitFor(path, kCreated, kBounded)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "not told of " << path << ": " << stream.describe();
  }

  std::string backing_ = base_ / "backing";
  // In seconds: the product's own would be most of what these tests take.
  const char* patience_ = "1";
};
KESTRINE_PER_SOURCE(WorldHanging);

TEST_P(WorldHanging, HoldsUpNothingElse) {
  run([this](TestFuse& disk, const std::string& point) {
    const auto stream = watchWith(point);
    EXPECT_TRUE(isToldInTime(*stream, in("beside/before")));
    disk.hang();
    const auto name = std::to_string(point.size());
    EXPECT_TRUE(isSaidToHang(*stream, point));
    EXPECT_TRUE(isToldInTime(*stream, in("beside/meanwhile" + name)));
    makeFolders(in("beside/new" + name + "/deep"));
    EXPECT_TRUE(isToldInTime(*stream, in("beside/new" + name + "/deep/file")));
    disk.answer();
    removeItem(in("beside/before"));
  });
}

TEST_P(WorldHanging, IsToldAsALossThatEnds) {
  patience_ = "";  // the product's own
  run([this](TestFuse& disk, const std::string& point) {
    const auto stream = watchWith(point);
    const auto begin = std::chrono::steady_clock::now();
    disk.hang();
    EXPECT_TRUE(isSaidToHang(*stream, point));
    // A disk has the time to spin up.
    EXPECT_GT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
    EXPECT_TRUE(stream->waitUntil([&](const auto& events) {
      return std::any_of(events.begin(), events.end(),
                         [&](const FSEvent& event) { return (event.flags & kMustScan) != 0 && isAtOrBelow(event.path, point); });
    })) << stream->describe();
    writeFile(backing_ + "/sub/deep/meanwhile", "text");
    disk.answer();
    EXPECT_TRUE(hasRecovered(*stream));
    EXPECT_TRUE(stream->waitFor(point + "/sub/deep/meanwhile", kCreated)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, point + "/sub/deep", "after"));
  });
}

TEST_P(WorldHanging, DoesNotHoldUpTheEnd) {
  run([this](TestFuse& disk, const std::string& point) {
    // The first stream of a process makes the thread that writes its log.
    watchWith(point).reset();
    const auto before = threadsNamed("fsevents");
    auto stream = watchWith(point);
    EXPECT_TRUE(isToldInTime(*stream, in("beside/file")));
    disk.hang();
    EXPECT_TRUE(isSaidToHang(*stream, point));
    expectBounded(disk, "stop", [&] { stream->stream().stop(); });
    expectBounded(disk, "the destruction", [&] { stream->destroyStream(); });
    EXPECT_TRUE(stream->loopEnds()) << "the run loop goes on";
    stream.reset();
    disk.answer();
    // Whoever was left behind goes when it has its answer.
    EXPECT_TRUE(eventually([&] { return threadsNamed("fsevents") <= before; })) << "a thread is left";
    removeItem(in("beside/file"));
  });
}

TEST_P(WorldHanging, FromTheBeginningDoesNotHoldUpTheStart) {
  run([this](TestFuse& disk, const std::string& point) {
    disk.hang();
    std::unique_ptr<WatchedStream> stream;
    expectBounded(disk, "start", [&] { stream = watchWith(point); });
    ASSERT_TRUE(stream && stream->started());
    const auto name = "file" + std::to_string(point.size());
    EXPECT_TRUE(isToldInTime(*stream, in("beside/" + name)));
    EXPECT_TRUE(isSaidToHang(*stream, point));
    disk.answer();
    // What is changed until then is told by the rescan.
    EXPECT_TRUE(hasRecovered(*stream));
    stream->flush();
    EXPECT_TRUE(isPolled(*stream, point + "/sub/deep", "file"));
  });
}

TEST_P(WorldHanging, MayBeStoppedAndStartedMeanwhile) {
  run([this](TestFuse& disk, const std::string& point) {
    auto stream = watchWith(point);
    disk.hang();
    EXPECT_TRUE(isSaidToHang(*stream, point));
    const auto name = std::to_string(point.size());
    for (int turn = 0; turn < 2; ++turn) {
      expectBounded(disk, "stop", [&] { stream->stream().stop(); });
      expectBounded(disk, "start", [&] { EXPECT_TRUE(stream->stream().start()); });
      EXPECT_TRUE(isToldInTime(*stream, in("beside/turn" + std::to_string(turn) + name)));
    }
    disk.answer();
    EXPECT_TRUE(hasRecovered(*stream));
    stream->flush();
    EXPECT_TRUE(isPolled(*stream, point + "/sub/deep", "file"));
  });
}

TEST_P(WorldHanging, DoesNotHoldUpAFlushForEver) {
  run([this](TestFuse& disk, const std::string& point) {
    const auto stream = watchWith(point);
    disk.hang();
    EXPECT_TRUE(isSaidToHang(*stream, point));
    const auto path = in("beside/flushed" + std::to_string(point.size()));
    writeFile(path, "text");
    expectBounded(disk, "a flush", [&] { stream->flush(); });
    EXPECT_NE(stream->flagsOf(path) & kCreated, 0U) << stream->describe();
    disk.answer();
  });
}

TEST_P(WorldHanging, AndDyingInstead) {
  run([this](TestFuse& disk, const std::string& point) {
    const auto stream = watchWith(point);
    disk.hang();
    EXPECT_TRUE(isSaidToHang(*stream, point));
    disk.die();
    EXPECT_TRUE(isToldInTime(*stream, in("beside/dead" + std::to_string(point.size()))));
    stream->clear();
    disk.leave();
    ASSERT_TRUE(stream->waitFor(point, kUnmount)) << stream->describe();
    disk.comeBack();
    EXPECT_TRUE(stream->waitFor(point, kMount)) << stream->describe();
    EXPECT_TRUE(isPolled(*stream, point + "/sub/deep", "file"));
  });
}

}  // namespace
}  // namespace kestrine::test
