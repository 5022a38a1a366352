#include "tests/fsevents/support/StreamTest.h"

// Watched paths as callers write them: reported paths begin with what was given, whatever it is another name of.

namespace kestrine::test {
namespace {

class StreamSpelling : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    makeFolders(in("y/z/sub"));
  }
  void expectPrefix(const std::string& given, const std::string& reported) {
    const auto stream = watch({.paths = {given}});
    writeFile(in("y/z/sub/file"), "text");
    moveItem(in("y/z/sub"), in("y/z/renamed"));
    moveItem(in("y/z/renamed"), in("y/z/sub"));
    stream->flush();
    EXPECT_NE(stream->flagsOf(reported + "/sub/file") & (kCreated | kModified), 0U) << given << "\n" << stream->describe();
    EXPECT_NE(stream->flagsOf(reported + "/renamed") & kRenamed, 0U) << given << "\n" << stream->describe();
    for (const auto& event : stream->events()) EXPECT_TRUE(isAtOrBelow(event.path, reported)) << given << "\n" << describeEvent(event);
    ASSERT_EQ(stream->stream().pathsBeingWatched().size(), 1U);
  }
};
KESTRINE_PER_SOURCE(StreamSpelling);

TEST_P(StreamSpelling, PlainIsKept) { expectPrefix(in("y/z"), in("y/z")); }
TEST_P(StreamSpelling, TrailingSlashesAreDropped) { expectPrefix(in("y/z///"), in("y/z")); }
TEST_P(StreamSpelling, DotsAndDoubleSlashesAreKept) { expectPrefix(root_ + "/./y//z/", root_ + "/./y//z"); }
TEST_P(StreamSpelling, ParentStepsAreKept) { expectPrefix(in("y/z/../z"), in("y/z/../z")); }

TEST_P(StreamSpelling, RelativeIsKept) {
  const WorkingDirectory here(root_);
  expectPrefix("y/z", "y/z");
}

TEST_P(StreamSpelling, RelativeWithADotIsKept) {
  const WorkingDirectory here(root_);
  expectPrefix("./y/z/", "./y/z");
}

TEST_P(StreamSpelling, ADotIsKept) {
  const WorkingDirectory here(in("y/z"));
  expectPrefix(".", ".");
}

TEST_P(StreamSpelling, ParentOfTheWorkingDirectoryIsKept) {
  const WorkingDirectory here(in("y/z/sub"));
  expectPrefix("..", "..");
}

TEST_P(StreamSpelling, SeveralPathsAreEachTold) {
  makeFolder(in("a"));
  makeFolder(in("ab"));
  makeFolder(in("c"));
  const auto stream = watch({.paths = {in("a"), in("c")}});
  for (const auto* name : {"a/file", "ab/file", "c/file"}) writeFile(in(name), "text");
  stream->flush();
  EXPECT_TRUE(stream->tells(in("a/file"))) << stream->describe();
  EXPECT_TRUE(stream->tells(in("c/file"))) << stream->describe();
  EXPECT_FALSE(stream->tells(in("ab/file"))) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {in("a"), in("c")}));
}

TEST_P(StreamSpelling, NestedPathsAreEachTold) {
  for (const auto& paths : {std::vector{root_, in("y/z")}, std::vector{in("y/z"), root_}, std::vector{root_, in("y"), in("y/z")}}) {
    const auto stream = watch({.paths = paths});
    writeFile(in("y/z/file"), "text");
    writeFile(in("y/file"), "text");
    writeFile(in("file"), "text");
    stream->flush();
    for (const auto* name : {"y/z/file", "y/file", "file"}) EXPECT_TRUE(stream->tells(in(name))) << name << "\n" << stream->describe();
    for (const auto* name : {"y/z/file", "y/file", "file"}) removeItem(in(name));
  }
}

TEST_P(StreamSpelling, ANestedPathOutlivesAMoveOfTheTreeAboveIt) {
  const auto stream = watch({.paths = {in("y"), in("y/z")}});
  moveItem(in("y"), outside("y"));
  stream->flush();
  stream->clear();
  makeFolders(in("y/z"));
  writeFile(in("y/z/file"), "text");
  EXPECT_TRUE(stream->waitUntil([&](const std::vector<FSEvent>& events) {
    return std::any_of(events.begin(), events.end(), [&](const FSEvent& event) { return coversPath(event, in("y/z/file")); });
  })) << stream->describe();
}

TEST_P(StreamSpelling, TheSamePathTwiceIsTold) {
  const auto stream = watch({.paths = {root_, root_}});
  writeFile(in("file"), "text");
  stream->flush();
  EXPECT_TRUE(stream->tells(in("file"))) << stream->describe();
}

TEST_P(StreamSpelling, TwoSpellingsOfOneFolderAreBothTold) {
  makeLink("y", in("link"));
  const auto stream = watch({.paths = {in("y"), in("link")}});
  writeFile(in("y/z/file"), "text");
  stream->flush();
  EXPECT_TRUE(stream->tells(in("y/z/file"))) << stream->describe();
  EXPECT_TRUE(stream->tells(in("link/z/file"))) << stream->describe();
}

}  // namespace
}  // namespace kestrine::test
