#include <future>
#include <set>
#include <thread>

#include "tests/fsevents/support/StreamProcess.h"
#include "tests/fsevents/support/WorldTest.h"

// Small things that went wrong at the seams.

namespace kestrine::test {
namespace {

class WorldSmall : public WorldTest {};
KESTRINE_PER_SOURCE(WorldSmall);

TEST_P(WorldSmall, TheRemovalOfOneWatchedPathIsNotTheMoveOfAnother) {
  const auto one = base_ / "one";
  const auto other = base_ / "other";
  for (const bool removedFirst : {true, false}) {
    makeFolders(one);
    makeFolders(other);
    StreamProcess process({.paths = {one, other}, .source = sourceName(GetParam()), .flags = kFileEvents | kWatchRoot});
    ASSERT_EQ(process.source(), sourceName(GetParam())) << process.error();
    process.halt();
    if (removedFirst) removeTree(one);
    moveItem(other, outside("moved"));
    if (!removedFirst) removeTree(one);
    process.goOn();
    const auto events = process.flush();
    EXPECT_EQ(test::flagsOf(events, one) & (kRemoved | kRenamed | kRootChanged), kRemoved | kRootChanged);
    EXPECT_EQ(test::flagsOf(events, other) & (kRemoved | kRenamed | kRootChanged), kRenamed | kRootChanged);
    removeTree(outside("moved"));
  }
}

TEST_P(WorldSmall, AStreamThatStartsIsAwakeAtOnce) {
  const int turns = longOrShort(300, 60);
  for (int turn = 0; turn < turns; ++turn) {
    const auto stream = watch({.paths = {root_}, .latency = turn % 2 == 0 ? 0.0 : 0.005});
    const auto file = in("file" + std::to_string(turn));
    // Several at once, and before the stream has ever slept.
    auto flushed = std::async(std::launch::async, [&] { stream->flush(); });
    writeFile(file, "text");
    stream->stream().flushAsync();
    ASSERT_TRUE(stream->waitFor(file, kCreated)) << turn << stream->describe();
    ASSERT_EQ(flushed.wait_for(kPatience), std::future_status::ready) << turn;
  }
}

TEST_P(WorldSmall, AQueueThatGrowsWhileItIsHandedOverIsReadWhole) {
  // Each new folder makes the stream read on in the middle of what it hands over; names of every length, so that what was read moves.
  const auto stream = watchRoot();
  std::thread busy([this] {
    for (int i = 0; i < 3000; ++i) touchFile(in(std::string(static_cast<std::size_t>(i % 200) + 1, 'n') + std::to_string(i)));
  });
  const int folders = longOrShort(1500, 300);
  for (int i = 0; i < folders; ++i) {
    makeFolders(in("folder" + std::to_string(i) + "/deep"));
    touchFile(in("folder" + std::to_string(i) + "/deep/" + std::string(static_cast<std::size_t>(i % 250) + 1, 'f')));
  }
  busy.join();
  stream->flush();
  EXPECT_TRUE(nothingIsLost(*stream));
  std::set<std::string> told;
  for (const auto& event : stream->events()) told.insert(event.path);
  for (int i = 0; i < folders; ++i) {
    EXPECT_TRUE(told.contains(in("folder" + std::to_string(i) + "/deep/" + std::string(static_cast<std::size_t>(i % 250) + 1, 'f')))) << i;
  }
  for (int i = 0; i < 3000; ++i) {
    EXPECT_TRUE(told.contains(in(std::string(static_cast<std::size_t>(i % 200) + 1, 'n') + std::to_string(i)))) << i;
  }
}

TEST_P(WorldSmall, EveryMarkIsCountedWhateverItWasPutFor) {
  const auto stream = watchRoot();
  for (int turn = 0; turn < 30; ++turn) {
    // Folders that stand where others stood, looked at while nobody knows yet where those have gone.
    const auto name = std::to_string(turn);
    makeFolders(in("a/x/y"));
    makeFolders(in("b"));
    moveItem(in("a/x"), in("b/x" + name));
    makeFolders(in("a/x/z"));
    exchangeItems(in("a/x"), in("b/x" + name));
    moveItem(in("a"), outside("a" + name));
    if (turn % 3 == 0) moveItem(outside("a" + name), in("back" + name));
    removeTree(in("b"));
  }
  stream->flush();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

}  // namespace
}  // namespace kestrine::test
