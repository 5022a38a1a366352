#include "tests/fsevents/support/KernelMarks.h"
#include "tests/fsevents/support/StreamProcess.h"
#include "tests/fsevents/support/WorldTest.h"

// An exclusion names a path. What is renamed comes under one, or leaves it, with everything below.

namespace kestrine::test {
namespace {

class WorldExclusions : public WorldTest {
 protected:
  void SetUp() override {
    WorldTest::SetUp();
    if (IsSkipped()) return;
    makeFolders(in("a/b/deep"));
    makeFolders(in("beside"));
  }
  std::unique_ptr<WatchedStream> watchWithout(const std::vector<std::string>& names) {
    std::vector<std::string> excluded;
    for (const auto& name : names) excluded.push_back(in(name));
    return watch({.paths = {root_}, .exclusions = std::move(excluded)});
  }
  // Nothing of what happens at and below the path is told, and it costs no marks.
  static void expectSilent(WatchedStream& stream, const std::string& folder, const std::string& name, std::int64_t marked) {
    stream.flush();
    stream.clear();
    writeFile(folder + "/" + name, "text");
    makeFolders(folder + "/new-" + name);
    stream.flush();
    EXPECT_FALSE(stream.tellsAtOrBelow(folder)) << stream.describe();
    EXPECT_TRUE(eventually([&] { return foldersMarked(stream) == marked; }))
        << foldersMarked(stream) << " instead of " << marked << ", " << folder;
  }
  // What a stream without c/b tells of what `work` did before it read of any of it. Of c/b nothing, and it costs no marks.
  std::vector<FSEvent> toldWithoutTheirs(const std::function<void()>& work) const {
    StreamProcess process({.paths = {root_}, .exclusions = {in("c/b")}, .source = sourceName(GetParam())});
    EXPECT_EQ(process.source(), sourceName(GetParam())) << process.error();
    auto events = process.toldOf(work);
    for (const auto& event : events) EXPECT_FALSE(isAtOrBelow(event.path, in("c/b"))) << event.path;
    const auto difference = [&] { return differenceOfMarks(kernelMarks(process.pid()), {root_}, {in("c/b")}); };
    EXPECT_TRUE(eventually([&] { return difference().empty(); })) << difference();
    EXPECT_EQ(process.statusNumber("losses"), 0U);
    return events;
  }
};
KESTRINE_PER_SOURCE(WorldExclusions);

TEST_P(WorldExclusions, EndBelowAFolderThatIsRenamed) {
  const auto stream = watchWithout({"a/b"});
  moveItem(in("a"), in("c"));
  stream->flush();
  EXPECT_TRUE(isWatched(*stream, in("c/b"), "file"));
  EXPECT_TRUE(isWatched(*stream, in("c/b/deep"), "file"));
  EXPECT_TRUE(nothingIsLost(*stream));
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(WorldExclusions, TellWhatIsMadeInAFolderThatIsRenamedAtOnce) {
  const auto stream = watchWithout({"a/b"});
  moveItem(in("a"), in("c"));
  writeFile(in("c/b/file"), "text");
  makeFolders(in("c/b/deep/er"));
  stream->flush();
  EXPECT_TRUE(stream->tells(in("c/b/file"))) << stream->describe();
  EXPECT_TRUE(stream->tells(in("c/b/deep/er"))) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(WorldExclusions, HoldAgainWhenTheFolderIsRenamedBack) {
  const auto stream = watchWithout({"a/b"});
  for (int turn = 0; turn < 5; ++turn) {
    moveItem(in("a"), in("c"));
    stream->flush();
    EXPECT_TRUE(isWatched(*stream, in("c/b"), "shown" + std::to_string(turn)));
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
    moveItem(in("c"), in("a"));
    // root, a, beside
    expectSilent(*stream, in("a/b"), "hidden" + std::to_string(turn), 3);
    EXPECT_TRUE(isWatched(*stream, in("a"), "file" + std::to_string(turn)));
  }
}

TEST_P(WorldExclusions, BeginBelowAFolderThatIsRenamedToTheirs) {
  moveItem(in("a"), in("c"));
  const auto stream = watchWithout({"a/b"});
  EXPECT_TRUE(isWatched(*stream, in("c/b/deep"), "file"));
  moveItem(in("c"), in("a"));
  expectSilent(*stream, in("a/b"), "file", 3);
  expectSilent(*stream, in("a/b/deep"), "other", 3);
  EXPECT_TRUE(isWatched(*stream, in("a"), "file"));
}

TEST_P(WorldExclusions, BeginAndEndForAFolderThatMovesInAndOut) {
  const auto stream = watchWithout({"a/b"});
  makeFolders(in("c"));
  moveItem(in("a/b"), in("c/b"));
  stream->flush();
  EXPECT_TRUE(isWatched(*stream, in("c/b/deep"), "file"));
  moveItem(in("c/b"), in("a/b"));
  // root, a, beside, c
  expectSilent(*stream, in("a/b/deep"), "other", 4);
  moveItem(in("a/b"), in("a/x"));
  stream->flush();
  EXPECT_TRUE(isWatched(*stream, in("a/x/deep"), "third"));
  EXPECT_NE(stream->flagsOf(in("a/x")) & (kRenamed | kCreated), 0U) << stream->describe();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(WorldExclusions, WithinAnotherEndTogether) {
  makeFolders(in("a/b/c/d"));
  const auto stream = watchWithout({"a/b", "a/b/c/d", "x/deep"});
  moveItem(in("a/b"), in("x"));
  stream->flush();
  EXPECT_TRUE(isWatched(*stream, in("x/c/d"), "file"));
  // root, a, beside, x, x/c, x/c/d, and not x/deep
  expectSilent(*stream, in("x/deep"), "file", 6);
  moveItem(in("x"), in("a/b"));
  expectSilent(*stream, in("a/b/c"), "file", 3);
}

TEST_P(WorldExclusions, HoldForAnotherFolderOfThatName) {
  const auto stream = watchWithout({"a/b"});
  moveItem(in("a"), in("c"));
  makeFolders(in("a/b/deep"));
  stream->flush();
  EXPECT_TRUE(isWatched(*stream, in("c/b/deep"), "file"));
  EXPECT_TRUE(isWatched(*stream, in("a"), "file"));
  // root, a, beside, c, c/b, c/b/deep
  expectSilent(*stream, in("a/b/deep"), "file", 6);
}

TEST_P(WorldExclusions, ChangePlacesInAnExchange) {
  makeFolders(in("c/b/other"));
  const auto stream = watchWithout({"a/b"});
  exchangeItems(in("a"), in("c"));
  stream->flush();
  EXPECT_TRUE(isWatched(*stream, in("c/b/deep"), "file"));
  // root, a, beside, c, c/b, c/b/deep
  expectSilent(*stream, in("a/b/other"), "file", 6);
  exchangeItems(in("a"), in("c"));
  stream->flush();
  EXPECT_TRUE(isWatched(*stream, in("c/b/other"), "again"));
  expectSilent(*stream, in("a/b/deep"), "again", 6 + 1);  // "new-file" was made in c/b/other
}

TEST_P(WorldExclusions, LeftByAFolderThatMovesOutAndBackElsewhere) {
  const auto stream = watchWithout({"a/b"});
  moveItem(in("a"), outside("a"));
  stream->flush();
  moveItem(outside("a"), in("beside/a"));
  stream->flush();
  EXPECT_TRUE(isWatched(*stream, in("beside/a/b/deep"), "file"));
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(WorldExclusions, FarBelowARenamedFolderEnd) {
  makeFolders(in("one/two/three/four/hidden/deep"));
  const auto stream = watchWithout({"one/two/three/four/hidden"});
  moveItem(in("one/two"), in("one/2"));
  stream->flush();
  EXPECT_TRUE(isWatched(*stream, in("one/2/three/four/hidden/deep"), "file"));
  moveItem(in("one/2"), in("one/two"));
  stream->flush();
  const auto marked = static_cast<std::int64_t>(countFolders({root_})) - 2;
  expectSilent(*stream, in("one/two/three/four/hidden"), "file", marked);
}

TEST_P(WorldExclusions, HoldForWhatIsMadeBeforeTheFolderAroundItComesUnderTheirName) {
  const auto events = toldWithoutTheirs([this] {
    makeFolders(in("beside/b/deep"));
    moveItem(in("beside"), in("c"));
    touchFile(in("c/b/deep/file"));
    touchFile(in("c/file"));
  });
  EXPECT_TRUE(covered(events, in("c/file")));
}

TEST_P(WorldExclusions, HoldForWhatMovesBeforeTheFolderAroundItComesUnderTheirName) {
  const auto events = toldWithoutTheirs([this] {
    moveItem(in("a/b"), in("beside/b"));
    moveItem(in("beside"), in("c"));
    touchFile(in("c/b/deep/file"));
    touchFile(in("c/file"));
  });
  EXPECT_TRUE(covered(events, in("a/b")));
  EXPECT_TRUE(covered(events, in("c/file")));
}

TEST_P(WorldExclusions, HoldForWhatGoesToAndFroBeforeTheFolderAroundItComesUnderTheirName) {
  const auto events = toldWithoutTheirs([this] {
    for (const auto* from : {"a/b", "beside/b", "a/b", "beside/x"}) {
      const std::string to = from == std::string("a/b") ? "beside/b" : from == std::string("beside/b") ? "a/b" : "beside/b";
      if (from == std::string("beside/x")) moveItem(in("beside/b"), in(from));
      moveItem(in(from), in(to));
    }
    exchangeItems(in("a"), in("beside"));
    moveItem(in("a"), in("c"));
    touchFile(in("c/b/deep/file"));
    touchFile(in("c/file"));
  });
  EXPECT_TRUE(covered(events, in("c/file")));
}

}  // namespace
}  // namespace kestrine::test
