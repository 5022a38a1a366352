#include "platform/fsevents/polling/PolledRegion.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/fsevents/support/PolledWorld.h"

namespace kestrine::test {
namespace {

using Why = PolledWorld::Region::Why;

class PolledRegionTest : public testing::Test {
 protected:
  [[nodiscard]] std::string in(const std::string& name) const { return base_ / name; }
  /// After a time in which nothing happens, what one pass tells of what `change` did.
  static std::map<std::string, FSEventStreamEventFlags> toldOf(PolledWorld& world, const std::function<void()>& change) {
    world.settle();
    change();
    world.pass();
    return world.take();
  }
  TemporaryDirectory base_;
};

using Told = std::map<std::string, FSEventStreamEventFlags>;

TEST_F(PolledRegionTest, TellsNothingWhereNothingChanges) {
  makeFolders(in("a/b"));
  writeFile(in("a/file"), "text");
  PolledWorld::letStampsGoOn();
  PolledWorld world(base_.path());
  EXPECT_EQ(world.region().folders(), 3U);
  for (int i = 0; i < 3; ++i) {
    PolledWorld::letStampsGoOn();
    world.pass();
  }
  EXPECT_EQ(world.take(), Told{});
}

TEST_F(PolledRegionTest, TellsWhatCameAndWhatWent) {
  writeFile(in("old"), "text");
  PolledWorld world(base_.path());
  EXPECT_EQ(toldOf(world, [&] { writeFile(in("new"), ""); }), (Told{{in("new"), kCreated | kIsFile}}));
  EXPECT_EQ(toldOf(world, [&] { removeItem(in("old")); }), (Told{{in("old"), kRemoved | kIsFile}}));
  EXPECT_EQ(toldOf(world, [&] { makeLink("nowhere", in("link")); }), (Told{{in("link"), kCreated | kIsLink}}));
  EXPECT_EQ(toldOf(world, [&] { removeItem(in("link")); }), (Told{{in("link"), kRemoved | kIsLink}}));
}

TEST_F(PolledRegionTest, TellsContentFromMetadata) {
  writeFile(in("file"), "text");
  makeFolder(in("folder"));
  PolledWorld world(base_.path());
  EXPECT_EQ(toldOf(world, [&] { writeFile(in("file"), "other"); }), (Told{{in("file"), kModified | kIsFile}}));
  EXPECT_EQ(toldOf(world, [&] { writeFile(in("file"), "OTHER"); }), (Told{{in("file"), kModified | kIsFile}}));
  EXPECT_EQ(toldOf(world, [&] { setMode(in("file"), 0600); }), (Told{{in("file"), kMetadata | kIsFile}}));
  EXPECT_EQ(toldOf(world, [&] { setMode(in("folder"), 0700); }), (Told{{in("folder"), kMetadata | kIsFolder}}));
  // A folder is not changed by what is put into it, and its mode is told even when something was put into it afterwards.
  EXPECT_EQ(toldOf(world, [&] { writeFile(in("folder/file"), ""); }), (Told{{in("folder/file"), kCreated | kIsFile}}));
  EXPECT_EQ(toldOf(world,
                   [&] {
                     setMode(in("folder"), 0755);
                     writeFile(in("folder/other"), "");
                   }),
            (Told{{in("folder"), kMetadata | kIsFolder}, {in("folder/other"), kCreated | kIsFile}}));
}

TEST_F(PolledRegionTest, TellsBothNamesOfWhatWasRenamed) {
  makeFolders(in("a"));
  makeFolders(in("b"));
  writeFile(in("a/file"), "text");
  writeFile(in("other"), "text");
  PolledWorld world(base_.path());
  EXPECT_EQ(toldOf(world, [&] { moveItem(in("other"), in("another")); }),
            (Told{{in("other"), kRenamed | kIsFile}, {in("another"), kRenamed | kIsFile}}));
  EXPECT_EQ(toldOf(world, [&] { moveItem(in("a/file"), in("b/moved")); }),
            (Told{{in("a/file"), kRenamed | kIsFile}, {in("b/moved"), kRenamed | kIsFile}}));
  EXPECT_EQ(toldOf(world,
                   [&] {
                     appendFile(in("b/moved"), "more");
                     moveItem(in("b/moved"), in("a/file"));
                   }),
            (Told{{in("b/moved"), kRenamed | kIsFile}, {in("a/file"), kRenamed | kModified | kIsFile}}));
}

TEST_F(PolledRegionTest, TellsWhatTookTheNameOfAnother) {
  writeFile(in("file"), "text");
  writeFile(in("one"), "text");
  writeFile(in("two"), "text");
  PolledWorld world(base_.path());
  EXPECT_EQ(toldOf(world,
                   [&] {
                     writeFile(in("file~"), "text");
                     moveItem(in("file~"), in("file"));
                   }),
            (Told{{in("file"), kRemoved | kCreated | kIsFile}}));
  EXPECT_EQ(toldOf(world, [&] { exchangeItems(in("one"), in("two")); }),
            (Told{{in("one"), kRenamed | kIsFile}, {in("two"), kRenamed | kIsFile}}));
  EXPECT_EQ(toldOf(world, [&] { moveItem(in("one"), in("file")); }),
            (Told{{in("one"), kRenamed | kIsFile}, {in("file"), kRemoved | kRenamed | kIsFile}}));
  EXPECT_EQ(toldOf(world,
                   [&] {
                     removeItem(in("file"));
                     makeFolder(in("file"));
                   }),
            (Told{{in("file"), kRemoved | kIsFile | kCreated | kIsFolder}}));
  EXPECT_TRUE(world.region().contains(world.nodeOf(in("file"))));
}

TEST_F(PolledRegionTest, TellsNoRenamingWhereTwoNamesAreOneFile) {
  writeFile(in("one"), "text");
  PolledWorld world(base_.path());
  EXPECT_EQ(toldOf(world, [&] { makeHardLink(in("one"), in("two")); }),
            (Told{{in("one"), kMetadata | kIsFile}, {in("two"), kCreated | kIsFile}}));
  EXPECT_EQ(toldOf(world, [&] { removeItem(in("one")); }), (Told{{in("one"), kRemoved | kIsFile}, {in("two"), kMetadata | kIsFile}}));
}

TEST_F(PolledRegionTest, FollowsFolders) {
  makeFolders(in("a"));
  PolledWorld world(base_.path());
  EXPECT_EQ(toldOf(world,
                   [&] {
                     makeFolders(in("a/b/c"));
                     writeFile(in("a/b/c/file"), "");
                   }),
            (Told{{in("a/b"), kCreated | kIsFolder}, {in("a/b/c"), kCreated | kIsFolder}, {in("a/b/c/file"), kCreated | kIsFile}}));
  EXPECT_EQ(world.region().folders(), 4U);
  EXPECT_EQ(toldOf(world, [&] { writeFile(in("a/b/c/other"), ""); }), (Told{{in("a/b/c/other"), kCreated | kIsFile}}));
  // A folder that moves keeps its node and its tables.
  const auto node = world.nodeOf(in("a/b/c"));
  EXPECT_EQ(toldOf(world, [&] { moveItem(in("a/b"), in("moved")); }),
            (Told{{in("a/b"), kRenamed | kIsFolder}, {in("moved"), kRenamed | kIsFolder}}));
  EXPECT_EQ(world.nodeOf(in("moved/c")), node);
  EXPECT_EQ(toldOf(world, [&] { removeItem(in("moved/c/file")); }), (Told{{in("moved/c/file"), kRemoved | kIsFile}}));
  // One that is removed takes everything with it, by name.
  EXPECT_EQ(toldOf(world, [&] { removeTree(in("moved")); }),
            (Told{{in("moved"), kRemoved | kIsFolder}, {in("moved/c"), kRemoved | kIsFolder}, {in("moved/c/other"), kRemoved | kIsFile}}));
  EXPECT_EQ(world.region().folders(), 2U);
  EXPECT_EQ(world.differences(), std::vector<std::string>{});
}

TEST_F(PolledRegionTest, TellsWhatWasRemovedBeforeItsFolderMovedWhereItWas) {
  makeFolders(in("a/b"));
  writeFile(in("a/b/file"), "");
  writeFile(in("a/b/kept"), "");
  PolledWorld world(base_.path());
  world.settle();
  removeItem(in("a/b/file"));
  moveItem(in("a"), in("c"));
  appendFile(in("c/b/kept"), "more");
  writeFile(in("c/b/new"), "");
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("a"), kRenamed | kIsFolder},
                                {in("c"), kRenamed | kIsFolder},
                                {in("a/b/file"), kRemoved | kIsFile},
                                {in("c/b/kept"), kModified | kIsFile},
                                {in("c/b/new"), kCreated | kIsFile}}));
  removeItem(in("c/b/new"));
  world.pass();
  EXPECT_EQ(world.flagsOf(in("c/b/new")) & kRemoved, kRemoved);
}

