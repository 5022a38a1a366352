#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/WorldTest.h"

// What lies beyond the limit of marks hangs together: below a folder that is only compared everything is.

namespace kestrine::test {
namespace {

namespace fs = std::filesystem;

class WorldBorders : public WorldTest {
 protected:
  static constexpr int kLimit = 30;
  static constexpr int kFolders = 12;

  void run(const std::function<void()>& body) {
    inMountNamespace(
        [&] {
          for (int i = 0; i < kFolders; ++i) makeFolders(folder(i) + "/a/b/c");
          body();
        },
        Rights::OfAnOrdinaryUser);
  }
  [[nodiscard]] std::string folder(int index) const { return in("f" + std::to_string(index)); }
  // Marked folders in one that is not.
  [[nodiscard]] std::string markedBelowCompared() const {
    std::string found;
    for (const auto& entry : fs::recursive_directory_iterator(root_)) {
      if (isMarked(entry.path()) && !isMarked(entry.path().parent_path())) found += entry.path().string() + "\n";
    }
    return found;
  }
  [[nodiscard]] std::string firstOf(bool marked) const {
    for (int i = 0; i < kFolders; ++i) {
      if (isMarked(folder(i)) == marked && isMarked(folder(i) + "/a/b/c") == marked) return folder(i);
    }
    throw std::runtime_error("no such folder");
  }
  // Rights of root's in its namespace that an ordinary user has nowhere.
  static void obeyModes() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (::syscall(SYS_capget, &header, &data) != 0) throw std::runtime_error("capget");
    data[0].effective &= ~((1U << CAP_DAC_OVERRIDE) | (1U << CAP_DAC_READ_SEARCH));
    if (::syscall(SYS_capset, &header, &data) != 0) throw std::runtime_error("capset");
  }
};
KESTRINE_PER_SOURCE(WorldBorders);

TEST_P(WorldBorders, HaveMarkedFoldersBelowMarkedOnesOnly) {
  run([this] {
    limitMarks(kLimit);
    const auto stream = watchRoot();
    EXPECT_EQ(markedBelowCompared(), "");
    const std::string marked = firstOf(true);
    const std::string compared = firstOf(false);
    moveItem(marked, compared + "/a/in");
    stream->flush();
    // Where the kernel takes no single mark back, it goes when the queue is made anew.
    EXPECT_TRUE(eventually([&] { return markedBelowCompared().empty(); })) << markedBelowCompared();
    moveItem(compared + "/a/in/a", marked);
    moveItem(compared, marked + "/b/all");
    stream->flush();
    EXPECT_TRUE(eventually([&] { return markedBelowCompared().empty(); })) << markedBelowCompared();
    limitMarks(100'000);
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  });
}

TEST_P(WorldBorders, AreCrossedWithoutAChangeBeingMissed) {
  run([this] {
    limitMarks(kLimit);
    const auto stream = watchRoot();
    const std::string marked = firstOf(true);
    const std::string compared = firstOf(false);
    // What came before the move, and what comes after it before anybody can have looked.
    for (int turn = 0; turn < 4; ++turn) {
      stream->flush();
      stream->clear();
      const std::string name = "t" + std::to_string(turn);
      const std::string from = turn % 2 == 0 ? marked : compared + "/a/in";
      const std::string to = turn % 2 == 0 ? compared + "/a/in" : marked;
      writeFile(from + "/a/b/c/" + name, "text");
      moveItem(from, to);
      writeFile(to + "/a/b/" + name, "text");
      stream->flush();
      EXPECT_NE(stream->flagsOf(from), 0U) << stream->describe();
      const auto events = stream->events();
      for (const auto* place : {"/a/b/c/", "/a/b/"}) {
        const std::string path = to + place + name;
        EXPECT_TRUE(std::any_of(events.begin(), events.end(), [&](const FSEvent& event) { return coversPath(event, path); }))
            << path << stream->describe();
      }
      for (const auto& event : events) {
        EXPECT_TRUE(fs::exists(event.path) || event.path.starts_with(from)) << "of nothing: " << describeEvent(event);
      }
    }
  });
}

TEST_P(WorldBorders, AreNoneForFoldersThatMayBeEnteredAgain) {
  run([this] {
    obeyModes();
    limitMarks(kLimit);
    const std::string closed = folder(kFolders - 1) + "/a/b/closed";
    const std::string other = folder(0) + "/a/b/closed";
    for (const auto& path : {closed, other}) {
      makeFolders(path + "/below");
      setMode(path, 0);
    }
    const auto stream = watchRoot();
    ASSERT_NE(isMarked(folder(0) + "/a/b"), isMarked(folder(kFolders - 1) + "/a/b"));
    for (const auto& path : {closed, other}) setMode(path, 0755);
    stream->flush();
    stream->clear();  // that they could not be read was told as a loss
    for (const auto& path : {closed, other}) EXPECT_TRUE(isWatched(*stream, path + "/below", "file"));
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

}  // namespace
}  // namespace kestrine::test
