#include <cstdio>

#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/TruthRun.h"

// What several processes do to one tree at random, held against what is told of it. Nothing is injected here, and no queue can overflow:
// every change is covered, no path is told that never was, and no loss.

namespace kestrine::test {
namespace {

class TruthWorkload : public StreamTest {
 protected:
  static std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += line + "\n";
    return text;
  }
  static void expectExact(std::size_t changes, const TruthRun::Window& how, const std::vector<std::string>& exclusions = {}) {
    const TemporaryDirectory folder;
    TruthRun run({.folder = folder.path(), .source = sourceName(GetParam()), .exclusions = exclusions});
    ASSERT_EQ(run.process().source(), sourceName(GetParam())) << run.process().error();
    const auto faults = run.windows(changes, how);
    ASSERT_TRUE(faults.empty()) << joined(faults);
    EXPECT_EQ(run.differenceOfAllMarks(), "") << "seed " << run.seed();
    EXPECT_EQ(run.process().statusNumber("foldersMarked"), run.watchedFolders()) << "seed " << run.seed();
    EXPECT_EQ(run.process().statusNumber("losses"), 0U) << "seed " << run.seed();
    std::printf("%zu changes, %zu events told\n", run.done(), run.told());
  }
};
KESTRINE_PER_SOURCE(TruthWorkload);

TEST_P(TruthWorkload, OfSeveralProcessesIsToldExactly) {
  expectExact(TruthRun::operations(static_cast<std::size_t>(longOrShort(40000, 4000))), {});
}

TEST_P(TruthWorkload, WhileNobodyReadsIsToldExactly) {
  expectExact(TruthRun::operations(static_cast<std::size_t>(longOrShort(10000, 2000))), {.isUnread = true});
}

// Folders come to have an excluded path, and cease to, with all that is in them.
TEST_P(TruthWorkload, WithExclusionsIsToldExactly) {
  expectExact(TruthRun::operations(static_cast<std::size_t>(longOrShort(10000, 2000))), {}, {"/n1", "/n2/n3", "/n4/n5", "/n6/n7/n8"});
}

TEST_P(TruthWorkload, WithMountsIsToldExactly) {
  inMountNamespace([] { expectExact(TruthRun::operations(static_cast<std::size_t>(longOrShort(10000, 2000))), {.mounts = true}); });
}

}  // namespace
}  // namespace kestrine::test
