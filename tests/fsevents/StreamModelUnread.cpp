#include <cstdio>
#include <cstdlib>

#include "tests/fsevents/support/ModelWorld.h"
#include "tests/fsevents/support/StreamProcess.h"

// The random workload while nobody reads the kernel's queue: everything that the kernel merges is merged, and in the end the queue
// overflows. How long the tests are follows from how soon they notice the defects another-folders-move-taken-along (over inotify) and
// older-change-taken-in-a-random-workload (over fanotify).

namespace kestrine::test {
namespace {

class StreamModelUnread : public StreamTest {
 protected:
  static std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += line + "\n";
    return text;
  }
  void expectRightMarks() {
    std::string difference;
    EXPECT_TRUE(eventually([&] {
      difference = differenceOfMarks(kernelMarks(process_->pid()), {root_});
      return difference.empty();
    })) << difference;
    EXPECT_EQ(process_->statusNumber("foldersMarked"), countFolders({root_}));
  }
  void expectEveryFolderWatched(const ModelWorld& world) {
    process_->flush();
    const auto folders = world.folders();
    for (const auto& folder : folders) touchFile(folder + "/probe");
    const auto events = process_->flush();
    for (const auto& folder : folders) EXPECT_NE(test::flagsOf(events, folder + "/probe") & kCreated, 0U) << folder;
    for (const auto& event : events) EXPECT_TRUE(event.path.ends_with("/probe")) << describeEvent(event);
    for (const auto& folder : folders) removeItem(folder + "/probe");
    process_->flush();
  }
  void begin() {
    number_ = std::random_device()();
    if (const char* given = std::getenv("KESTRINE_MODEL_SEED"); given != nullptr) number_ = static_cast<unsigned>(std::stoul(given));
    std::printf("the seed of this workload is %u\n", number_);
    process_ = std::make_unique<StreamProcess>(
        StreamProcess::Options{.paths = {root_}, .source = sourceName(GetParam()), .hasOrdinaryQueue = true});
    ASSERT_EQ(process_->source(), sourceName(GetParam())) << process_->error();
    world_ = std::make_unique<ModelWorld>(root_, base_ / "outside", number_);
  }
  unsigned number_ = 0;
  std::unique_ptr<StreamProcess> process_;
  std::unique_ptr<ModelWorld> world_;
};
KESTRINE_PER_SOURCE(StreamModelUnread);

TEST_P(StreamModelUnread, BelowTheQueuesLengthIsToldExactly) {
  const int rounds = longOrShort(32, 10);
  constexpr int kChanges = 2500;
  begin();
  for (int round = 0; round < rounds; ++round) {
    process_->halt();
    world_->change(kChanges);
    process_->goOn();
    const auto faults = world_->account().faultsOf(process_->flush());
    ASSERT_TRUE(faults.empty()) << "round " << round << ", seed " << number_ << ":\n" << joined(faults);
    expectRightMarks();
    ASSERT_FALSE(HasFailure()) << "round " << round << ", seed " << number_;
    world_->settle();
  }
  EXPECT_EQ(process_->statusNumber("losses"), 0U);
  expectEveryFolderWatched(*world_);
}

TEST_P(StreamModelUnread, BeyondTheQueuesLengthIsCoveredAndExactAfterwards) {
  const int rounds = longOrShort(4, 1);
  constexpr int kMany = 10000;
  constexpr int kTooMany = 20000;
  begin();
  for (int round = 0; round < rounds; ++round) {
    makeFolder(in("flood"));
    process_->flush();
    process_->halt();
    world_->change(kMany);
    // What the world does may be merged; different files are not.
    for (int i = 0; i < kTooMany; ++i) touchFile(in("flood/") + std::to_string(i));
    process_->goOn();
    const auto events = process_->until(root_, kMustScan | kKernelDropped);
    EXPECT_EQ(test::flagsOf(events, root_) & (kMustScan | kKernelDropped), kMustScan | kKernelDropped);
    const auto gaps = world_->account().gapsOf(events);
    EXPECT_TRUE(gaps.empty()) << "round " << round << ", seed " << number_ << ":\n" << joined(gaps);
    removeTree(in("flood"));
    process_->flush();
    world_->settle();
    expectRightMarks();
    expectEveryFolderWatched(*world_);
    for (int step = 0; step < 10; ++step) {
      world_->change(500);
      const auto faults = world_->account().faultsOf(process_->flush());
      ASSERT_TRUE(faults.empty()) << "after overflow " << round << ", step " << step << ", seed " << number_ << ":\n" << joined(faults);
      world_->settle();
    }
  }
}

TEST_P(StreamModelUnread, WithoutMercyIsCovered) {
  // As fast as possible, while the reader is stopped and continued at random: it may overflow or not.
  const int changes = longOrShort(300000, 6000);
  begin();
  std::mt19937 random(number_);
  std::vector<FSEvent> events;
  constexpr int kStep = 2000;
  for (int done = 0; done < changes; done += kStep) {
    if (random() % 2 == 0) process_->halt();
    world_->change(kStep);
    process_->goOn();
    if (random() % 4 != 0 && done + kStep < changes) continue;
    for (auto& event : process_->flush()) events.push_back(std::move(event));
    const bool lost = process_->statusNumber("losses") > 0;
    const auto gaps = world_->account().gapsOf(events);
    ASSERT_TRUE(gaps.empty()) << "after " << done << " changes, seed " << number_ << (lost ? " (with losses)" : "") << ":\n"
                              << joined(gaps);
    if (!lost) {
      const auto faults = world_->account().faultsOf(events);
      ASSERT_TRUE(faults.empty()) << "after " << done << " changes, seed " << number_ << ":\n" << joined(faults);
    }
    events.clear();
    world_->settle();
    // A folder that was missed is seen here, long before a change in it is.
    expectRightMarks();
    ASSERT_FALSE(HasFailure()) << "after " << done << " changes, seed " << number_;
  }
  expectEveryFolderWatched(*world_);
}

}  // namespace
}  // namespace kestrine::test
