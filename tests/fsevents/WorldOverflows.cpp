#include <unistd.h>

#include <ctime>
#include <set>
#include <thread>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/StreamProcess.h"
#include "tests/fsevents/support/WorldTest.h"

// What the stream's own work does to the kernel's queue and limits.

namespace kestrine::test {
namespace {

// More than the 16,384 events that a queue holds for a user without privileges.
constexpr int kMoreThanTheQueue = 17000;

class WorldOverflows : public WorldTest {
 protected:
  static void makeFlat(const std::string& top, int count) {
    makeFolders(top);
    for (int i = 0; i < count; ++i) makeFolder(top + "/" + std::to_string(i));
  }
  static std::chrono::nanoseconds timeUsed() {
    timespec time{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  }
};
KESTRINE_PER_SOURCE(WorldOverflows);

TEST_P(WorldOverflows, AreNotMadeByALargeTreeThatMovesOut) {
  makeFlat(in("large"), kMoreThanTheQueue);
  makeFolders(in("beside"));
  const auto stream = watchRoot();
  moveItem(in("large"), outside("large"));
  EXPECT_TRUE(isWatched(*stream, in("beside"), "at-once"));
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  EXPECT_TRUE(isWatched(*stream, in("beside"), "later"));
  EXPECT_NE(stream->flagsOf(in("large")) & kRenamed, 0U);
  EXPECT_TRUE(nothingIsLost(*stream));
  EXPECT_EQ(stream->stream().status().objectForKey("losses").count(), 0U) << stream->stream().status().description();
}

TEST_P(WorldOverflows, AreNotMadeByALargeTreeThatIsRemoved) {
  // In a few folders at a time, so that the changes themselves fit the queue.
  makeFlat(in("large"), kMoreThanTheQueue);
  const auto stream = watchRoot();
  for (int i = 0; i < kMoreThanTheQueue; ++i) {
    removeItem(in("large/" + std::to_string(i)));
    if (i % 1000 == 0) stream->flush();
  }
  stream->flush();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  EXPECT_TRUE(nothingIsLost(*stream));
}

TEST_P(WorldOverflows, AreNotMadeByALargeTreeThatBecomesExcluded) {
  makeFlat(in("large"), kMoreThanTheQueue);
  const auto stream = watch({.paths = {root_}, .exclusions = {in("skip")}});
  moveItem(in("large"), in("skip"));
  stream->flush();
  EXPECT_TRUE(eventually([&] { return kernelMarks().size() < 100; })) << kernelMarks().size();
  EXPECT_TRUE(isWatched(*stream, root_, "file"));
  EXPECT_TRUE(nothingIsLost(*stream));
}

TEST_P(WorldOverflows, OfWorkDoNotFollowFromFoldersThatMoveOutOneByOne) {
  // As a user who cannot take a mark from a folder that has gone.
  inMountNamespace(
      [this] {
        constexpr int kStaying = 8000;
        constexpr int kLeaving = 10;
        makeFlat(in("staying"), kStaying);
        makeFlat(in("leaving"), kLeaving);
        const auto beforeTheStart = timeUsed();
        const auto stream = watchRoot();
        const auto toMarkAll = timeUsed() - beforeTheStart;
        const auto before = timeUsed();
        for (int i = 0; i < kLeaving; ++i) {
          moveItem(in("leaving/") + std::to_string(i), outside(std::to_string(i)));
          stream->flush();
          // Long enough a quiet time for whatever is put off until then.
          std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        }
        EXPECT_LT(std::chrono::duration<double>(timeUsed() - before).count(), 3 * std::chrono::duration<double>(toMarkAll).count())
            << "every folder was marked anew each time";
        EXPECT_TRUE(isWatched(*stream, in("staying/7"), "file"));
        EXPECT_TRUE(nothingIsLost(*stream));
      },
      Rights::OfAnOrdinaryUser);
}

TEST_P(WorldOverflows, OfTheLimitAreNotNeededToFreeMarks) {
  inMountNamespace(
      [this] {
        constexpr int kStaying = 300;
        constexpr int kLeaving = 60;
        makeFlat(in("staying"), kStaying);
        makeFlat(in("leaving"), kLeaving);
        // Far more than half of it is in use, so that a second queue with all the marks is not to be had.
        limitMarks(kStaying + kLeaving + 40);
        const auto stream = watchRoot();
        for (int turn = 0; turn < 3; ++turn) {
          moveItem(in("leaving"), outside("leaving" + std::to_string(turn)));
          stream->flush();
          makeFlat(in("leaving"), kLeaving);
          EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
          stream->clear();
          EXPECT_TRUE(isWatched(*stream, in("leaving/7"), "file"));
          EXPECT_TRUE(nothingIsLost(*stream));
        }
      },
      Rights::OfAnOrdinaryUser);
}

TEST_P(WorldOverflows, AreNotForAStreamWithRootsRights) {
  if (::geteuid() != 0) GTEST_SKIP() << "left out: the unlimited queue, because it takes root's rights";
  if (GetParam() == Source::Inotify) GTEST_SKIP() << "left out: an unlimited queue, because inotify has none";
  for (int i = 0; i < 20; ++i) makeFolder(in(std::to_string(i)));
  StreamProcess process({.paths = {root_}, .source = sourceName(GetParam())});
  ASSERT_EQ(process.source(), sourceName(GetParam())) << process.error();
  process.halt();
  for (int i = 0; i < kMoreThanTheQueue; ++i) touchFile(in(std::to_string(i % 20)) + "/" + std::to_string(i));
  process.goOn();
  std::set<std::string> paths;
  for (const auto& event : process.flush()) {
    EXPECT_EQ(event.flags & (kMustScan | kKernelDropped), 0U) << describeEvent(event);
    paths.insert(event.path);
  }
  for (int i = 0; i < kMoreThanTheQueue; ++i) EXPECT_TRUE(paths.contains(in(std::to_string(i % 20)) + "/" + std::to_string(i))) << i;
  EXPECT_EQ(process.statusNumber("losses"), 0U);
}

}  // namespace
}  // namespace kestrine::test
