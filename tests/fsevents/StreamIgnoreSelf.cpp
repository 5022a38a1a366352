#include "tests/fsevents/support/StreamProcess.h"

// With IgnoreSelf a process is not told its own changes. fanotify names the process of a change; inotify does not, so there they are told
// all the same.

namespace kestrine::test {
namespace {

class StreamIgnoreSelf : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    makeFolder(in("old"));
    other_ = std::make_unique<StreamProcess>(StreamProcess::Options{});
    stream_ = watch({.paths = {root_}, .flags = kFileEvents | kIgnoreSelf});
  }
  [[nodiscard]] static bool exact() { return GetParam() == Source::Fanotify; }
  std::unique_ptr<StreamProcess> other_;
  std::unique_ptr<WatchedStream> stream_;
};
KESTRINE_PER_SOURCE(StreamIgnoreSelf);

TEST_P(StreamIgnoreSelf, LeavesOutOwnChangesWhereTheKernelNamesTheProcess) {
  writeFile(in("mine"), "text");
  appendFile(in("mine"), "more");
  setMode(in("mine"), 0600);
  moveItem(in("mine"), in("renamed"));
  removeItem(in("renamed"));
  makeLink("nothing", in("link"));
  std::thread([this] { writeFile(in("old/fromAThread"), "text"); }).join();
  stream_->flush();
  if (exact()) {
    EXPECT_TRUE(stream_->events().empty()) << stream_->describe();
  } else {
    EXPECT_TRUE(stream_->tells(in("mine"))) << stream_->describe();
  }
}

TEST_P(StreamIgnoreSelf, TellsTheChangesOfOthers) {
  other_->write(in("theirs"));
  other_->makeFolder(in("folder"));
  other_->write(in("folder/file"));
  stream_->flush();
  EXPECT_NE(stream_->flagsOf(in("theirs")) & kCreated, 0U) << stream_->describe();
  EXPECT_NE(stream_->flagsOf(in("folder")) & kCreated, 0U) << stream_->describe();
  EXPECT_NE(stream_->flagsOf(in("folder/file")) & kCreated, 0U) << stream_->describe();
}

TEST_P(StreamIgnoreSelf, TellsOthersChangesAmongItsOwn) {
  const int repeats = longOrShort(200, 50);
  for (int i = 0; i < repeats; ++i) {
    writeFile(in("shared"), "mine");
    writeFile(in("mine" + std::to_string(i)), "text");
    other_->write(in("theirs" + std::to_string(i)));
  }
  stream_->flush();
  for (int i = 0; i < repeats; ++i) EXPECT_TRUE(stream_->tells(in("theirs" + std::to_string(i)))) << i;
  if (!exact()) return;
  EXPECT_FALSE(stream_->tells(in("shared"))) << stream_->describe();
  for (int i = 0; i < repeats; ++i) EXPECT_FALSE(stream_->tells(in("mine" + std::to_string(i)))) << i;
}

TEST_P(StreamIgnoreSelf, WatchesFoldersThatItMadeItself) {
  // One after the other: who made what a listing finds in a folder before it could be marked is unknown, and so it is told.
  for (const auto* folder : {"mine", "mine/a", "mine/a/b"}) {
    makeFolder(in(folder));
    stream_->flush();
  }
  if (exact()) {
    EXPECT_TRUE(stream_->events().empty()) << stream_->describe();
  }
  other_->write(in("mine/a/b/theirs"));
  stream_->flush();
  EXPECT_NE(stream_->flagsOf(in("mine/a/b/theirs")) & kCreated, 0U) << stream_->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream_, {root_}));
}

TEST_P(StreamIgnoreSelf, TellsWhatOthersPutIntoAFolderThatItHasJustMade) {
  const int repeats = longOrShort(100, 30);
  for (int i = 0; i < repeats; ++i) {
    makeFolder(in(std::to_string(i)));
    other_->write(in(std::to_string(i)) + "/theirs");
  }
  stream_->flush();
  for (int i = 0; i < repeats; ++i) EXPECT_TRUE(stream_->covers(in(std::to_string(i)) + "/theirs")) << i;
}

TEST_P(StreamIgnoreSelf, FollowsFoldersThatItRenamedItself) {
  makeFolders(in("old/sub"));
  stream_->flush();
  stream_->clear();
  moveItem(in("old"), in("new"));
  other_->write(in("new/sub/theirs"));
  moveItem(in("new"), outside("gone"));
  stream_->flush();
  EXPECT_NE(stream_->flagsOf(in("new/sub/theirs")) & kCreated, 0U) << stream_->describe();
  stream_->clear();
  other_->write(outside("gone/sub/late"));
  stream_->flush();
  EXPECT_TRUE(stream_->events().empty()) << stream_->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream_, {root_}));
}

TEST_P(StreamIgnoreSelf, IsOffUnlessAskedFor) {
  const auto stream = watchRoot();
  writeFile(in("mine"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("mine")) & kCreated, 0U) << stream->describe();
}

}  // namespace
}  // namespace kestrine::test
