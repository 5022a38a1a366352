#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/StreamTest.h"
#include "tests/support/Sleep.h"

// What wakes a stream in whose folders nothing happens.

namespace kestrine::test {
namespace {

/// What `later` has more, in all and told by thread.
struct WakeUps {
  long count = 0;
  std::string text;
};
WakeUps difference(const std::map<std::string, long>& before, const std::map<std::string, long>& later) {
  WakeUps all;
  for (const auto& [thread, sleeps] : later) {
    const auto former = before.find(thread);
    const long more = sleeps - (former == before.end() ? 0 : former->second);
    all.count += more;
    if (more != 0) all.text += thread + ": " + std::to_string(more) + "\n";
  }
  return all;
}

class StreamIdle : public StreamTest {
 protected:
  void makeFolders() const {
    constexpr int kEach = 100;
    const int outer = longOrShort(100, 5);
    for (int i = 0; i < outer; ++i) {
      makeFolder(in(std::to_string(i)));
      for (int j = 1; j < kEach; ++j) makeFolder(in(std::to_string(i) + "/" + std::to_string(j)));
    }
  }
};
KESTRINE_PER_SOURCE(StreamIdle);

TEST_P(StreamIdle, WakesForWhatIsMountedElsewhereAFewTimesAndForNothingElse) {
  if (const auto why = whySleepIsNotOurs(); !why.empty()) GTEST_SKIP() << "left out: sleep of all threads, because " << why;
  inMountNamespace([this] {
    makeFolders();
    const TemporaryDirectory elsewhere;
    makeFolder(elsewhere / "point");
    makeFolder(elsewhere / "busy");
    const auto stream = watchRoot();
    ASSERT_TRUE(stream->started());
    std::string why;
    const auto before = sleepsAtRest(::getpid(), why);
    ASSERT_TRUE(before) << "it never came to rest: " << why;
    EXPECT_FALSE(before->empty());

    constexpr int kMounts = 100;
    constexpr std::chrono::milliseconds kPause(50);
    const auto disturb = [&](int round) {
      const std::string name = elsewhere / ("busy/" + std::to_string(round));
      writeFile(name, "text");
      std::filesystem::rename(name, name + ".moved");
      makeFolder(name);
      std::this_thread::sleep_for(kPause);
    };
    for (int i = 0; i < kMounts; ++i) disturb(i);
    EXPECT_EQ(difference(*before, sleepsOf(::getpid())).text, "") << "for changes in other folders";

    for (int i = 0; i < kMounts; ++i) {
      mountAt(elsewhere / "point", "tmpfs");
      disturb(kMounts + i);
      unmountAt(elsewhere / "point");
      disturb(2 * kMounts + i);
    }
    // Each comes and goes; for each of these the stream may look at the table, and at most be interrupted by another thread in doing so.
    constexpr long kWakeUpsEach = 2;
    const auto after = sleepsAtRest(::getpid(), why);
    ASSERT_TRUE(after) << "it never came to rest again: " << why;
    const WakeUps woken = difference(*before, *after);
    EXPECT_LE(woken.count, 2 * kMounts * kWakeUpsEach) << woken.text;
    EXPECT_GE(woken.count, 1) << "nobody noticed anything, or sleep is not seen";
    EXPECT_TRUE(stream->events().empty()) << stream->describe();

    // It was asleep, not dead.
    writeFile(in("3/file"), "text");
    EXPECT_TRUE(stream->waitFor(in("3/file"), kCreated)) << stream->describe();
  });
}

}  // namespace
}  // namespace kestrine::test