TEST_F(PolledRegionTest, TellsAScanWhereItIsToldOfAMoveAndCannotKnowWhatWentBefore) {
  makeFolders(in("a/b"));
  writeFile(in("a/b/file"), "");
  PolledWorld world(base_.path());
  world.settle();
  world.region().moved(world.nodeOf(in("a/b")), in("former"));
  removeItem(in("a/b/file"));
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("former/file"), kRemoved | kIsFile}, {in("a/b"), kMustScan | kIsFolder}}));
  writeFile(in("a/b/file"), "");
  world.pass();
  removeItem(in("a/b/file"));
  world.pass();
  EXPECT_EQ(world.flagsOf(in("a/b/file")) & kRemoved, kRemoved);
}

TEST_F(PolledRegionTest, KnowsAFolderThatTookTheInodeOfAnother) {
  // Some file systems give a number again at once, others never do; the birth time tells either way.
  makeFolders(in("d"));
  writeFile(in("d/old"), "");
  PolledWorld world(base_.path());
  world.settle();
  removeTree(in("d"));
  makeFolder(in("d"));
  writeFile(in("d/new"), "");
  world.pass();
  const auto told = world.take();
  EXPECT_EQ(told.at(in("d")) & (kRemoved | kCreated), kRemoved | kCreated);
  EXPECT_EQ(told.at(in("d/old")) & kRemoved, kRemoved);
  EXPECT_EQ(told.at(in("d/new")) & kCreated, kCreated);
  EXPECT_EQ(world.differences(), std::vector<std::string>{});
}

