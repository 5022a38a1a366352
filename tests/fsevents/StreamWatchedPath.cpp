#include <fcntl.h>

#include <cstdio>

#include "platform/foundation/base/FileHandle.h"
#include "tests/fsevents/support/StreamTest.h"

// What becomes of a watch when the watched folder itself, or a folder on the way to it, is removed, moved, replaced or made again.

namespace kestrine::test {
namespace {

class StreamWatchedPath : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    way_ = base_ / "way";
    watched_ = way_ + "/to/watched";
    makeFolders(watched_ + "/sub");
  }
  void begin(platform::FSEventStreamCreateFlags flags) { stream_ = watch({.paths = {watched_}, .flags = flags | kFileEvents}); }
  // Waits for a RootChanged and forgets what was told so far.
  void expectRootChanged(const std::string& when) {
    EXPECT_TRUE(stream_->waitFor(watched_, kRootChanged)) << when << "\n" << stream_->describe();
    stream_->flush();
    stream_->clear();
  }
  // A file written below the path at once is covered; once the path's return was told, changes are told exactly.
  void expectWatchedAgain(const std::string& when) {
    makeFolders(watched_ + "/sub");
    writeFile(watched_ + "/sub/atOnce", "text");
    const auto covers = [&](const std::vector<FSEvent>& events) {
      return std::any_of(events.begin(), events.end(), [&](const FSEvent& event) {
        return coversPath(event, watched_ + "/sub/atOnce") || (event.path == watched_ && (event.flags & kRootChanged) != 0);
      });
    };
    EXPECT_TRUE(stream_->waitUntil(covers)) << when << "\n" << stream_->describe();
    stream_->flush();
    stream_->clear();
    writeFile(watched_ + "/sub/later", "text");
    stream_->flush();
    EXPECT_NE(stream_->flagsOf(watched_ + "/sub/later") & kCreated, 0U) << when << "\n" << stream_->describe();
    EXPECT_TRUE(marksAreThoseOf(*stream_, {watched_})) << when;
    stream_->clear();
  }
  void expectSilent(const std::string& change, const std::string& when) {
    writeFile(change, "text");
    stream_->flush();
    EXPECT_FALSE(stream_->tellsBelow(watched_)) << when << "\n" << stream_->describe();
    stream_->clear();
  }
  std::string way_;
  std::string watched_;
  std::unique_ptr<WatchedStream> stream_;
};
KESTRINE_PER_SOURCE(StreamWatchedPath);

TEST_P(StreamWatchedPath, MovedAwayAndBackIsToldAsRootChanged) {
  begin(kWatchRoot);
  moveItem(watched_, base_ / "elsewhere");
  expectRootChanged("moved away");
  expectSilent(base_ / "elsewhere/sub/file", "moved away");
  moveItem(base_ / "elsewhere", watched_);
  expectRootChanged("moved back");
  expectWatchedAgain("moved back");
}

TEST_P(StreamWatchedPath, RemovedAndMadeAgainIsToldAsRootChanged) {
  begin(kWatchRoot);
  removeTree(watched_);
  expectRootChanged("removed");
  makeFolders(watched_);
  expectRootChanged("made again");
  expectWatchedAgain("made again");
}

