#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/StreamProcess.h"
#include "tests/fsevents/support/WorldTest.h"

// What a mount hides, while what is above it and within it changes too and nobody reads.

namespace kestrine::test {
namespace {

class WorldHiddenFolders : public WorldTest {
 protected:
  void begin() {
    process_ = std::make_unique<StreamProcess>(StreamProcess::Options{.paths = {root_}, .source = sourceName(GetParam())});
    ASSERT_EQ(process_->source(), sourceName(GetParam())) << process_->error();
    process_->flush();
  }
  void expectWatched(const std::string& folder) {
    process_->flush();
    touchFile(in(folder + "/probe"));
    EXPECT_NE(test::flagsOf(process_->flush(), in(folder + "/probe")) & kCreated, 0U) << folder;
    removeItem(in(folder + "/probe"));
  }
  void expectFoundWhenUncoveredElsewhere() {
    const auto events = process_->toldOf([this] {
      unmountAt(in("above/hidden"));
      moveItem(in("above"), in("elsewhere"));
    });
    EXPECT_EQ(allFlagsOf(events) & kMustScan, 0U);
    expectWatched("elsewhere/hidden");
    expectWatched("elsewhere/hidden/deep");
  }
  static FSEventStreamEventFlags allFlagsOf(const std::vector<FSEvent>& events) {
    FSEventStreamEventFlags flags = 0;
    for (const auto& event : events) flags |= event.flags;
    return flags;
  }
  std::unique_ptr<StreamProcess> process_;
};
KESTRINE_PER_SOURCE(WorldHiddenFolders);

TEST_P(WorldHiddenFolders, AreFoundAfterTheFolderAboveThemHasMoved) {
  inMountNamespace([this] {
    makeFolders(in("above/hidden/deep"));
    mountAt(in("above/hidden"), "tmpfs");
    begin();
    expectFoundWhenUncoveredElsewhere();
  });
}

TEST_P(WorldHiddenFolders, AreFoundThereWhenTheyWereWatchedBefore) {
  inMountNamespace([this] {
    makeFolders(in("above/hidden/deep"));
    begin();
    mountAt(in("above/hidden"), "tmpfs");
    EXPECT_NE(test::flagsOf(process_->flush(), in("above/hidden")) & kMount, 0U);
    expectFoundWhenUncoveredElsewhere();
  });
}

TEST_P(WorldHiddenFolders, AreNotLookedForInVainByWhatMovedInThem) {
  inMountNamespace([this] {
    makeFolders(in("hidden/one/deep"));
    makeFolders(in("hidden/other"));
    begin();
    const auto events = process_->toldOf([this] {
      moveItem(in("hidden/one"), in("hidden/two"));
      moveItem(in("hidden/two/deep"), in("hidden/other/deep"));
      mountAt(in("hidden"), "tmpfs");
    });
    EXPECT_EQ(allFlagsOf(events) & kMustScan, 0U);
    EXPECT_NE(test::flagsOf(events, in("hidden")) & kMount, 0U);
    EXPECT_EQ(process_->statusNumber("losses"), 0U);
    expectWatched("hidden");
    unmountAt(in("hidden"));
    expectWatched("hidden/two");
    expectWatched("hidden/other/deep");
  });
}

}  // namespace
}  // namespace kestrine::test
