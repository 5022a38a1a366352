#include <fcntl.h>

#include "platform/foundation/base/FileHandle.h"
#include "tests/fsevents/support/StreamTest.h"

// Watched paths that are not plain folders: a file, or a symbolic link.

namespace kestrine::test {
namespace {

class StreamWatchedFile : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    writeFile(in("file"), "text");
    writeFile(in("neighbour"), "text");
    stream_ = watch({.paths = {in("file")}});
  }
  bool tellsFile(const std::function<void()>& change) {
    stream_->clear();
    change();
    const bool told = stream_->waitFor(in("file"), 0);
    stream_->flush();
    return told;
  }
  std::unique_ptr<WatchedStream> stream_;
};
KESTRINE_PER_SOURCE(StreamWatchedFile);

TEST_P(StreamWatchedFile, IsToldWhenItChanges) {
  EXPECT_TRUE(tellsFile([&] { appendFile(in("file"), "more"); })) << stream_->describe();
  EXPECT_NE(stream_->flagsOf(in("file")) & kModified, 0U) << stream_->describe();
  EXPECT_TRUE(tellsFile([&] { setMode(in("file"), 0600); })) << stream_->describe();
}

TEST_P(StreamWatchedFile, IsToldWhenItIsSavedByARename) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(tellsFile([&] {
      writeFile(in("file.tmp"), "new");
      moveItem(in("file.tmp"), in("file"));
    })) << stream_->describe();
    EXPECT_TRUE(tellsFile([&] { appendFile(in("file"), "more"); })) << stream_->describe();
  }
}

TEST_P(StreamWatchedFile, IsToldWhenItGoesAndComesBack) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(tellsFile([&] { removeItem(in("file")); })) << stream_->describe();
    EXPECT_TRUE(tellsFile([&] { writeFile(in("file"), "again"); })) << stream_->describe();
    EXPECT_TRUE(tellsFile([&] { appendFile(in("file"), "more"); })) << stream_->describe();
  }
}