// The kernel tells of a folder's own removal only when nobody holds it open any longer.
TEST_P(StreamWatchedPath, RemovedWhileSomebodyHoldsItOpenIsToldAsRootChanged) {
  begin(kWatchRoot);
  const platform::FileHandle held(::open(watched_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(held.isOpen());
  for (const auto& top : {watched_, way_}) {
    removeTree(top);
    expectRootChanged("removed " + top);
    makeFolders(watched_);
    expectRootChanged("made again " + top);
    expectWatchedAgain("made again " + top);
  }
}

TEST_P(StreamWatchedPath, RemovedAndMadeAgainAtOnceWhileSomebodyHoldsItOpenIsWatched) {
  begin(kWatchRoot);
  const int repeats = longOrShort(30, 10);
  std::vector<platform::FileHandle> held;
  for (int i = 0; i < repeats; ++i) {
    held.emplace_back(::open(watched_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    removeTree(i % 2 == 0 ? watched_ : way_);
    makeFolders(watched_ + "/sub");
    expectWatchedAgain("turn " + std::to_string(i));
  }
}

TEST_P(StreamWatchedPath, ThatIsEmptyIsWatchedAgainWhenReplacedWhileSomebodyHoldsItOpen) {
  removeTree(watched_ + "/sub");
  begin(kWatchRoot);
  const platform::FileHandle held(::open(watched_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  makeFolder(base_ / "other");
  ASSERT_EQ(::rename((base_ / "other").c_str(), watched_.c_str()), 0);
  expectRootChanged("replaced");
  expectWatchedAgain("replaced");
}

TEST_P(StreamWatchedPath, MovedWithAnAncestorIsToldAsRootChanged) {
  begin(kWatchRoot);
  moveItem(way_, base_ / "other");
  expectRootChanged("moved away");
  expectSilent(base_ / "other/to/watched/sub/file", "moved away");
  moveItem(base_ / "other", way_);
  expectRootChanged("moved back");
  expectWatchedAgain("moved back");
}

TEST_P(StreamWatchedPath, RemovedWithAnAncestorIsToldAsRootChanged) {
  begin(kWatchRoot);
  removeTree(way_);
  expectRootChanged("removed");
  makeFolders(watched_);
  expectRootChanged("made again");
  expectWatchedAgain("made again");
}

TEST_P(StreamWatchedPath, ReplacedWithAnAncestorIsFollowedByPath) {
  makeFolders(base_ / "second/to/watched/sub");
  begin(kWatchRoot);
  exchangeItems(way_, base_ / "second");
  expectRootChanged("replaced");
  expectWatchedAgain("replaced");
  expectSilent(base_ / "second/to/watched/sub/file", "replaced");
}

TEST_P(StreamWatchedPath, MovedAwayAndBackIsWatchedAgainWithoutWatchRoot) {
  begin(0);
  moveItem(watched_, base_ / "elsewhere");
  stream_->flush();
  EXPECT_EQ(stream_->allFlags() & kRootChanged, 0U) << stream_->describe();
  stream_->clear();
  expectSilent(base_ / "elsewhere/sub/file", "moved away");
  moveItem(base_ / "elsewhere", watched_);
  expectWatchedAgain("moved back");
  EXPECT_EQ(stream_->allFlags() & kRootChanged, 0U) << stream_->describe();
}

TEST_P(StreamWatchedPath, RemovedIsWatchedAgainWhenItIsBackWithoutWatchRoot) {
  begin(0);
  removeTree(watched_);
  stream_->flush();
  stream_->clear();
  expectWatchedAgain("made again");
}

TEST_P(StreamWatchedPath, RemovedWithItsAncestorsIsWatchedAgainWithoutWatchRoot) {
  begin(0);
  for (const auto& ancestor : {way_ + "/to", way_}) {
    removeTree(ancestor);
    stream_->flush();
    EXPECT_EQ(stream_->allFlags() & kRootChanged, 0U) << stream_->describe();
    stream_->clear();
    expectWatchedAgain("after the removal of " + ancestor);
  }
}

TEST_P(StreamWatchedPath, ReplacedWithoutWatchRootIsFollowedByPath) {
  makeFolders(base_ / "second/sub");
  begin(0);
  exchangeItems(watched_, base_ / "second");
  expectWatchedAgain("replaced");
  expectSilent(base_ / "second/sub/file", "replaced");
}

TEST_P(StreamWatchedPath, RemovedAndMadeAgainManyTimesIsWatchedInTheEnd) {
  const int repeats = longOrShort(100, 30);
  for (const auto flags : {kWatchRoot, platform::FSEventStreamCreateFlags{0}}) {
    begin(flags);
    for (int i = 0; i < repeats; ++i) {
      removeTree(i % 3 == 0 ? way_ : watched_);
      makeFolders(watched_ + "/sub");
    }
    expectWatchedAgain("after many turns");
  }
}

TEST_P(StreamWatchedPath, ReplacedByAFileAndBackIsWatchedAgain) {
  begin(kWatchRoot);
  removeTree(watched_);
  writeFile(watched_, "text");
  expectRootChanged("replaced by a file");
  removeItem(watched_);
  makeFolders(watched_);
  expectRootChanged("a folder again");
  expectWatchedAgain("a folder again");
}

TEST_P(StreamWatchedPath, IsNotDisturbedByItsNeighbours) {
  begin(kWatchRoot);
  for (int i = 0; i < 100; ++i) {
    const auto neighbour = way_ + "/to/neighbour" + std::to_string(i);
    makeFolder(neighbour);
    moveItem(neighbour, neighbour + "x");
    removeItem(neighbour + "x");
    writeFile(way_ + "/file", "text");
    removeItem(way_ + "/file");
  }
  stream_->flush();
  EXPECT_TRUE(stream_->events().empty()) << stream_->describe();
}

}  // namespace
}  // namespace kestrine::test
