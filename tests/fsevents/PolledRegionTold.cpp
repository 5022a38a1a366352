#include <fcntl.h>

#include "tests/fsevents/support/PolledWorld.h"

// Folders whose changes the kernel tells too, since only some of those who write to them are on this machine.

namespace kestrine::test {
namespace {

using Told = std::map<std::string, FSEventStreamEventFlags>;

class PolledRegionTold : public testing::Test {
 protected:
  [[nodiscard]] std::string in(const std::string& name) const { return base_ / name; }
  void kernelTells(PolledWorld& world, const std::string& name, FSEventStreamEventFlags flags) const {
    const platform::FileHandle folder(::open(base_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    world.region().told(world.nodeOf(base_.path()), folder.fileDescriptor(), name, flags);
  }
  TemporaryDirectory base_;
};

TEST_F(PolledRegionTold, IsNotToldAgain) {
  writeFile(in("old"), "text");
  writeFile(in("gone"), "text");
  writeFile(in("here"), "text");
  PolledWorld world(base_.path());
  world.settle();
  writeFile(in("new"), "");
  appendFile(in("old"), "more");
  removeItem(in("gone"));
  moveItem(in("here"), in("there"));
  PolledWorld::letStampsGoOn();
  kernelTells(world, "new", kCreated | kModified);
  kernelTells(world, "old", kModified);
  kernelTells(world, "gone", kRemoved);
  kernelTells(world, "here", kRenamed);
  kernelTells(world, "there", kRenamed);
  for (int i = 0; i < 3; ++i) {
    world.pass();
    EXPECT_EQ(world.take(), Told{});
    PolledWorld::letStampsGoOn();
  }
  // What the others do with the same items afterwards is.
  removeItem(in("new"));
  appendFile(in("old"), "still more");
  writeFile(in("gone"), "back");
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("new"), kRemoved | kIsFile}, {in("old"), kModified | kIsFile}, {in("gone"), kCreated | kIsFile}}));
}

TEST_F(PolledRegionTold, HidesNothingThatItDoesNotSay) {
  writeFile(in("file"), "text");
  writeFile(in("lost"), "text");
  PolledWorld world(base_.path());
  world.settle();
  // The kernel tells of a chmod and of a write; somebody else has written, and removed, at the same time.
  setMode(in("file"), 0600);
  appendFile(in("file"), "more");
  removeItem(in("lost"));
  kernelTells(world, "file", kMetadata);
  kernelTells(world, "lost", kModified);
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("file"), kModified | kIsFile}, {in("lost"), kRemoved | kIsFile}}));
}

TEST_F(PolledRegionTold, JustNowIsToldOnceMoreSinceOthersMayHaveChangedItToo) {
  writeFile(in("file"), "text");
  PolledWorld world(base_.path());
  world.settle();
  appendFile(in("file"), "more");
  kernelTells(world, "file", kModified);
  world.pass();
  EXPECT_EQ(world.take(), Told{});
  PolledWorld::letStampsGoOn();
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("file"), kModified | kIsFile}}));
  PolledWorld::letStampsGoOn();
  world.pass();
  EXPECT_EQ(world.take(), Told{});
}

TEST_F(PolledRegionTold, WhileTheFolderIsListedIsTheLaterWord) {
  for (int i = 0; i < 400; ++i) writeFile(in("f" + std::to_string(i)), "");
  PolledWorld world(base_.path(), {.slice = std::chrono::nanoseconds(1)});
  world.settle();
  // Whatever part of the folder has been listed: these are told by the kernel in the middle.
  for (int stop = 1; stop <= 6; ++stop) {
    int slice = 0;
    const std::string added = "new" + std::to_string(stop);
    const std::string gone = "f" + std::to_string(stop);
    const std::string moved = "f" + std::to_string(100 + stop);
    world.pass([&] {
      if (++slice != stop) return;
      writeFile(in(added), "");
      removeItem(in(gone));
      moveItem(in(moved), in("moved" + std::to_string(stop)));
      kernelTells(world, added, kCreated);
      kernelTells(world, gone, kRemoved);
      kernelTells(world, moved, kRenamed);
      kernelTells(world, "moved" + std::to_string(stop), kRenamed);
    });
    EXPECT_EQ(world.take(), Told{}) << "in slice " << stop;
    PolledWorld::letStampsGoOn();
    world.pass();
    PolledWorld::letStampsGoOn();
    world.pass();
    // Once more, at most, what was made within the step of the stamps.
    for (const auto& [path, flags] : world.take()) EXPECT_EQ(flags, kModified | kIsFile) << path;
  }
}

