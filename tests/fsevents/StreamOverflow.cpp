#include "tests/fsevents/support/StreamProcess.h"

// The kernel's queue holds 16,384 events. These tests stop the process that reads it, and let it go on.

namespace kestrine::test {
namespace {

constexpr int kFolders = 20;
constexpr int kEnoughToOverflow = 20000;
constexpr int kFarFromOverflow = 1500;

class StreamOverflow : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    for (int i = 0; i < kFolders; ++i) makeFolder(folder(i));
    process_ = std::make_unique<StreamProcess>(
        StreamProcess::Options{.paths = {root_}, .source = sourceName(GetParam()), .hasOrdinaryQueue = true});
    ASSERT_EQ(process_->source(), sourceName(GetParam())) << process_->error();
  }
  [[nodiscard]] std::string folder(int index) const { return in("folder" + std::to_string(index)); }
  // Each file is one event or more, and none of them can be merged with another's.
  void makeFiles(int count) {
    for (int i = 0; i < count; ++i) touchFile(folder(i % kFolders) + "/" + std::to_string(i));
  }
  void expectLossOfTheRoot() {
    const auto events = process_->until(root_, kMustScan | kKernelDropped);
    EXPECT_EQ(test::flagsOf(events, root_) & (kMustScan | kKernelDropped), kMustScan | kKernelDropped);
    EXPECT_GE(process_->statusNumber("losses"), 1U);
  }
  // After whatever happened before, what happens now is told as if nothing had been.
  void expectExact(const std::vector<std::string>& files) {
    process_->flush();
    for (const auto& file : files) writeFile(file, "text");
    const auto events = process_->flush();
    for (const auto& file : files) EXPECT_NE(test::flagsOf(events, file) & kCreated, 0U) << file;
    for (const auto& event : events) {
      EXPECT_NE(std::find(files.begin(), files.end(), event.path), files.end()) << "not changed: " << describeEvent(event);
    }
    std::string difference;
    EXPECT_TRUE(eventually([&] {
      difference = differenceOfMarks(kernelMarks(process_->pid()), {root_});
      return difference.empty();
    })) << difference;
    EXPECT_EQ(process_->statusNumber("foldersMarked"), countFolders({root_}));
  }
  std::unique_ptr<StreamProcess> process_;
};
KESTRINE_PER_SOURCE(StreamOverflow);

TEST_P(StreamOverflow, IsToldAsALossOfTheWholeTree) {
  process_->halt();
  makeFiles(kEnoughToOverflow);
  process_->goOn();
  expectLossOfTheRoot();
  expectExact({folder(0) + "/after", in("after")});
}

TEST_P(StreamOverflow, LeavesFoldersMadeMeanwhileWatched) {
  process_->halt();
  makeFiles(kEnoughToOverflow);
  for (int i = 0; i < 50; ++i) makeFolders(in("new" + std::to_string(i)) + "/a/b");
  process_->goOn();
  expectLossOfTheRoot();
  expectExact({in("new0/a/b/after"), in("new49/a/b/after"), in("new25/after")});
}

TEST_P(StreamOverflow, LeavesFoldersRenamedMeanwhileUnderTheirNewNames) {
  makeFolders(in("a/sub/deep"));
  makeFolders(in("b/other"));
  process_->flush();
  process_->halt();
  makeFiles(kEnoughToOverflow);
  moveItem(in("a"), folder(0) + "/a");
  exchangeItems(in("b"), folder(0) + "/a");
  process_->goOn();
  expectLossOfTheRoot();
  expectExact({in("b/sub/deep/after"), folder(0) + "/a/other/after"});
}

TEST_P(StreamOverflow, FreesWhatWasRemovedOrMovedOutMeanwhile) {
  makeFolders(in("out/sub/deep"));
  makeFolders(in("gone/sub"));
  process_->flush();
  process_->halt();
  makeFiles(kEnoughToOverflow);
  moveItem(in("out"), outside("out"));
  removeTree(in("gone"));
  process_->goOn();
  expectLossOfTheRoot();
  process_->flush();
  writeFile(outside("out/sub/deep/late"), "text");
  expectExact({in("after")});
}

TEST_P(StreamOverflow, HappensAgainAndIsToldAgain) {
  for (int turn = 0; turn < 2; ++turn) {
    process_->halt();
    makeFiles(kEnoughToOverflow);
    process_->goOn();
    expectLossOfTheRoot();
    process_->flush();
    for (int i = 0; i < kFolders; ++i) removeTree(folder(i));
    for (int i = 0; i < kFolders; ++i) makeFolder(folder(i));
    process_->flush();
  }
  expectExact({folder(3) + "/after"});
}

TEST_P(StreamOverflow, OfAStoppedProcessIsNotToldWhereTheQueueSufficed) {
  for (int turn = 0; turn < 3; ++turn) {
    process_->halt();
    const auto part = std::to_string(turn) + "-";
    for (int i = 0; i < kFarFromOverflow; ++i) writeFile(folder(i % kFolders) + "/" + part + std::to_string(i), "text");
    makeFolders(in("new" + part) + "/a/b");
    writeFile(in("new" + part) + "/a/b/file", "text");
    process_->goOn();
    std::map<std::string, FSEventStreamEventFlags> told;
    FSEventStreamEventFlags all = 0;
    for (const auto& event : process_->flush()) {
      told[event.path] |= event.flags;
      all |= event.flags;
    }
    for (int i = 0; i < kFarFromOverflow; ++i) {
      EXPECT_EQ(told[folder(i % kFolders) + "/" + part + std::to_string(i)] & (kCreated | kModified), kCreated | kModified) << i;
    }
    EXPECT_NE(told[in("new" + part) + "/a/b/file"] & kCreated, 0U);
    EXPECT_EQ(all & (kMustScan | kKernelDropped | kUserDropped), 0U);
  }
  EXPECT_EQ(process_->statusNumber("losses"), 0U);
}

}  // namespace
}  // namespace kestrine::test
