#include <sys/stat.h>

#include "tests/fsevents/support/StreamTest.h"

namespace kestrine::test {
namespace {

class StreamExclusions : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    makeFolders(in("skip/a/b"));
    makeFolders(in("skipper"));
    makeFolders(in("keep/skip"));
  }
  // The folders that cost no marks, as what is left when they are left out of the count.
  static void expectMarked(WatchedStream& stream, std::size_t folders) {
    stream.flush();
    EXPECT_EQ(stream.stream().status().objectForKey("foldersMarked").unsignedLongLongValue(), folders);
  }
};
KESTRINE_PER_SOURCE(StreamExclusions);

TEST_P(StreamExclusions, HideWholeComponentsOnly) {
  const auto stream = watch({.paths = {root_}, .exclusions = {in("skip")}});
  for (const auto* name : {"skip/file", "skip/a/b/file", "skipper/file", "keep/skip/file", "file"}) writeFile(in(name), "text");
  stream->flush();
  EXPECT_FALSE(stream->tellsAtOrBelow(in("skip"))) << stream->describe();
  for (const auto* name : {"skipper/file", "keep/skip/file", "file"})
    EXPECT_TRUE(stream->tells(in(name))) << name << "\n" << stream->describe();
}

TEST_P(StreamExclusions, CostNoMarks) {
  const auto stream = watch({.paths = {root_}, .exclusions = {in("skip")}});
  // root, skipper, keep, keep/skip
  expectMarked(*stream, 4);
  const auto marks = kernelMarks();
  struct stat hidden {};
  ASSERT_EQ(::stat(in("skip").c_str(), &hidden), 0);
  EXPECT_EQ(std::count(marks.begin(), marks.end(), hidden.st_ino), 0);
  ASSERT_EQ(::stat(in("skip/a/b").c_str(), &hidden), 0);
  EXPECT_EQ(std::count(marks.begin(), marks.end(), hidden.st_ino), 0);
  makeFolders(in("skip/new/deep"));
  expectMarked(*stream, 4);
}

TEST_P(StreamExclusions, HideTheFolderItself) {
  const auto stream = watch({.paths = {root_}, .exclusions = {in("skip"), in("later")}});
  setMode(in("skip"), 0700);
  makeFolder(in("later"));
  writeFile(in("later/file"), "text");
  removeTree(in("later"));
  removeTree(in("skip"));
  stream->flush();
  EXPECT_TRUE(stream->events().empty()) << stream->describe();
}

TEST_P(StreamExclusions, MadeLaterAreHiddenToo) {
  const auto stream = watch({.paths = {root_}, .exclusions = {in("later/inner")}});
  makeFolders(in("later/inner/deep"));
  makeFolders(in("later/seen"));
  writeFile(in("later/inner/deep/file"), "text");
  writeFile(in("later/seen/file"), "text");
  stream->flush();
  EXPECT_FALSE(stream->tellsAtOrBelow(in("later/inner"))) << stream->describe();
  EXPECT_TRUE(stream->tells(in("later/seen/file"))) << stream->describe();
  // root, skip, skip/a, skip/a/b, skipper, keep, keep/skip, later, later/seen
  expectMarked(*stream, 9);
}

TEST_P(StreamExclusions, LeftByARenameAreWatched) {
  const auto stream = watch({.paths = {root_}, .exclusions = {in("skip")}});
  moveItem(in("skip"), in("shown"));
  writeFile(in("shown/a/b/file"), "text");
  stream->flush();
  EXPECT_TRUE(stream->tells(in("shown"))) << stream->describe();
  EXPECT_TRUE(stream->tells(in("shown/a/b/file"))) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(StreamExclusions, EnteredByARenameFallSilent) {
  removeTree(in("skip"));
  makeFolders(in("shown/a"));
  const auto stream = watch({.paths = {root_}, .exclusions = {in("skip")}});
  moveItem(in("shown"), in("skip"));
  writeFile(in("skip/a/late"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("shown")) & kRenamed, 0U) << stream->describe();
  EXPECT_FALSE(stream->tellsAtOrBelow(in("skip"))) << stream->describe();
  // root, skipper, keep, keep/skip
  EXPECT_TRUE(eventually([&] { return stream->stream().status().objectForKey("foldersMarked").intValue() == 4; }));
}

TEST_P(StreamExclusions, HideSingleFiles) {
  const auto stream = watch({.paths = {root_}, .exclusions = {in("keep/log")}});
  writeFile(in("keep/log"), "text");
  writeFile(in("keep/log2"), "text");
  stream->flush();
  EXPECT_FALSE(stream->tells(in("keep/log"))) << stream->describe();
  EXPECT_TRUE(stream->tells(in("keep/log2"))) << stream->describe();
}

TEST_P(StreamExclusions, AreTakenBeforeStartOnlyAndTheLastListCounts) {
  FSEventStream stream([](FSEventStream&, std::span<const FSEvent>) {}, {root_}, platform::kFSEventStreamEventIdSinceNow, 0.1, kFileEvents,
                       GetParam());
  EXPECT_TRUE(stream.setExclusionPaths({in("keep"), in("skipper")}));
  EXPECT_TRUE(stream.setExclusionPaths({in("skip")}));
  stream.scheduleWithRunLoop(platform::RunLoop::current());
  ASSERT_TRUE(stream.start());
  EXPECT_FALSE(stream.setExclusionPaths({in("keep")}));
  EXPECT_EQ(stream.status().objectForKey("foldersMarked").intValue(), 4);
}

TEST_P(StreamExclusions, MayNameTheWatchedFolderItself) {
  const auto stream = watch({.paths = {root_, outside("")}, .exclusions = {root_}});
  writeFile(in("file"), "text");
  writeFile(outside("file"), "text");
  stream->flush();
  EXPECT_FALSE(stream->tellsAtOrBelow(root_)) << stream->describe();
  EXPECT_FALSE(stream->events().empty());
}

}  // namespace
}  // namespace kestrine::test
