#include "tests/fsevents/support/StreamTest.h"

// A watched path that is not there yet.

namespace kestrine::test {
namespace {

class StreamMissingPath : public StreamTest {
 protected:
  static bool coversOrRootChanged(const FSEvent& event, const std::string& path, const std::string& watched) {
    return coversPath(event, path) || (event.path == watched && (event.flags & kRootChanged) != 0);
  }
  // Every one of the files is covered, and a further change is told exactly.
  void expectWatched(WatchedStream& stream, const std::string& watched, const std::vector<std::string>& files) {
    for (const auto& file : files) {
      EXPECT_TRUE(stream.waitUntil([&](const std::vector<FSEvent>& events) {
        return std::any_of(events.begin(), events.end(), [&](const FSEvent& event) { return coversOrRootChanged(event, file, watched); });
      })) << file
          << "\n"
          << stream.describe();
    }
    stream.flush();
    stream.clear();
    writeFile(watched + "/further", "text");
    stream.flush();
    EXPECT_NE(stream.flagsOf(watched + "/further") & kCreated, 0U) << stream.describe();
    EXPECT_TRUE(marksAreThoseOf(stream, {watched}));
    EXPECT_EQ(stream.stream().status().objectForKey("source").stringValue(), sourceName(GetParam()));
  }
};
KESTRINE_PER_SOURCE(StreamMissingPath);

TEST_P(StreamMissingPath, IsWatchedWhenItAppears) {
  const auto stream = watch({.paths = {in("later")}});
  stream->flush();
  EXPECT_TRUE(stream->events().empty()) << stream->describe();
  makeFolder(in("later"));
  writeFile(in("later/file"), "text");
  expectWatched(*stream, in("later"), {in("later/file")});
}

TEST_P(StreamMissingPath, IsToldAsRootChangedWhenItAppears) {
  const auto stream = watch({.paths = {in("later")}, .flags = kFileEvents | kWatchRoot});
  makeFolder(in("later"));
  EXPECT_TRUE(stream->waitFor(in("later"), kRootChanged)) << stream->describe();
}

TEST_P(StreamMissingPath, IsWatchedWhenItIsMovedThere) {
  const auto stream = watch({.paths = {in("later")}});
  makeFolders(outside("tree/a/b"));
  writeFile(outside("tree/a/b/file"), "text");
  moveItem(outside("tree"), in("later"));
  expectWatched(*stream, in("later"), {in("later/a/b/file")});
}

TEST_P(StreamMissingPath, WithMissingAncestorsIsWatchedWhenAllAppearAtOnce) {
  const int repeats = longOrShort(50, 15);
  for (int i = 0; i < repeats; ++i) {
    const auto top = in(std::to_string(i));
    const auto watched = top + "/b/c/d";
    const auto stream = watch({.paths = {watched}});
    makeFolders(watched + "/e");
    writeFile(watched + "/e/file", "text");
    expectWatched(*stream, watched, {watched + "/e/file"});
    if (HasFailure()) return;
  }
}

TEST_P(StreamMissingPath, WithMissingAncestorsIsWatchedWhenTheyAppearOneByOne) {
  const auto stream = watch({.paths = {in("a/b/c/d")}});
  std::string path = root_;
  for (const auto* name : {"/a", "/b", "/c", "/d"}) {
    path += name;
    makeFolder(path);
    stream->flush();
  }
  writeFile(path + "/file", "text");
  expectWatched(*stream, path, {path + "/file"});
}

TEST_P(StreamMissingPath, IsWatchedAfterItsAncestorsCameAndWent) {
  const auto stream = watch({.paths = {in("a/b/c")}});
  for (int i = 0; i < 20; ++i) {
    makeFolders(in("a/b"));
    moveItem(in("a"), in("z"));
    removeTree(in("z"));
  }
  makeFolders(in("a/b/c"));
  writeFile(in("a/b/c/file"), "text");
  expectWatched(*stream, in("a/b/c"), {in("a/b/c/file")});
}

TEST_P(StreamMissingPath, DoesNotTellWhatHappensOnTheWay) {
  const auto stream = watch({.paths = {in("a/b/c")}});
  makeFolders(in("a/other"));
  writeFile(in("a/file"), "text");
  writeFile(in("file"), "text");
  stream->flush();
  EXPECT_TRUE(stream->events().empty()) << stream->describe();
}

TEST_P(StreamMissingPath, BelowAFileIsWatchedWhenTheFileMakesRoom) {
  writeFile(in("a"), "not a folder");
  const auto stream = watch({.paths = {in("a/b")}});
  removeItem(in("a"));
  makeFolders(in("a/b"));
  writeFile(in("a/b/file"), "text");
  expectWatched(*stream, in("a/b"), {in("a/b/file")});
}

TEST_P(StreamMissingPath, BesideOneThatIsThereDisturbsNothing) {
  const auto stream = watch({.paths = {root_, outside("x/y")}});
  writeFile(in("file"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("file")) & kCreated, 0U) << stream->describe();
  makeFolders(outside("x/y"));
  writeFile(outside("x/y/file"), "text");
  EXPECT_TRUE(stream->waitUntil([&](const std::vector<FSEvent>& events) {
    return std::any_of(events.begin(), events.end(), [&](const FSEvent& event) { return coversPath(event, outside("x/y/file")); });
  })) << stream->describe();
}

}  // namespace
}  // namespace kestrine::test
