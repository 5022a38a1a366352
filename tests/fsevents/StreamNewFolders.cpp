#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <set>

#include "platform/foundation/base/FileHandle.h"
#include "tests/fsevents/support/StreamTest.h"

// Folders made while the stream watches, and what is put into them at once: before the stream can know of the folder.

namespace kestrine::test {
namespace {

class StreamNewFolders : public StreamTest {};
KESTRINE_PER_SOURCE(StreamNewFolders);

TEST_P(StreamNewFolders, MadeDeepWithAFileAtOnceMissNothing) {
  const int repeats = longOrShort(500, 80);
  const auto stream = watchRoot();
  for (int i = 0; i < repeats; ++i) {
    const auto top = in(std::to_string(i));
    makeFolders(top + "/a/b/c/d");
    writeFile(top + "/a/b/c/d/file", "text");
  }
  stream->flush();
  for (int i = 0; i < repeats; ++i) {
    for (const auto* name : {"", "/a", "/a/b", "/a/b/c", "/a/b/c/d"}) {
      EXPECT_EQ(stream->flagsOf(in(std::to_string(i)) + name) & (kCreated | kKinds), kCreated | kIsFolder) << i << name;
    }
    EXPECT_EQ(stream->flagsOf(in(std::to_string(i)) + "/a/b/c/d/file") & (kCreated | kKinds), kCreated | kIsFile) << i;
  }
  EXPECT_EQ(stream->allFlags() & kMustScan, 0U);
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(StreamNewFolders, MadeOneByOneAreEachReady) {
  const int repeats = longOrShort(200, 40);
  const auto stream = watchRoot();
  for (int i = 0; i < repeats; ++i) {
    const auto top = in(std::to_string(i));
    makeFolders(top + "/a/b");
    writeFile(top + "/a/b/file", "text");
    stream->flush();
    ASSERT_NE(stream->flagsOf(top + "/a/b/file") & kCreated, 0U) << i << "\n" << stream->describe();
    // What was made before the flush is watched after it, so this is told exactly.
    stream->clear();
    appendFile(top + "/a/b/file", "more");
    removeItem(top + "/a/b/file");
    stream->flush();
    ASSERT_EQ(stream->flagsOf(top + "/a/b/file") & (kModified | kRemoved), kModified | kRemoved) << i << "\n" << stream->describe();
    stream->clear();
  }
}

// Files keep coming while the stream looks at a folder that takes long to list: whatever the listing passed by must be told by the mark.
TEST_P(StreamNewFolders, ThatAreFilledWhileTheyAreListedMissNothing) {
  const int rounds = longOrShort(10, 2);
  // In memory fewer are listed before the writer has had a turn. A folder that is listed before it is marked is noticed ten times out of
  // ten.
  constexpr int kBefore = 12000;
  constexpr int kMost = 8000;
  const auto stream = watchRoot();
  for (int round = 0; round < rounds; ++round) {
    const auto name = "new" + std::to_string(round);
    makeFolders(outside(name + "/large"));
    for (int i = 0; i < kBefore; ++i) writeFile(outside(name + "/large/early") + std::to_string(i), "");
    const platform::FileHandle folder(::open(outside(name + "/large").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::atomic<bool> enough = false;
    int made = 0;
    std::thread writer([&] {
      for (; made < kMost && !enough; ++made) {
        const auto late = "late" + std::to_string(made);
        const platform::FileHandle file(::openat(folder.fileDescriptor(), late.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        ASSERT_TRUE(file.isOpen()) << late;
        // In memory it would be through before the listing begins.
        std::this_thread::sleep_for(std::chrono::microseconds(20));
      }
    });
    moveItem(outside(name), in(name));
    EXPECT_TRUE(stream->waitFor(in(name + "/large/early0"), 0));
    enough = true;
    writer.join();
    stream->flush();
    std::set<std::string> paths;
    for (const auto& event : stream->events()) paths.insert(event.path);
    stream->clear();
    for (int i = 0; i < made; ++i) ASSERT_TRUE(paths.contains(in(name + "/large/late" + std::to_string(i)))) << i << " of " << made;
  }
}

// The stream may find a folder in the last of its places before it reads how it came there, and the place itself may move just then: at any
// moment of the pause after which the stream reads in a storm.
TEST_P(StreamNewFolders, ThatMoveIntoOneAnotherAtOnceAreWatched) {
  const int repeats = longOrShort(200, 40);
  const auto stream = watchRoot();
  std::mt19937 random(std::random_device{}());
  for (int i = 0; i < repeats; ++i) {
    const auto top = in(std::to_string(i % 8));
    makeFolders(top + "/first/moved/inner");
    if (i % 2 == 0) stream->flush();
    makeFolders(top + "/second/taking");
    moveItem(top + "/first/moved", top + "/once");
    moveItem(top + "/once", top + "/second/taking/twice");
    makeFolder(top + "/third");
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 25000));
    moveItem(top + "/second/taking", top + "/third/taken");
    stream->flush();
    stream->clear();
    const auto folders = {top + "/third/taken", top + "/third/taken/twice", top + "/third/taken/twice/inner"};
    for (const auto& folder : folders) writeFile(folder + "/file", "text");
    stream->flush();
    for (const auto& folder : folders) {
      ASSERT_NE(stream->flagsOf(folder + "/file") & kCreated, 0U) << i << " " << folder << "\n" << stream->describe();
    }
    removeTree(top);
    stream->flush();
    stream->clear();
  }
}

TEST_P(StreamNewFolders, MadeBySeveralThreadsAtOnceMissNothing) {
  const int repeats = longOrShort(100, 20);
  const auto stream = watchRoot();
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < repeats; ++i) {
        const auto top = in(std::to_string(thread) + "-" + std::to_string(i));
        makeFolders(top + "/x/y");
        for (int file = 0; file < 5; ++file) touchFile(top + "/x/y/" + std::to_string(file));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  stream->flush();
  std::set<std::string> told;
  for (const auto& event : stream->events()) told.insert(event.path);
  for (int thread = 0; thread < 4; ++thread) {
    for (int i = 0; i < repeats; ++i) {
      for (int file = 0; file < 5; ++file) {
        const auto path = in(std::to_string(thread) + "-" + std::to_string(i)) + "/x/y/" + std::to_string(file);
        EXPECT_TRUE(told.contains(path)) << path;
      }
    }
  }
  EXPECT_EQ(stream->allFlags() & kMustScan, 0U);
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(StreamNewFolders, RenamedAtOnceAreToldWithWhatIsInThem) {
  const int repeats = longOrShort(300, 60);
  const auto stream = watchRoot();
  for (int i = 0; i < repeats; ++i) {
    const auto name = std::to_string(i);
    makeFolders(in("new" + name) + "/sub");
    writeFile(in("new" + name) + "/sub/file", "text");
    moveItem(in("new" + name), in("final" + name));
    writeFile(in("final" + name) + "/sub/second", "text");
  }
  stream->flush();
  for (int i = 0; i < repeats; ++i) {
    const auto name = std::to_string(i);
    EXPECT_NE(stream->flagsOf(in("final" + name)) & (kRenamed | kCreated), 0U) << i;
    // Which name a file is told under depends on what the folder was called when it was found.
    for (const auto* file : {"/sub/file", "/sub/second"}) {
      EXPECT_TRUE(stream->tells(in("new" + name) + file) || stream->tells(in("final" + name) + file)) << i << file;
    }
  }
  EXPECT_EQ(stream->allFlags() & kMustScan, 0U);
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(StreamNewFolders, FilesWrittenWhileTheirFolderIsRenamedMissNothing) {
  const int folders = longOrShort(100, 20);
  const auto stream = watchRoot();
  for (int i = 0; i < folders; ++i) {
    const auto name = std::to_string(i);
    makeFolder(in(name));
    std::thread writer([&] {
      for (int file = 0; file < 20; ++file) {
        // The folder is renamed meanwhile; one of its two names is right at any moment, and the loop finds it.
        for (;;) {
          const int descriptor = ::open((in(name) + "/" + std::to_string(file)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
          const int other =
              descriptor >= 0 ? -1 : ::open((in(name) + "r/" + std::to_string(file)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
          if (descriptor >= 0) ::close(descriptor);
          if (other >= 0) ::close(other);
          if (descriptor >= 0 || other >= 0) break;
        }
      }
    });
    for (int turn = 0; turn < 3; ++turn) {
      moveItem(in(name), in(name) + "r");
      if (turn < 2) moveItem(in(name) + "r", in(name));
    }
    writer.join();
  }
  stream->flush();
  for (int i = 0; i < folders; ++i) {
    const auto name = std::to_string(i);
    for (int file = 0; file < 20; ++file) {
      const auto last = "/" + std::to_string(file);
      EXPECT_TRUE(stream->tells(in(name) + last) || stream->tells(in(name) + "r" + last)) << i << last;
    }
  }
  EXPECT_EQ(stream->allFlags() & kMustScan, 0U);
  stream->clear();
  for (int i = 0; i < folders; ++i) touchFile(in(std::to_string(i)) + "r/late");
  stream->flush();
  for (int i = 0; i < folders; ++i) EXPECT_TRUE(stream->tells(in(std::to_string(i)) + "r/late")) << i;
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

TEST_P(StreamNewFolders, RemovedAtOnceLeaveNoMarks) {
  const int repeats = longOrShort(500, 80);
  const auto stream = watchRoot();
  for (int i = 0; i < repeats; ++i) {
    makeFolders(in("d/e/f"));
    writeFile(in("d/e/f/file"), "text");
    removeTree(in("d"));
  }
  stream->flush();
  EXPECT_EQ(stream->flagsOf(in("d")) & (kCreated | kRemoved), kCreated | kRemoved) << stream->describe();
  EXPECT_EQ(stream->allFlags() & kMustScan, 0U);
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

}  // namespace
}  // namespace kestrine::test
