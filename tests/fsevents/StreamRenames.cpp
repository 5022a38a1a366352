#include "tests/fsevents/support/StreamTest.h"

// Folders that move: inside the watched tree, into it, out of it.

namespace kestrine::test {
namespace {

class StreamRenames : public StreamTest {};
KESTRINE_PER_SOURCE(StreamRenames);

TEST_P(StreamRenames, InsideGiveThePathsBelowTheirNewNamesAtOnce) {
  makeFolders(in("a/b/c/d"));
  writeFile(in("a/b/c/d/file"), "text");
  const auto stream = watchRoot();
  moveItem(in("a"), in("z"));
  appendFile(in("z/b/c/d/file"), "more");
  writeFile(in("z/b/c/late"), "text");
  stream->flush();
  EXPECT_EQ(stream->flagsOf(in("a")) & (kRenamed | kKinds), kRenamed | kIsFolder) << stream->describe();
  EXPECT_EQ(stream->flagsOf(in("z")) & (kRenamed | kKinds), kRenamed | kIsFolder) << stream->describe();
  EXPECT_NE(stream->flagsOf(in("z/b/c/d/file")) & kModified, 0U) << stream->describe();
  EXPECT_NE(stream->flagsOf(in("z/b/c/late")) & kCreated, 0U) << stream->describe();
  EXPECT_FALSE(stream->tellsBelow(in("a"))) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(StreamRenames, OfAFolderInTheMiddleMoveTheTreeBelow) {
  makeFolders(in("x/a/b"));
  makeFolders(in("y/q"));
  const auto stream = watchRoot();
  moveItem(in("x/a"), in("y/q/r"));
  writeFile(in("y/q/r/b/file"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("x/a")) & kRenamed, 0U) << stream->describe();
  EXPECT_NE(stream->flagsOf(in("y/q/r")) & kRenamed, 0U) << stream->describe();
  EXPECT_NE(stream->flagsOf(in("y/q/r/b/file")) & kCreated, 0U) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(StreamRenames, InsideDoNotSpeakOfWhatDidNotChange) {
  makeFolders(in("a/b"));
  writeFile(in("a/b/still"), "text");
  const auto stream = watchRoot();
  moveItem(in("a"), in("z"));
  stream->flush();
  EXPECT_FALSE(stream->tellsBelow(in("a"))) << stream->describe();
  EXPECT_FALSE(stream->tellsBelow(in("z"))) << stream->describe();
  EXPECT_EQ(stream->allFlags() & kMustScan, 0U);
}

TEST_P(StreamRenames, OneAfterTheOtherKeepThePathsRight) {
  const int turns = longOrShort(200, 50);
  makeFolders(in("0/sub"));
  const auto stream = watchRoot();
  for (int i = 0; i < turns; ++i) {
    moveItem(in(std::to_string(i)), in(std::to_string(i + 1)));
    writeFile(in(std::to_string(i + 1)) + "/sub/" + std::to_string(i), "text");
  }
  stream->flush();
  for (int i = 0; i < turns; ++i) {
    EXPECT_NE(stream->flagsOf(in(std::to_string(i + 1)) + "/sub/" + std::to_string(i)) & kCreated, 0U) << i << "\n" << stream->describe();
  }
}

TEST_P(StreamRenames, InTellEveryItemAsRenamed) {
  makeFolders(outside("a/b/c"));
  writeFile(outside("a/b/c/file"), "text");
  makeLink("file", outside("a/b/c/link"));
  const auto stream = watchRoot();
  moveItem(outside("a"), in("a"));
  stream->flush();
  for (const auto* name : {"a", "a/b", "a/b/c"}) {
    EXPECT_EQ(stream->flagsOf(in(name)) & (kRenamed | kKinds), kRenamed | kIsFolder) << name << "\n" << stream->describe();
  }
  EXPECT_EQ(stream->flagsOf(in("a/b/c/file")) & (kRenamed | kKinds), kRenamed | kIsFile) << stream->describe();
  EXPECT_EQ(stream->flagsOf(in("a/b/c/link")) & (kRenamed | kKinds), kRenamed | kIsLink) << stream->describe();
  stream->clear();
  appendFile(in("a/b/c/file"), "more");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("a/b/c/file")) & kModified, 0U) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(StreamRenames, InWithAChangeAtOnceMissNothing) {
  const int repeats = longOrShort(300, 60);
  for (int i = 0; i < repeats; ++i) makeFolders(outside(std::to_string(i)) + "/b/c");
  const auto stream = watchRoot();
  for (int i = 0; i < repeats; ++i) {
    moveItem(outside(std::to_string(i)), in(std::to_string(i)));
    writeFile(in(std::to_string(i)) + "/b/c/file", "text");
  }
  stream->flush();
  for (int i = 0; i < repeats; ++i) EXPECT_TRUE(stream->tells(in(std::to_string(i)) + "/b/c/file")) << i;
  EXPECT_EQ(stream->allFlags() & kMustScan, 0U);
}

TEST_P(StreamRenames, OutAreToldAndSilentAtOnce) {
  const int repeats = longOrShort(100, 30);
  for (int i = 0; i < repeats; ++i) makeFolders(in(std::to_string(i)) + "/b/c");
  const auto stream = watchRoot();
  for (int i = 0; i < repeats; ++i) {
    moveItem(in(std::to_string(i)), outside(std::to_string(i)));
    writeFile(outside(std::to_string(i)) + "/b/c/late", "text");
    writeFile(outside(std::to_string(i)) + "/late", "text");
  }
  stream->flush();
  for (int i = 0; i < repeats; ++i) {
    const auto path = in(std::to_string(i));
    EXPECT_EQ(stream->flagsOf(path) & (kRenamed | kIsFolder), kRenamed | kIsFolder) << i << "\n" << stream->describe();
    EXPECT_FALSE(stream->tellsBelow(path)) << i << "\n" << stream->describe();
  }
  EXPECT_EQ(stream->allFlags() & kMustScan, 0U);
}

TEST_P(StreamRenames, OutFreeTheMarks) {
  makeFolders(in("a/b/c/d"));
  makeFolders(in("stays/x"));
  const auto stream = watchRoot();
  ASSERT_TRUE(marksAreThoseOf(*stream, {root_}));
  moveItem(in("a/b"), outside("b"));
  stream->flush();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  stream->clear();
  writeFile(outside("b/c/d/late"), "text");
  writeFile(in("a/still"), "text");
  stream->flush();
  EXPECT_TRUE(stream->tells(in("a/still")));
  EXPECT_EQ(stream->events().size(), stream->eventsOf(in("a/still")).size()) << stream->describe();
}

TEST_P(StreamRenames, OutAndInAgainAreWatchedAgain) {
  const int turns = longOrShort(50, 15);
  makeFolders(in("a/b"));
  const auto stream = watchRoot();
  for (int i = 0; i < turns; ++i) {
    moveItem(in("a"), outside("a"));
    moveItem(outside("a"), in("a"));
    if (i % 5 == 0) stream->flush();
  }
  stream->flush();
  stream->clear();
  writeFile(in("a/b/file"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("a/b/file")) & kCreated, 0U) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(StreamRenames, ExchangeTwoFoldersWithTheirContents) {
  makeFolders(in("one/sub"));
  makeFolders(in("two/other/deep"));
  const auto stream = watchRoot();
  exchangeItems(in("one"), in("two"));
  writeFile(in("one/other/deep/file"), "text");
  writeFile(in("two/sub/file"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("one")) & kRenamed, 0U) << stream->describe();
  EXPECT_NE(stream->flagsOf(in("two")) & kRenamed, 0U) << stream->describe();
  EXPECT_NE(stream->flagsOf(in("one/other/deep/file")) & kCreated, 0U) << stream->describe();
  EXPECT_NE(stream->flagsOf(in("two/sub/file")) & kCreated, 0U) << stream->describe();
  EXPECT_FALSE(stream->tells(in("one/sub/file"))) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(StreamRenames, ExchangeAFolderWithOneOutside) {
  makeFolders(in("one/sub"));
  makeFolders(outside("two/other"));
  const auto stream = watchRoot();
  exchangeItems(in("one"), outside("two"));
  writeFile(outside("two/sub/late"), "text");
  writeFile(in("one/other/file"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("one")) & kRenamed, 0U) << stream->describe();
  EXPECT_TRUE(stream->tells(in("one/other/file"))) << stream->describe();
  EXPECT_FALSE(stream->tells(in("one/sub/late"))) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(StreamRenames, OverAnEmptyFolderFreeItsMark) {
  makeFolders(in("a/sub"));
  makeFolder(in("b"));
  const auto stream = watchRoot();
  moveItem(in("a"), in("b"));
  writeFile(in("b/sub/file"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("b")) & kRenamed, 0U) << stream->describe();
  EXPECT_NE(stream->flagsOf(in("b/sub/file")) & kCreated, 0U) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(StreamRenames, FromOneWatchedFolderToAnotherAreToldInBoth) {
  makeFolders(in("one/a/b"));
  makeFolder(in("two"));
  const auto stream = watch({.paths = {in("one"), in("two")}});
  moveItem(in("one/a"), in("two/a"));
  writeFile(in("two/a/b/file"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("one/a")) & kRenamed, 0U) << stream->describe();
  EXPECT_NE(stream->flagsOf(in("two/a")) & kRenamed, 0U) << stream->describe();
  EXPECT_TRUE(stream->tells(in("two/a/b/file"))) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {in("one"), in("two")}));
}

}  // namespace
}  // namespace kestrine::test
