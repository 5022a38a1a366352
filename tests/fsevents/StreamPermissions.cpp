#include <unistd.h>

#include "tests/fsevents/support/StreamTest.h"

// Folders that the user may not read. Root may read everything, so these tests say something only in the run without privileges.

namespace kestrine::test {
namespace {

class StreamPermissions : public StreamTest {
 protected:
  void SetUp() override {
    if (::geteuid() == 0)
      GTEST_SKIP() << "left out: folders without permission, because root may read every folder (the unprivileged run has them)";
    StreamTest::SetUp();
    if (IsSkipped()) return;
    makeFolders(in("closed/inner"));
    makeFolders(in("open"));
  }
  static std::vector<std::string> listed(WatchedStream& stream, const char* key) {
    std::vector<std::string> paths;
    const auto list = stream.stream().status().objectForKey(key);
    for (std::size_t i = 0; i < list.count(); ++i) paths.push_back(list.objectAtIndex(i).stringValue());
    return paths;
  }
  bool coveredSoon(WatchedStream& stream, const std::string& path) {
    return stream.waitUntil([&](const std::vector<FSEvent>& events) {
      return std::any_of(events.begin(), events.end(), [&](const FSEvent& event) { return coversPath(event, path); });
    });
  }
};
KESTRINE_PER_SOURCE(StreamPermissions);

TEST_P(StreamPermissions, MissingAtTheStartLeaveTheRestWatched) {
  setMode(in("closed"), 0);
  const auto stream = watchRoot();
  EXPECT_THAT(listed(*stream, "unreadable"), testing::ElementsAre(in("closed")));
  writeFile(in("open/file"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("open/file")) & kCreated, 0U) << stream->describe();
}

TEST_P(StreamPermissions, ReturnedAreTakenUp) {
  for (const mode_t closed : {0, 0311, 0100}) {
    setMode(in("closed"), closed);
    const auto stream = watchRoot();
    setMode(in("closed"), 0755);
    writeFile(in("closed/inner/atOnce"), "text");
    EXPECT_TRUE(coveredSoon(*stream, in("closed/inner/atOnce"))) << closed << "\n" << stream->describe();
    stream->flush();
    stream->clear();
    writeFile(in("closed/inner/later"), "text");
    stream->flush();
    EXPECT_NE(stream->flagsOf(in("closed/inner/later")) & (kCreated | kModified), 0U) << closed << "\n" << stream->describe();
    EXPECT_THAT(listed(*stream, "unreadable"), testing::IsEmpty()) << closed;
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  }
}

TEST_P(StreamPermissions, MissingDeeperAreTakenUpWhenReturned) {
  setMode(in("closed/inner"), 0);
  const auto stream = watchRoot();
  EXPECT_THAT(listed(*stream, "unreadable"), testing::ElementsAre(in("closed/inner")));
  setMode(in("closed/inner"), 0755);
  stream->flush();
  writeFile(in("closed/inner/file"), "text");
  EXPECT_TRUE(coveredSoon(*stream, in("closed/inner/file"))) << stream->describe();
}

TEST_P(StreamPermissions, MissingInANewFolderAreShown) {
  const auto stream = watchRoot();
  makeFolders(outside("new/closed"));
  setMode(outside("new/closed"), 0);
  moveItem(outside("new"), in("new"));
  stream->flush();
  EXPECT_THAT(listed(*stream, "unreadable"), testing::ElementsAre(in("new/closed")));
  setMode(in("new/closed"), 0755);
  writeFile(in("new/closed/file"), "text");
  EXPECT_TRUE(coveredSoon(*stream, in("new/closed/file"))) << stream->describe();
}

TEST_P(StreamPermissions, LostMeanwhileAreStillTold) {
  const auto stream = watchRoot();
  setMode(in("closed"), 0311);
  writeFile(in("closed/file"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("closed")) & kMetadata, 0U) << stream->describe();
  EXPECT_NE(stream->flagsOf(in("closed/file")) & kCreated, 0U) << stream->describe();
  setMode(in("closed"), 0755);
  writeFile(in("closed/inner/file"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("closed/inner/file")) & kCreated, 0U) << stream->describe();
}

TEST_P(StreamPermissions, MissingFoldersThatGoAreForgotten) {
  setMode(in("closed/inner"), 0);
  const auto stream = watchRoot();
  ASSERT_EQ(::rmdir(in("closed/inner").c_str()), 0);
  stream->flush();
  EXPECT_TRUE(eventually([&] { return listed(*stream, "unreadable").empty(); }));
}

TEST_P(StreamPermissions, MissingFoldersThatMoveAreShownWhereTheyAre) {
  setMode(in("closed/inner"), 0);
  const auto stream = watchRoot();
  moveItem(in("closed"), in("moved"));
  stream->flush();
  EXPECT_TRUE(eventually([&] { return listed(*stream, "unreadable") == std::vector<std::string>{in("moved/inner")}; }));
  ASSERT_EQ(::rmdir(in("moved/inner").c_str()), 0);
  removeTree(in("moved"));
  stream->flush();
  EXPECT_TRUE(eventually([&] { return listed(*stream, "unreadable").empty(); }));
}

TEST_P(StreamPermissions, MissingForAnAncestorLeaveTheWatchWorking) {
  makeFolders(base_ / "way/to/watched");
  setMode(base_ / "way", 0311);
  const auto watched = base_ / "way/to/watched";
  const auto stream = watch({.paths = {watched}, .flags = kFileEvents | kWatchRoot});
  writeFile(watched + "/file", "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(watched + "/file") & kCreated, 0U) << stream->describe();
  EXPECT_THAT(listed(*stream, "polled"), testing::Contains(base_ / "way"));
  moveItem(base_ / "way/to", base_ / "way/elsewhere");
  EXPECT_TRUE(stream->waitFor(watched, kRootChanged, std::chrono::seconds(60))) << stream->describe();
  moveItem(base_ / "way/elsewhere", base_ / "way/to");
  writeFile(watched + "/again", "text");
  EXPECT_TRUE(stream->waitUntil(
      [&](const std::vector<FSEvent>& events) {
        return std::count_if(events.begin(), events.end(), [&](const FSEvent& event) { return (event.flags & kRootChanged) != 0; }) >= 2;
      },
      std::chrono::seconds(60)))
      << stream->describe();
}

TEST_P(StreamPermissions, MissingForTheWatchedFolderItselfAreAwaited) {
  setMode(root_, 0);
  WatchedStream stream(GetParam(), {.paths = {root_}});
  ASSERT_TRUE(stream.started());
  EXPECT_THAT(listed(stream, "unreadable"), testing::ElementsAre(root_));
  setMode(root_, 0755);
  stream.flush();
  writeFile(in("file"), "text");
  EXPECT_TRUE(coveredSoon(stream, in("file"))) << stream.describe();
}

}  // namespace
}  // namespace kestrine::test
