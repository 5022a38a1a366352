#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>
#include <system_error>
#include <thread>

#include "tests/fsevents/support/KernelMarks.h"
#include "tests/fsevents/support/StreamProcess.h"
#include "tests/fsevents/support/WorldTest.h"

// What follows a loss while the system lacks what it takes.

namespace kestrine::test {
namespace {

/// The process can open so many more at a time while this stands: the other numbers below its limit are in use. Only while the process is
/// halted, or at rest.
class Starved {
 public:
  explicit Starved(pid_t process, int spare = 0) : process_(process) {
    std::set<rlim_t> used;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd"))
      used.insert(std::stoul(entry.path().filename()));
    rlim_t free = 0;
    while (used.contains(free) || spare-- > 0) ++free;
    set(nullptr, &before_);
    const rlimit none{free, before_.rlim_max};
    set(&none, nullptr);
  }
  ~Starved() { ::prlimit(process_, RLIMIT_NOFILE, &before_, nullptr); }
  Starved(const Starved&) = delete;
  Starved& operator=(const Starved&) = delete;

 private:
  void set(const rlimit* now, rlimit* before) const {
    if (::prlimit(process_, RLIMIT_NOFILE, now, before) != 0) throw std::system_error(errno, std::generic_category(), "prlimit");
  }
  const pid_t process_;
  rlimit before_{};
};

class WorldRepairs : public WorldTest {
 protected:
  static constexpr FSEventStreamEventFlags kOverflow = kMustScan | kKernelDropped;
};
KESTRINE_PER_SOURCE(WorldRepairs);

TEST_P(WorldRepairs, ThatCannotBeginForWantOfDescriptorsAreMadeAndToldLater) {
  // More than the queue holds, and none can be merged with another.
  constexpr int kEnoughToOverflow = 20000;
  constexpr int kFolders = 20;
  for (int i = 0; i < kFolders; ++i) makeFolder(in(std::to_string(i)));
  StreamProcess process({.paths = {root_}, .source = sourceName(GetParam()), .hasOrdinaryQueue = true});
  ASSERT_EQ(process.source(), sourceName(GetParam())) << process.error();
  process.flush();
  process.halt();
  for (int i = 0; i < kEnoughToOverflow; ++i) touchFile(in(std::to_string(i % kFolders)) + "/" + std::to_string(i));
  // The queue is full: of these it tells nothing, and only the walk finds them.
  makeFolders(in("new/deep"));
  {
    const Starved starved(process.pid());
    process.goOn();
    const auto told = process.until(root_, kOverflow);
    EXPECT_EQ(test::flagsOf(told, root_) & kOverflow, kOverflow);
    // And it is tried more than once.
    for (int i = 0; i < 3; ++i) {
      for (const auto& event : process.flush()) EXPECT_EQ(event.flags & kMustScan, 0U) << "told again: " << describeEvent(event);
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    EXPECT_NE(differenceOfMarks(kernelMarks(process.pid()), {root_}), "") << "the walk was made, so nothing was proven";
  }
  // What happened until the walk was told by nobody: it is told once more, and then it is exact.
  const auto told = process.until(root_, kOverflow);
  EXPECT_EQ(test::flagsOf(told, root_) & kOverflow, kOverflow);
  std::string difference;
  EXPECT_TRUE(eventually([&] {
    difference = differenceOfMarks(kernelMarks(process.pid()), {root_});
    return difference.empty();
  })) << difference;
  writeFile(in("new/deep/file"), "text");
  const auto after = process.flush();
  EXPECT_NE(test::flagsOf(after, in("new/deep/file")) & kCreated, 0U) << process.log();
  for (const auto& event : after) EXPECT_EQ(event.flags & kMustScan, 0U) << describeEvent(event);
}

// A walk meets the shortage somewhere on its way, according to how many descriptors are left.
TEST_P(WorldRepairs, OfWhatCouldNotBeOpenedAreToldByTheNextFlush) {
  int losses = 0;
  for (int spare = 0; spare < 12; ++spare) {
    StreamProcess process({.paths = {root_}, .source = sourceName(GetParam())});
    ASSERT_EQ(process.source(), sourceName(GetParam())) << process.error();
    process.flush();
    process.halt();
    const auto top = in(std::to_string(spare));
    makeFolders(top + "/a/b/c");
    makeFolders(top + "/d/e/f");
    touchFile(top + "/a/b/c/file");
    touchFile(top + "/d/e/f/file");
    std::vector<FSEvent> told;
    {
      const Starved starved(process.pid(), spare);
      process.goOn();
      told = process.flush();
    }
    for (const auto* file : {"/a/b/c/file", "/d/e/f/file"}) EXPECT_TRUE(covered(told, top + file)) << file << " with " << spare;
    losses += std::ranges::any_of(told, [](const auto& event) { return (event.flags & kMustScan) != 0; }) ? 1 : 0;
    // Everything is exact again, which may be after the next look.
    EXPECT_TRUE(eventually([&] { return differenceOfMarks(kernelMarks(process.pid()), {root_}).empty(); })) << spare;
    process.flush();
  }
  EXPECT_GT(losses, 0) << "there was no shortage";
}

// A flush that can wait for it tells what is there, and no loss.
TEST_P(WorldRepairs, OfAShortageThatIsOverAtOnceAreNoLoss) {
  StreamProcess process({.paths = {root_}, .source = sourceName(GetParam())});
  ASSERT_EQ(process.source(), sourceName(GetParam())) << process.error();
  process.flush();
  for (int spare = 0; spare < 12; ++spare) {
    process.halt();
    const auto top = in(std::to_string(spare));
    makeFolders(top + "/a/b/c");
    touchFile(top + "/a/b/c/file");
    {
      const Starved starved(process.pid(), spare);
      process.goOn();
      std::this_thread::sleep_for(std::chrono::milliseconds(60));
    }
    const auto told = process.flush();
    EXPECT_TRUE(covered(told, top + "/a/b/c/file")) << spare;
    for (const auto& event : told) EXPECT_EQ(event.flags & kMustScan, 0U) << spare << ": " << describeEvent(event);
  }
}

}  // namespace
}  // namespace kestrine::test
