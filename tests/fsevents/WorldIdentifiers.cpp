#include <sys/stat.h>

#include <algorithm>
#include <ctime>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/WorldTest.h"

// Identifiers while folders are only compared: what no look has seen yet must still be told to whoever begins from one.

namespace kestrine::test {
namespace {

using platform::FSEventsGetCurrentEventId;

class WorldIdentifiers : public WorldTest {
 protected:
  static constexpr int kLimit = 20;
  static constexpr int kFolders = 40;

  void run(const std::function<void()>& body) {
    inMountNamespace(
        [&] {
          for (int i = 0; i < kFolders; ++i) makeFolders(in(std::to_string(i)));
          body();
        },
        Rights::OfAnOrdinaryUser);
  }
  static std::uint64_t millisecondsOf(const timespec& time) {
    return static_cast<std::uint64_t>(time.tv_sec) * 1000 + static_cast<std::uint64_t>(time.tv_nsec) / 1'000'000;
  }
  static std::uint64_t changeTimeOf(const std::string& path) {
    struct stat facts {};
    EXPECT_EQ(::stat(path.c_str(), &facts), 0) << path;
    return millisecondsOf(facts.st_ctim);
  }
  // Until an identifier made from the clock alone would be later than the change, whatever the clock leaves for changes on their way.
  static void waitUntilLongAfter(std::uint64_t changed) {
    constexpr std::uint64_t kLong = 200;
    ASSERT_TRUE(eventually([&] {
      timespec now{};
      ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
      return millisecondsOf(now) > changed + kLong;
    }));
  }
  /// Milliseconds since 1970 stand above 22 bits of sequence.
  static std::uint64_t timeOf(platform::FSEventStreamEventId id) { return id >> 22U; }
  static bool isHistoryOf(const std::vector<FSEvent>& events, const std::string& path) {
    const auto any = [&](const auto& condition) { return std::any_of(events.begin(), events.end(), condition); };
    return any([](const FSEvent& event) { return (event.flags & kHistoryDone) != 0; }) &&
           any([&](const FSEvent& event) { return coversPath(event, path); });
  }
};
KESTRINE_PER_SOURCE(WorldIdentifiers);

TEST_P(WorldIdentifiers, AreNotLaterThanAChangeThatWasNotComparedYet) {
  run([this] {
    limitMarks(kLimit);
    auto stream = watchRoot();
    std::string compared;
    for (int i = 0; i < kFolders && compared.empty(); ++i) {
      if (!isMarked(in(std::to_string(i)))) compared = in(std::to_string(i));
    }
    ASSERT_NE(compared, "");
    stream->flush();
    stream->clear();  // of the limit a rescan of everything was told
    platform::FSEventStreamEventId since = 0;
    std::string file;
    std::uint64_t changed = 0;
    int files = 0;
    // Where the look comes first it is told, and nothing is to be seen: then once more.
    ASSERT_TRUE(eventually([&] {
      file = compared + "/" + std::to_string(++files);
      writeFile(file, "text");
      changed = changeTimeOf(file);
      waitUntilLongAfter(changed);
      since = FSEventsGetCurrentEventId();
      return !stream->covers(file);
    }));
    EXPECT_LE(timeOf(since), changed);
    // Whoever goes on from there with a new stream is told.
    stream.reset();
    stream = watch({.paths = {root_}, .since = since});
    EXPECT_TRUE(stream->waitUntil([&](const auto& events) { return isHistoryOf(events, file); })) << stream->describe();
    stream->flush();
    EXPECT_TRUE(eventually([&] { return timeOf(FSEventsGetCurrentEventId()) > changed; })) << "what was compared holds identifiers back";
  });
}

}  // namespace
}  // namespace kestrine::test
