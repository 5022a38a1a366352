#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "tests/fsevents/support/StreamTest.h"

// What a stream leaves behind, and what it holds while it lives.

namespace kestrine::test {
namespace {

class StreamLeaks : public StreamTest {};
KESTRINE_PER_SOURCE(StreamLeaks);

TEST_P(StreamLeaks, NoDescriptorOrMarkRemainsAfterManyStreams) {
  makeFolders(in("a/b/c"));
  const auto cycle = [this](int turn) {
    FSEventStream stream([](FSEventStream&, std::span<const FSEvent>) {}, {root_, outside("missing/deep")},
                         platform::kFSEventStreamEventIdSinceNow, 0.01, kFileEvents | kWatchRoot, GetParam());
    stream.scheduleWithRunLoop(platform::RunLoop::current());
    ASSERT_TRUE(stream.start()) << turn << stream.status().description();
    makeFolders(in("new/deep"));
    writeFile(in("new/deep/file"), "text");
    stream.flushSync();
    removeTree(in("new"));
    if (turn % 4 == 1) stream.stop();
    if (turn % 4 == 2) stream.invalidate();
  };
  // What is made once for the whole process is made here.
  cycle(0);
  const auto before = openDescriptors();
  const int turns = longOrShort(300, 100);
  for (int turn = 0; turn < turns; ++turn) {
    cycle(turn);
    if (HasFatalFailure()) return;
  }
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= before; })) << openDescriptors() << " descriptors instead of " << before;
  EXPECT_TRUE(eventually([] { return kernelMarks().empty(); })) << kernelMarks().size() << " marks";
}

TEST_P(StreamLeaks, NoThreadRemainsAfterManyStreams) {
  const auto threads = [] {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++count;
    return count;
  };
  { watchRoot()->flush(); }
  const auto before = threads();
  for (int turn = 0; turn < 20; ++turn) {
    const auto stream = watchRoot();
    writeFile(in("file"), "text");
    stream->flush();
  }
  EXPECT_TRUE(eventually([&] { return threads() <= before; })) << threads() << " threads instead of " << before;
}

TEST_P(StreamLeaks, DescriptorsAreNotInheritedByOtherPrograms) {
  makeFolders(in("a/b"));
  const auto stream = watch({.paths = {root_, outside("missing")}, .flags = kFileEvents | kWatchRoot});
  stream->flush();
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::stoi(entry.path().filename().string());
    const int flags = ::fcntl(descriptor, F_GETFD);
    if (flags < 0 || descriptor <= STDERR_FILENO) continue;
    std::error_code gone;
    const auto target = std::filesystem::read_symlink(entry.path(), gone).string();
    // Those of the test's own surroundings may be whatever they are.
    if (!target.starts_with("anon_inode:") && !isAtOrBelow(target, base_.path())) continue;
    EXPECT_NE(flags & FD_CLOEXEC, 0) << target;
  }
}

TEST_P(StreamLeaks, FoldersOfTheTreeAreNotHeldOpen) {
  for (int i = 0; i < 200; ++i) makeFolder(in(std::to_string(i)));
  const auto before = openDescriptors();
  const auto stream = watchRoot();
  stream->flush();
  EXPECT_LT(openDescriptors(), before + 40);
}

}  // namespace
}  // namespace kestrine::test