TEST_F(PolledRegionTest, TellsOnceMoreWhatCannotBeDecided) {
  // A file system that stamps by the quarter of a second: what was stamped just before the look may be stamped so again after it.
  writeFile(in("old"), "text");
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  PolledWorld world(base_.path(), {.timeStep = std::chrono::milliseconds(250)});
  writeFile(in("file"), "text");
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("file"), kCreated | kIsFile}}));
  // Not before the clock of stamps has gone on: until then it might change once more.
  world.pass();
  EXPECT_EQ(world.take(), Told{});
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("file"), kModified | kIsFile}}));
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  world.pass();
  EXPECT_EQ(world.take(), Told{});
  EXPECT_GE(world.region().interval(), std::chrono::milliseconds(1000));
}

TEST_F(PolledRegionTest, WaitsLongerThanOneStepOfTheStamps) {
  const PolledWorld::Region region(std::chrono::seconds(2), false);
  EXPECT_GT(region.interval(), std::chrono::seconds(2));
}

TEST_F(PolledRegionTest, TakesNamesOfAnyBytes) {
  std::vector<std::string> names = {std::string(255, 'n'), "a\nb", "\xff\xfe", " ", "\t", "-", "#12", ".hidden", "..x"};
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/' && byte != '.') names.push_back(std::string("_") + static_cast<char>(byte) + "_");
  }
  PolledWorld world(base_.path());
  const auto created = toldOf(world, [&] {
    for (const auto& name : names) writeFile(in(name), "");
  });
  for (const auto& name : names) EXPECT_EQ(created.at(in(name)), kCreated | kIsFile) << name;
  EXPECT_EQ(created.size(), names.size());
  const auto removed = toldOf(world, [&] {
    for (const auto& name : names) removeItem(in(name));
  });
  for (const auto& name : names) EXPECT_EQ(removed.at(in(name)), kRemoved | kIsFile) << name;
  EXPECT_EQ(removed.size(), names.size());
}