TEST_F(PolledRegionTold, AfterTheLookTakesBackWhatWaits) {
  // The first slices look, the next tell: what the kernel says in between is true, what the look saw is old.
  for (int i = 0; i < 200; ++i) writeFile(in("f" + std::to_string(i)), "");
  PolledWorld world(base_.path(), {.slice = std::chrono::nanoseconds(1)});
  world.settle();
  for (int i = 0; i < 200; ++i) removeItem(in("f" + std::to_string(i)));
  for (int i = 0; i < 100; ++i) writeFile(in("n" + std::to_string(i)), "");
  bool isDone = false;
  world.pass([&] {
    if (isDone || world.log().empty()) return;
    isDone = true;
    // Each of these is about to be told, or was.
    for (int i = 0; i < 200; ++i) {
      const std::string name = "f" + std::to_string(i);
      writeFile(in(name), "");
      kernelTells(world, name, kCreated);
    }
    world.take();
  });
  ASSERT_TRUE(isDone);
  for (const auto& [path, flags] : world.take()) {
    if (path.starts_with(in("f"))) {
      EXPECT_EQ(flags & kRemoved, 0U) << path << " is there";
    }
  }
}

TEST_F(PolledRegionTold, AsWrittenToIsStillNew) {
  // The mark came between its making and the writing: the kernel tells the one, the look the other.
  for (int i = 0; i < 100; ++i) writeFile(in("f" + std::to_string(i)), "");
  PolledWorld world(base_.path(), {.slice = std::chrono::nanoseconds(1)});
  world.settle();
  writeFile(in("new"), "");
  int slice = 0;
  world.pass([&] {
    if (++slice != 3) return;
    appendFile(in("new"), "text");
    kernelTells(world, "new", kModified);
  });
  ASSERT_GE(slice, 3);
  EXPECT_NE(world.flagsOf(in("new")) & kCreated, 0U);
}

TEST_F(PolledRegionTold, ByAListingAndGoneBeforeTheFirstLookIsToldAsGone) {
  writeFile(in("old"), "");
  PolledWorld world(base_.path());
  world.settle();
  const auto node = world.nodeOf(base_.path());
  world.region().listed(node, "passing", kIsFile);
  world.region().listed(node, "old", kIsFile);
  writeFile(in("stays"), "");
  world.region().listed(node, "stays", kIsFile);
  PolledWorld::letStampsGoOn();
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("passing"), kRemoved | kIsFile}, {in("stays"), kModified | kIsFile}}));
}

TEST_F(PolledRegionTold, OfAFileSystemWithAClockOfItsOwnIsDoubtedByWhatMoved) {
  writeFile(in("old"), "text");
  PolledWorld::letStampsGoOn();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  writeFile(in("newer"), "text");
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  PolledWorld world(base_.path(), {.foreign = true});
  for (int i = 0; i < 3; ++i) {
    PolledWorld::letStampsGoOn();
    world.pass();
  }
  // Only what may be as young as the look itself can be in question: nothing older than the newest of all.
  EXPECT_FALSE(world.take().contains(in("old")));
  appendFile(in("old"), "more");
  PolledWorld::letStampsGoOn();
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("old"), kModified | kIsFile}}));
  PolledWorld::letStampsGoOn();
  world.pass();
  EXPECT_EQ(world.take(), (Told{{in("old"), kModified | kIsFile}})) << "once more: whose clock it is nobody knows";
  PolledWorld::letStampsGoOn();
  world.pass();
  EXPECT_EQ(world.take(), Told{});
}

}  // namespace
}  // namespace kestrine::test