TEST_P(StreamWatchedFile, IsToldWhenItGoesAndComesBackWhileSomebodyHoldsItOpen) {
  std::vector<platform::FileHandle> held;
  for (int i = 0; i < 3; ++i) {
    held.emplace_back(::open(in("file").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(tellsFile([&] { removeItem(in("file")); })) << stream_->describe();
    EXPECT_TRUE(tellsFile([&] { writeFile(in("file"), "again"); })) << stream_->describe();
    held.emplace_back(::open(in("file").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(tellsFile([&] {
      writeFile(in("file.tmp"), "new");
      moveItem(in("file.tmp"), in("file"));
    })) << stream_->describe();
    EXPECT_TRUE(tellsFile([&] { appendFile(in("file"), "more"); })) << stream_->describe();
  }
}

TEST_P(StreamWatchedFile, HidesItsNeighbours) {
  stream_->clear();
  appendFile(in("neighbour"), "more");
  writeFile(in("file2"), "text");
  makeFolder(in("folder"));
  stream_->flush();
  EXPECT_TRUE(stream_->events().empty()) << stream_->describe();
}

class StreamWatchedLink : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    makeFolders(outside("one/sub"));
    makeFolders(outside("two/sub"));
    makeLink(outside("one"), in("link"));
  }
  void pointTo(const std::string& target) {
    makeLink(target, in("link.tmp"));
    moveItem(in("link.tmp"), in("link"));
  }
  static void expectToldUnder(WatchedStream& stream, const std::string& target, const std::string& link) {
    stream.flush();
    stream.clear();
    writeFile(target + "/sub/file", "text");
    stream.flush();
    EXPECT_NE(stream.flagsOf(link + "/sub/file") & (kCreated | kModified), 0U) << stream.describe();
    for (const auto& event : stream.events()) EXPECT_TRUE(isAtOrBelow(event.path, link)) << describeEvent(event);
  }
};
KESTRINE_PER_SOURCE(StreamWatchedLink);

TEST_P(StreamWatchedLink, TellsUnderTheLinksPath) {
  const auto stream = watch({.paths = {in("link")}});
  expectToldUnder(*stream, outside("one"), in("link"));
  EXPECT_EQ(stream->stream().status().objectForKey("foldersMarked").intValue(), 2);
}

TEST_P(StreamWatchedLink, OnTheWayIsFollowed) {
  const auto stream = watch({.paths = {in("link/sub")}});
  writeFile(outside("one/sub/file"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("link/sub/file")) & kCreated, 0U) << stream->describe();
}

TEST_P(StreamWatchedLink, PointedElsewhereIsFollowed) {
  const auto stream = watch({.paths = {in("link")}, .flags = kFileEvents | kWatchRoot});
  pointTo(outside("two"));
  EXPECT_TRUE(stream->waitFor(in("link"), kRootChanged)) << stream->describe();
  expectToldUnder(*stream, outside("two"), in("link"));
  stream->clear();
  writeFile(outside("one/sub/late"), "text");
  stream->flush();
  EXPECT_FALSE(stream->tells(in("link/sub/late"))) << stream->describe();
}

TEST_P(StreamWatchedLink, OnTheWayPointedElsewhereIsFollowed) {
  const auto stream = watch({.paths = {in("link/sub")}, .flags = kFileEvents | kWatchRoot});
  pointTo(outside("two"));
  EXPECT_TRUE(stream->waitFor(in("link/sub"), kRootChanged)) << stream->describe();
  stream->flush();
  stream->clear();
  writeFile(outside("two/sub/file"), "text");
  writeFile(outside("one/sub/late"), "text");
  stream->flush();
  EXPECT_TRUE(stream->tells(in("link/sub/file"))) << stream->describe();
  EXPECT_FALSE(stream->tells(in("link/sub/late"))) << stream->describe();
}

TEST_P(StreamWatchedLink, PointedElsewhereIsFollowedWithoutWatchRoot) {
  const auto stream = watch({.paths = {in("link")}});
  pointTo(outside("two"));
  expectToldUnder(*stream, outside("two"), in("link"));
}

TEST_P(StreamWatchedLink, ThatPointsNowhereIsWatchedWhenItsTargetAppears) {
  pointTo(outside("three"));
  const auto stream = watch({.paths = {in("link")}, .flags = kFileEvents | kWatchRoot});
  makeFolders(outside("three/sub"));
  EXPECT_TRUE(stream->waitFor(in("link"), kRootChanged)) << stream->describe();
  expectToldUnder(*stream, outside("three"), in("link"));
}

TEST_P(StreamWatchedLink, WhoseTargetMovesAwayFallsSilent) {
  const auto stream = watch({.paths = {in("link")}, .flags = kFileEvents | kWatchRoot});
  moveItem(outside("one"), outside("moved"));
  EXPECT_TRUE(stream->waitFor(in("link"), kRootChanged)) << stream->describe();
  stream->clear();
  writeFile(outside("moved/sub/late"), "text");
  stream->flush();
  EXPECT_FALSE(stream->tellsBelow(in("link"))) << stream->describe();
}

TEST_P(StreamWatchedLink, ToAFileIsTold) {
  writeFile(outside("file"), "text");
  makeLink(outside("file"), in("toFile"));
  const auto stream = watch({.paths = {in("toFile")}});
  appendFile(outside("file"), "more");
  EXPECT_TRUE(stream->waitFor(in("toFile"), kModified)) << stream->describe();
}

TEST_P(StreamWatchedLink, BelowTheWatchedPathIsNeverFollowed) {
  makeFolders(in("real/deep"));
  makeLink("../real", in("real/cycle"));
  makeLink(root_, in("real/deep/up"));
  makeLink(in("real"), in("twin"));
  const auto stream = watchRoot();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  writeFile(outside("one/sub/file"), "text");
  writeFile(in("real/deep/file"), "text");
  makeLink(outside("two"), in("real/later"));
  writeFile(outside("two/sub/file"), "text");
  stream->flush();
  EXPECT_TRUE(stream->tells(in("real/deep/file"))) << stream->describe();
  EXPECT_FALSE(stream->tellsBelow(in("link"))) << stream->describe();
  EXPECT_FALSE(stream->tellsBelow(in("twin"))) << stream->describe();
  EXPECT_FALSE(stream->tellsBelow(in("real/later"))) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

}  // namespace
}  // namespace kestrine::test