TEST_F(PolledRegionTest, TakesUpItsPassWhereItStopped) {
  for (int i = 0; i < 500; ++i) writeFile(in(std::to_string(i)), "");
  PolledWorld world(base_.path(), {.slice = std::chrono::nanoseconds(1)});
  world.settle();
  for (int i = 0; i < 500; ++i) appendFile(in(std::to_string(i)), "more");
  int slices = 0;
  world.pass([&] { ++slices; });
  EXPECT_GE(slices, 5);
  EXPECT_EQ(world.take().size(), 500U);
  EXPECT_EQ(world.differences(), std::vector<std::string>{});
}

TEST_F(PolledRegionTest, TellsMoreThanItHoldsBack) {
  constexpr int kMany = 70'000;
  const std::string folder = in("many");
  makeFolder(folder);
  makeFolder(in("next"));
  PolledWorld world(base_.path());
  world.settle();
  for (int i = 0; i < kMany; ++i) ::close(::open((folder + "/" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  writeFile(in("next/file"), "");
  world.pass();
  EXPECT_EQ(world.take().size(), static_cast<std::size_t>(kMany) + 1);
  for (int i = 0; i < kMany; ++i) ::unlink((folder + "/" + std::to_string(i)).c_str());
  world.pass();
  const auto told = world.take();
  EXPECT_GE(told.size(), static_cast<std::size_t>(kMany));
  EXPECT_EQ(told.at(folder + "/0"), kRemoved | kIsFile);
}

TEST_F(PolledRegionTest, IsDueAgainWithinTheShareOfAProcessor) {
  for (int i = 0; i < 50; ++i) writeFile(in(std::to_string(i)), "");
  PolledWorld::letStampsGoOn();
  PolledWorld world(base_.path());
  const auto begin = PolledWorld::Region::Clock::now();
  ASSERT_TRUE(world.region().due().has_value());
  EXPECT_GE(*world.region().due(), begin + std::chrono::milliseconds(900));
  // Not due: nothing is looked at.
  writeFile(in("new"), "");
  EXPECT_EQ(world.region().work(world, std::chrono::seconds(1)), world.region().due());
  EXPECT_EQ(world.take(), Told{});
  timespec before{}, after{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
  world.pass();
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
  EXPECT_EQ(world.take().size(), 1U);
  const auto spent = (after.tv_sec - before.tv_sec) * 1'000'000'000LL + (after.tv_nsec - before.tv_nsec);
  EXPECT_GE(world.region().interval(), std::chrono::seconds(1));
  EXPECT_LE(world.region().interval(), std::max<std::chrono::nanoseconds>(std::chrono::seconds(1), std::chrono::nanoseconds(spent) * 100) +
                                           std::chrono::milliseconds(1));
}

TEST_F(PolledRegionTest, IsNeverDueWhileItIsEmpty) {
  PolledWorld world(base_.path());
  world.removeFromRegion(0);
  EXPECT_TRUE(world.region().empty());
  EXPECT_FALSE(world.region().due().has_value());
  EXPECT_FALSE(world.region().work(world, std::chrono::seconds(1)).has_value());
}

}  // namespace
}  // namespace kestrine::test
