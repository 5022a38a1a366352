#include <algorithm>
#include <filesystem>
#include <map>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/WorldTest.h"

// A thousand folders and marks for a hundred: what the kernel cannot watch is polled, and told in the same terms.

namespace kestrine::test {
namespace {

class StreamPolling : public WorldTest {
 protected:
  static constexpr int kFolders = 1000;
  static constexpr int kMarks = 100;

  // In a user namespace of its own, where the limits can be lowered and count what is marked in it only.
  void run(const std::function<void()>& body) {
    inMountNamespace(
        [&] {
          for (int i = 0; i < kFolders; ++i) {
            makeFolders(folder(i));
            for (const auto* name : {"written", "chmod", "removed", "moved", "saved"}) writeFile(folder(i) + "/" + name, "text");
          }
          body();
        },
        Rights::OfAnOrdinaryUser);
  }
  [[nodiscard]] std::string folder(int index) const { return in("f" + std::to_string(index)); }
  static platform::Object regionsOf(WatchedStream& stream) { return stream.stream().status().objectForKey("regions"); }
  /// What the events since the last `clear` lack of these paths and flags, and of what they must not say.
  static std::vector<std::string> missing(const WatchedStream& stream, const std::map<std::string, FSEventStreamEventFlags>& wanted) {
    std::map<std::string, FSEventStreamEventFlags> told;
    for (const auto& event : stream.events()) told[event.path] |= event.flags;
    std::vector<std::string> lines;
    for (const auto& [path, flags] : wanted) {
      const auto event = told.find(path);
      if (event == told.end() || (event->second & flags) != flags) {
        lines.push_back(path + (event == told.end() ? " not told" : " told as " + std::to_string(event->second)));
        if (lines.size() > 12) return lines;
      }
    }
    return lines;
  }
};
KESTRINE_PER_SOURCE(StreamPolling);

TEST_P(StreamPolling, TellsEveryKindOfChangeInEveryFolder) {
  run([this] {
    limitMarks(kMarks);
    const auto stream = watchRoot();
    ASSERT_TRUE(eventually([&] { return regionsOf(*stream).count() == 1; })) << stream->stream().status().description();
    const auto region = regionsOf(*stream).objectAtIndex(0);
    const auto polled = region.objectForKey("folders").longLongValue();
    EXPECT_GE(region.objectForKey("interval").doubleValue(), 1.0);
    EXPECT_EQ(polled + foldersMarked(*stream), kFolders + 1);
    EXPECT_GE(polled, kFolders - kMarks);
    stream->flush();
    stream->clear();

    std::map<std::string, FSEventStreamEventFlags> wanted;
    for (int i = 0; i < kFolders; ++i) {
      const std::string at = folder(i) + "/";
      writeFile(at + "created", "");
      appendFile(at + "written", "more");
      setMode(at + "chmod", 0600);
      removeItem(at + "removed");
      moveItem(at + "moved", at + "there");
      writeFile(at + "draft", "other");
      moveItem(at + "draft", at + "saved");
      makeFolders(at + "new/deep");
      writeFile(at + "new/deep/file", "");
      wanted[at + "created"] = kCreated | kIsFile;
      wanted[at + "written"] = kModified | kIsFile;
      wanted[at + "chmod"] = kMetadata | kIsFile;
      wanted[at + "removed"] = kRemoved;
      wanted[at + "moved"] = kRenamed;
      wanted[at + "there"] = kRenamed | kIsFile;
      wanted[at + "saved"] = 0;
      wanted[at + "new"] = kCreated | kIsFolder;
      wanted[at + "new/deep"] = kCreated | kIsFolder;
      wanted[at + "new/deep/file"] = kCreated | kIsFile;
    }
    stream->flush();
    EXPECT_EQ(missing(*stream, wanted), std::vector<std::string>{});
    EXPECT_TRUE(nothingIsLost(*stream));
    stream->clear();

    // And away again, with what is in it by name, as the kernel tells it.
    wanted.clear();
    for (int i = 0; i < kFolders; ++i) {
      removeTree(folder(i) + "/new");
      for (const auto* gone : {"new", "new/deep", "new/deep/file"}) wanted[folder(i) + "/" + gone] = kRemoved;
    }
    stream->flush();
    EXPECT_EQ(missing(*stream, wanted), std::vector<std::string>{});
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(StreamPolling, TellsOfFoldersThatCrossTheBorder) {
  run([this] {
    limitMarks(kMarks);
    const auto stream = watchRoot();
    stream->flush();
    stream->clear();
    // Neighbours by number are of either kind; each goes into the one far from it.
    std::map<std::string, FSEventStreamEventFlags> wanted;
    for (int i = 0; i < kFolders / 2; i += 2) {
      moveItem(folder(i), folder(kFolders - 1 - i) + "/in");
      wanted[folder(i)] = 0;
      wanted[folder(kFolders - 1 - i) + "/in"] = 0;
    }
    stream->flush();
    EXPECT_EQ(missing(*stream, wanted), std::vector<std::string>{});
    stream->clear();
    wanted.clear();
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
      if (entry.is_directory()) wanted[entry.path().string() + "/file"] = kCreated | kIsFile;
    }
    ASSERT_EQ(wanted.size(), static_cast<std::size_t>(kFolders));
    for (const auto& [path, flags] : wanted) writeFile(path, "text");
    stream->flush();
    EXPECT_EQ(missing(*stream, wanted), std::vector<std::string>{});
    for (const auto& event : stream->events()) EXPECT_TRUE(std::filesystem::exists(event.path)) << describeEvent(event);
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(StreamPolling, EndsWhenTheLimitIsRaised) {
  run([this] {
    limitMarks(kMarks);
    const auto stream = watchRoot();
    // Steady work meanwhile: what changes while a folder goes over to the kernel is told by one or the other.
    std::map<std::string, FSEventStreamEventFlags> wanted;
    int round = 0;
    const auto work = [&] {
      for (int i = 0; i < kFolders; i += 7) {
        const std::string path = folder(i) + "/r" + std::to_string(round);
        writeFile(path, "text");
        wanted[path] = kCreated | kIsFile;
      }
      ++round;
    };
    work();
    limitMarks(100'000);
    EXPECT_TRUE(eventually([&] {
      if (round < 200) work();
      return regionsOf(*stream).count() == 0;
    })) << stream->stream().status().description();
    work();
    stream->flush();
    EXPECT_EQ(missing(*stream, wanted), std::vector<std::string>{});
    EXPECT_EQ(foldersMarked(*stream), kFolders + 1);
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
    stream->clear();
    for (int i = 0; i < kFolders; i += 50) EXPECT_TRUE(isWatched(*stream, folder(i), "exact"));
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(StreamPolling, ServesAStreamThatGetsNoQueueUntilItGetsOne) {
  run([this] {
    limitAllQueues(0);
    WatchedStream stream(GetParam(), {.paths = {root_}});
    ASSERT_TRUE(stream.started());
    EXPECT_EQ(foldersMarked(stream), 0);
    ASSERT_TRUE(eventually([&] { return regionsOf(stream).count() == 1; })) << stream.stream().status().description();
    EXPECT_EQ(regionsOf(stream).objectAtIndex(0).objectForKey("folders").longLongValue(), kFolders + 1);
    stream.flush();
    stream.clear();
    std::map<std::string, FSEventStreamEventFlags> wanted;
    for (int i = 0; i < kFolders; ++i) {
      writeFile(folder(i) + "/created", "");
      removeItem(folder(i) + "/removed");
      wanted[folder(i) + "/created"] = kCreated | kIsFile;
      wanted[folder(i) + "/removed"] = kRemoved | kIsFile;
    }
    stream.flush();
    EXPECT_EQ(missing(stream, wanted), std::vector<std::string>{});
    limitAllQueues(100);
    EXPECT_TRUE(eventually([&] { return regionsOf(stream).count() == 0; })) << stream.stream().status().description();
    EXPECT_TRUE(marksAreThoseOf(stream, {root_}));
    stream.flush();
    stream.clear();
    EXPECT_TRUE(isWatched(stream, folder(7), "exact"));
    EXPECT_TRUE(nothingIsLost(stream));
  });
}

}  // namespace
}  // namespace kestrine::test
