#include <cstdio>
#include <cstdlib>

#include "tests/fsevents/support/ModelWorld.h"
#include "tests/fsevents/support/StreamTest.h"

// A random workload against a model of what must be told of it. How long the tests are follows from how soon they notice the defects
// another-folders-move-taken-along (over inotify) and older-change-taken-in-a-random-workload (over fanotify), and, without pauses,
// change-after-a-windows-end-dropped.

namespace kestrine::test {
namespace {

class StreamModel : public StreamTest {
 protected:
  // The workload of a run can be had again: KESTRINE_MODEL_SEED=<number>.
  static unsigned seed() {
    const char* given = std::getenv("KESTRINE_MODEL_SEED");
    const unsigned value = given != nullptr ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
    std::printf("the seed of this workload is %u\n", value);
    std::fflush(stdout);
    return value;
  }
  static std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += line + "\n";
    return text;
  }
  // In the end every folder is watched under its right name.
  static void expectEveryFolderWatched(WatchedStream& stream, const ModelWorld& world) {
    stream.flush();
    stream.clear();
    const auto folders = world.folders();
    for (const auto& folder : folders) touchFile(folder + "/probe");
    stream.flush();
    for (const auto& folder : folders) EXPECT_NE(stream.flagsOf(folder + "/probe") & kCreated, 0U) << folder;
    // One file may be told in two deliveries; no other path may be told at all.
    std::set<std::string> paths;
    for (const auto& event : stream.events()) paths.insert(event.path);
    EXPECT_EQ(paths.size(), folders.size());
  }
};
KESTRINE_PER_SOURCE(StreamModel);

TEST_P(StreamModel, OfManyChangesIsToldExactly) {
  const int changes = longOrShort(100000, 8000);
  const auto stream = watch({.paths = {root_}, .latency = 0.02});
  const auto number = seed();
  ModelWorld world(root_, base_ / "outside", number);
  std::mt19937 random(number);
  std::size_t told = 0;
  int step = 0;
  for (int done = 0; done < changes; done += step) {
    step = static_cast<int>(1 + random() % 1000);
    world.change(step);
    stream->flush();
    const auto events = stream->events();
    const auto faults = world.account().faultsOf(events);
    ASSERT_TRUE(faults.empty()) << "after " << done + step << " changes, seed " << number << ":\n" << joined(faults);
    told += events.size();
    stream->clear();
    world.settle();
  }
  std::printf("%d changes, %zu events told\n", changes, told);
  const auto status = stream->stream().status();
  EXPECT_EQ(status.objectForKey("losses").count(), 0U) << status.description();
  EXPECT_EQ(status.objectForKey("foldersMarked").unsignedLongLongValue(), world.folders().size());
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  expectEveryFolderWatched(*stream, world);
}

TEST_P(StreamModel, WithNoPauseBetweenTheChangesIsToldExactly) {
  // In as many windows as the stream finds time for, each change in one of them or across the border of two.
  constexpr int kChanges = 2000;
  const int rounds = longOrShort(16, 4);
  const auto stream = watch({.paths = {root_}, .latency = 0});
  const auto number = seed();
  ModelWorld world(root_, base_ / "outside", number);
  for (int round = 0; round < rounds; ++round) {
    world.change(kChanges);
    stream->flush();
    const auto faults = world.account().faultsOf(stream->events());
    ASSERT_TRUE(faults.empty()) << "round " << round << ", seed " << number << ":\n" << joined(faults);
    stream->clear();
    world.settle();
  }
  const auto status = stream->stream().status();
  EXPECT_EQ(status.objectForKey("losses").count(), 0U) << status.description();
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  expectEveryFolderWatched(*stream, world);
}

TEST_P(StreamModel, BySeveralWritersAtOnceIsToldExactly) {
  constexpr int kWriters = 3;
  const int rounds = longOrShort(20, 4);
  const auto number = seed();
  std::vector<std::unique_ptr<ModelWorld>> worlds;
  for (unsigned writer = 0; writer < kWriters; ++writer) {
    const auto name = std::to_string(writer);
    makeFolder(in(name));
    makeFolder(outside(name));
    worlds.push_back(std::make_unique<ModelWorld>(in(name), outside(name), number + writer));
  }
  const auto stream = watch({.paths = {root_}, .latency = 0.02});
  for (int round = 0; round < rounds; ++round) {
    std::vector<std::thread> threads;
    threads.reserve(worlds.size());
    for (auto& world : worlds) threads.emplace_back([&world] { world->change(600); });
    for (auto& thread : threads) thread.join();
    stream->flush();
    const auto all = stream->events();
    for (unsigned writer = 0; writer < kWriters; ++writer) {
      auto own = all;
      std::erase_if(own, [&](const FSEvent& event) { return event.path != root_ && !isAtOrBelow(event.path, in(std::to_string(writer))); });
      const auto faults = worlds[writer]->account().faultsOf(own);
      ASSERT_TRUE(faults.empty()) << "round " << round << ", writer " << writer << ", seed " << number << ":\n" << joined(faults);
      worlds[writer]->settle();
    }
    stream->clear();
  }
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
}

}  // namespace
}  // namespace kestrine::test
