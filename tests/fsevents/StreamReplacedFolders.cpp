#include "tests/fsevents/support/StreamTest.h"

// A name that is a folder now and something else then.

namespace kestrine::test {
namespace {

class StreamReplacedFolders : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    makeFolders(in("d/sub"));
    makeFolders(outside("target/sub"));
    stream_ = watchRoot();
  }
  // A change in the folder that is called "d" now is told, and its marks are the right ones.
  void expectWatchedFolder() {
    stream_->flush();
    stream_->clear();
    writeFile(in("d/sub/file"), "text");
    stream_->flush();
    EXPECT_NE(stream_->flagsOf(in("d/sub/file")) & (kCreated | kModified), 0U) << stream_->describe();
    EXPECT_TRUE(marksAreThoseOf(*stream_, {root_}));
  }
  void expectSilentLink() {
    stream_->clear();
    writeFile(outside("target/sub/file"), "text");
    stream_->flush();
    EXPECT_FALSE(stream_->tellsAtOrBelow(in("d"))) << stream_->describe();
    EXPECT_TRUE(marksAreThoseOf(*stream_, {root_}));
  }
  std::unique_ptr<WatchedStream> stream_;
};
KESTRINE_PER_SOURCE(StreamReplacedFolders);

TEST_P(StreamReplacedFolders, ByAFileAndBack) {
  removeTree(in("d"));
  writeFile(in("d"), "text");
  stream_->flush();
  EXPECT_NE(stream_->flagsOf(in("d")) & kRemoved, 0U) << stream_->describe();
  EXPECT_NE(stream_->flagsOf(in("d")) & kCreated, 0U) << stream_->describe();
  stream_->clear();
  appendFile(in("d"), "more");
  stream_->flush();
  EXPECT_EQ(stream_->flagsOf(in("d")) & (kModified | kKinds), kModified | kIsFile) << stream_->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream_, {root_}));
  removeItem(in("d"));
  makeFolders(in("d/sub"));
  expectWatchedFolder();
}

TEST_P(StreamReplacedFolders, ByALinkAndBack) {
  removeTree(in("d"));
  makeLink(outside("target"), in("d"));
  stream_->flush();
  EXPECT_NE(stream_->flagsOf(in("d")) & kCreated, 0U) << stream_->describe();
  expectSilentLink();
  removeItem(in("d"));
  makeFolders(in("d/sub"));
  expectWatchedFolder();
}

TEST_P(StreamReplacedFolders, ByAFileThroughExchange) {
  writeFile(in("file"), "text");
  exchangeItems(in("d"), in("file"));
  writeFile(in("file/sub/new"), "text");
  appendFile(in("d"), "more");
  stream_->flush();
  EXPECT_NE(stream_->flagsOf(in("file/sub/new")) & kCreated, 0U) << stream_->describe();
  EXPECT_NE(stream_->flagsOf(in("d")) & kModified, 0U) << stream_->describe();
  exchangeItems(in("d"), in("file"));
  expectWatchedFolder();
}

TEST_P(StreamReplacedFolders, ByALinkThroughExchange) {
  makeLink(outside("target"), in("link"));
  exchangeItems(in("d"), in("link"));
  stream_->flush();
  expectSilentLink();
  exchangeItems(in("d"), in("link"));
  expectWatchedFolder();
}

TEST_P(StreamReplacedFolders, ByAnotherFolderOfTheSameName) {
  const int repeats = longOrShort(100, 30);
  for (int i = 0; i < repeats; ++i) {
    removeTree(in("d"));
    makeFolders(in("d/sub"));
  }
  expectWatchedFolder();
}

TEST_P(StreamReplacedFolders, ManyTimesWithinAWindow) {
  const int repeats = longOrShort(100, 30);
  for (int i = 0; i < repeats; ++i) {
    removeTree(in("d"));
    writeFile(in("d"), "text");
    removeItem(in("d"));
    makeLink(outside("target"), in("d"));
    removeItem(in("d"));
    makeFolders(in("d/sub"));
  }
  stream_->flush();
  EXPECT_EQ(stream_->allFlags() & kMustScan, 0U) << stream_->describe();
  expectWatchedFolder();
}

}  // namespace
}  // namespace kestrine::test
