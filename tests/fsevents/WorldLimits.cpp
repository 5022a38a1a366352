#include <algorithm>
#include <filesystem>
#include <set>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/WorldTest.h"

// Beyond the kernel's limit of marks folders are polled. Folders that move between those that are watched and those that are polled.

namespace kestrine::test {
namespace {

class WorldLimits : public WorldTest {
 protected:
  static constexpr int kLimit = 40;
  static constexpr int kFolders = 60;

  // In a user namespace of its own, where the limits can be lowered and count what is marked in it only.
  void run(const std::function<void()>& body) {
    inMountNamespace(
        [&] {
          for (int i = 0; i < kFolders; ++i) makeFolders(folder(i) + "/sub");
          body();
        },
        Rights::OfAnOrdinaryUser);
  }
  [[nodiscard]] std::string folder(int index) const { return in("f" + std::to_string(index)); }
  // Folders with nothing of theirs (and nothing above but the root) marked, and such with everything marked.
  void sortFolders(std::vector<std::string>& marked, std::vector<std::string>& polled) const {
    for (int i = 0; i < kFolders; ++i) {
      const bool top = isMarked(folder(i));
      const bool sub = isMarked(folder(i) + "/sub");
      if (top && sub) marked.push_back("f" + std::to_string(i));
      if (!top && !sub) polled.push_back("f" + std::to_string(i));
    }
    ASSERT_GE(marked.size(), 6U);
    ASSERT_GE(polled.size(), 6U);
  }
  // A change in each of the folders and its "sub", all at once, since each pass of the polling takes a second at least.
  static testing::AssertionResult arePolled(WatchedStream& stream, const std::vector<std::string>& folders, const std::string& name) {
    std::set<std::string> files;
    for (const auto& folder : folders) files.insert({folder + "/" + name, folder + "/sub/" + name});
    for (const auto& file : files) writeFile(file, "text");
    return areTold(stream, files);
  }
  static testing::AssertionResult areTold(WatchedStream& stream, const std::set<std::string>& files) {
    std::set<std::string> missing;
    const bool all = stream.waitUntil([&](const std::vector<FSEvent>& events) {
      missing = files;
      // As created, or, with the folder that brought it along, as renamed.
      for (const auto& event : events) {
        if ((event.flags & (kCreated | kRenamed)) != 0) missing.erase(event.path);
      }
      return missing.empty();
    });
    if (all) return testing::AssertionSuccess();
    return testing::AssertionFailure() << missing.size() << " of " << files.size() << " not told, as " << *missing.begin() << ": "
                                       << stream.describe();
  }
  // Whatever happened on the way, from now on each folder is told, under its own path and none of its former ones.
  void expectAllIsTold(WatchedStream& stream, const std::string& name) {
    std::set<std::string> files;
    stream.flush();
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
      if (entry.is_directory()) files.insert(entry.path().string() + "/" + name);
    }
    stream.clear();
    for (const auto& file : files) writeFile(file, "text");
    EXPECT_TRUE(areTold(stream, files));
    for (const auto& event : stream.events()) {
      EXPECT_TRUE(std::filesystem::exists(event.path)) << "of nothing: " << describeEvent(event);
    }
    EXPECT_TRUE(nothingIsLost(stream));
  }
};
KESTRINE_PER_SOURCE(WorldLimits);

TEST_P(WorldLimits, AreCrossedByFoldersThatMoveBothWays) {
  run([this] {
    limitMarks(kLimit);
    const auto stream = watchRoot();
    std::vector<std::string> marked;
    std::vector<std::string> polled;
    ASSERT_NO_FATAL_FAILURE(sortFolders(marked, polled));
    const std::string m0 = in(marked[0]);
    const std::string m1 = in(marked[1]);
    const std::string p0 = in(polled[0]);
    const std::string p1 = in(polled[1]);
    // Each into one of the other kind, and of its own.
    moveItem(m0, p0 + "/m");
    moveItem(p1, m1 + "/p");
    moveItem(in(marked[2]), in(marked[3]) + "/m");
    moveItem(in(polled[2]), in(polled[3]) + "/p");
    EXPECT_TRUE(arePolled(*stream, {p0 + "/m", m1 + "/p", in(marked[3]) + "/m", in(polled[3]) + "/p"}, "there"));
    for (const auto& gone : {m0, p1}) EXPECT_FALSE(stream->tellsBelow(gone)) << gone << stream->describe();
    moveItem(p0 + "/m", m0);
    moveItem(m1 + "/p", p1);
    EXPECT_TRUE(arePolled(*stream, {m0, p1}, "back"));
    expectAllIsTold(*stream, "atLast");
  });
}

TEST_P(WorldLimits, AreCrossedByManyAtOnce) {
  run([this] {
    limitMarks(kLimit);
    const auto stream = watchRoot();
    std::vector<std::string> marked;
    std::vector<std::string> polled;
    ASSERT_NO_FATAL_FAILURE(sortFolders(marked, polled));
    const auto count = std::min(marked.size(), polled.size());
    for (int turn = 0; turn < 3; ++turn) {
      for (std::size_t i = 0; i < count; ++i) {
        const bool there = turn % 2 == 0;
        const auto one = in(marked[i]);
        const auto other = in(polled[i]);
        // Half of them by exchange, half into each other.
        if (i % 2 == 0) {
          exchangeItems(one, other);
        } else if (i % 4 == 1) {
          there ? moveItem(one, other + "/in") : moveItem(other + "/in", one);
        } else {
          there ? moveItem(other, one + "/in") : moveItem(one + "/in", other);
        }
      }
      std::vector<std::string> exchanged;
      for (std::size_t i = 0; i < count; i += 2) exchanged.push_back(in(marked[i]));
      EXPECT_TRUE(arePolled(*stream, exchanged, "turn" + std::to_string(turn)));
    }
    expectAllIsTold(*stream, "atLast");
  });
}

TEST_P(WorldLimits, MoveWithAFolderAboveBothKinds) {
  run([this] {
    makeFolders(in("top"));
    for (int i = 0; i < kFolders; ++i) moveItem(folder(i), in("top/f" + std::to_string(i)));
    limitMarks(kLimit);
    const auto stream = watchRoot();
    moveItem(in("top"), in("other"));
    std::vector<std::string> moved;
    for (int i = 0; i < kFolders; ++i) moved.push_back(in("other/f" + std::to_string(i)));
    EXPECT_TRUE(arePolled(*stream, moved, "file"));
    EXPECT_FALSE(stream->tellsBelow(in("top"))) << stream->describe();
    expectAllIsTold(*stream, "atLast");
  });
}

TEST_P(WorldLimits, AreNotHeldByWhatMovedOutOrIsGone) {
  run([this] {
    limitMarks(kLimit);
    const auto stream = watchRoot();
    std::vector<std::string> marked;
    std::vector<std::string> polled;
    ASSERT_NO_FATAL_FAILURE(sortFolders(marked, polled));
    moveItem(in(marked[0]), outside("m"));
    moveItem(in(polled[0]), outside("p"));
    removeTree(in(marked[1]));
    removeTree(in(polled[1]));
    ASSERT_TRUE(stream->waitFor(in(marked[0]), kRenamed)) << stream->describe();
    EXPECT_TRUE(eventually([&] { return (stream->flagsOf(in(polled[0])) & (kRenamed | kRemoved)) != 0; }));
    EXPECT_TRUE(stream->waitFor(in(polled[1]), kRemoved)) << stream->describe();
    stream->clear();
    for (const auto* gone : {"m", "p"}) writeFile(outside(gone) + "/sub/file", "text");
    expectAllIsTold(*stream, "atLast");
    // What they held serves others: the limit is in use again, but for what the way to the watched path takes.
    EXPECT_TRUE(eventually([&] { return kernelMarks().size() + 2 >= static_cast<std::size_t>(kLimit); })) << kernelMarks().size();
  });
}

TEST_P(WorldLimits, ReachedByNewFoldersAreToldOf) {
  run([this] {
    limitMarks(2 * kFolders + 40);
    const auto stream = watchRoot();
    EXPECT_TRUE(isWatched(*stream, folder(kFolders - 1) + "/sub", "exact"));
    for (int i = 0; i < 50; ++i) {
      makeFolders(in("new/" + std::to_string(i) + "/a/b"));
      writeFile(in("new/" + std::to_string(i) + "/a/b/file"), "text");
    }
    for (int i = 0; i < 50; ++i) {
      const auto file = in("new/" + std::to_string(i) + "/a/b/file");
      EXPECT_TRUE(stream->waitUntil([&](const auto& events) {
        return std::any_of(events.begin(), events.end(), [&](const FSEvent& event) { return coversPath(event, file); });
      })) << file;
    }
    expectAllIsTold(*stream, "atLast");
  });
}

TEST_P(WorldLimits, RaisedAgainEndThePolling) {
  run([this] {
    limitMarks(kLimit);
    const auto stream = watchRoot();
    EXPECT_TRUE(isPolled(*stream, folder(kFolders - 1) + "/sub", "one"));
    EXPECT_TRUE(isPolled(*stream, folder(0) + "/sub", "one"));
    limitMarks(100000);
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
    stream->flush();
    stream->clear();
    for (int i = 0; i < kFolders; ++i) EXPECT_TRUE(isWatched(*stream, folder(i) + "/sub", "exact"));
    EXPECT_TRUE(nothingIsLost(*stream));
    // And once more, now with everything marked: what is new beyond the limit is polled.
    limitMarks(kLimit);
    makeFolders(in("late/deep"));
    EXPECT_TRUE(isPolled(*stream, in("late/deep"), "file"));
    expectAllIsTold(*stream, "atLast");
  });
}

TEST_P(WorldLimits, OfQueuesAtTheStartLeaveEverythingPolled) {
  run([this] {
    limitQueues(0);
    WatchedStream stream(GetParam(), {.paths = {root_}});
    ASSERT_TRUE(stream.started());
    EXPECT_TRUE(stream.waitFor(root_, kMustScan)) << stream.describe();
    std::vector<std::string> all;
    for (int i = 0; i < kFolders; ++i) all.push_back(folder(i));
    EXPECT_TRUE(arePolled(stream, all, "polled"));
    moveItem(folder(0), folder(1) + "/in");
    EXPECT_TRUE(arePolled(stream, {folder(1) + "/in"}, "moved"));
    EXPECT_EQ(told(stream, root_, kMustScan), 1U) << stream.describe();
    EXPECT_EQ(foldersMarked(stream), 0);
    limitQueues(1000);
    EXPECT_TRUE(marksAreThoseOf(stream, {root_}));
    stream.flush();
    stream.clear();
    EXPECT_TRUE(isWatched(stream, folder(1) + "/in/sub", "exact"));
    EXPECT_TRUE(nothingIsLost(stream));
  });
}

TEST_P(WorldLimits, AreOneLossThatLastsWithTheRemedy) {
  run([this] {
    limitMarks(kLimit);
    const auto stream = watchRoot();
    for (int turn = 0; turn < 3; ++turn) EXPECT_TRUE(isPolled(*stream, folder(kFolders - 1), "file" + std::to_string(turn)));
    const auto losses = stream->stream().status().objectForKey("losses");
    ASSERT_EQ(losses.count(), 1U) << losses.description();
    const auto loss = losses.objectAtIndex(0);
    EXPECT_TRUE(loss.objectForKey("lasting").boolValue()) << losses.description();
    EXPECT_THAT(loss.objectForKey("reason").stringValue() + loss.objectForKey("remedy").stringValue(),
                testing::HasSubstr(markLimitOf(GetParam())));
    std::size_t rescans = 0;
    for (const auto& event : stream->events()) rescans += (event.flags & kMustScan) != 0 ? 1 : 0;
    EXPECT_LE(rescans, 1U) << stream->describe();
    limitMarks(100000);
    EXPECT_TRUE(eventually([&] {
      const auto now = stream->stream().status().objectForKey("losses");
      return now.count() == 0 || !now.objectAtIndex(0).objectForKey("lasting").boolValue();
    })) << stream->stream().status().description();
  });
}

}  // namespace
}  // namespace kestrine::test
