#include <unistd.h>

#include <stdexcept>

#include "tests/fsevents/support/StreamTest.h"

// How long a stream's losses last. Root may read and enter everything, so these tests say something only in the run without privileges.

namespace kestrine::test {
namespace {

class StreamLosses : public StreamTest {
 protected:
  void SetUp() override {
    if (::geteuid() == 0)
      GTEST_SKIP() << "left out: losses for want of rights, because root may read every folder (the unprivileged run has them)";
    StreamTest::SetUp();
  }
  /// The paths at which something is lost now.
  static std::vector<std::string> lostAt(WatchedStream& stream) {
    std::vector<std::string> paths;
    const auto losses = stream.stream().status().objectForKey("losses");
    for (std::size_t i = 0; i < losses.count(); ++i) {
      const auto loss = losses.objectAtIndex(i);
      if (loss.objectForKey("lasting").boolValue()) paths.push_back(loss.objectForKey("path").stringValue());
    }
    return paths;
  }
};
KESTRINE_PER_SOURCE(StreamLosses);

TEST_P(StreamLosses, OfAWatchedFolderThatMayBeReadAndNotEnteredLastUntilItMay) {
  makeFolders(in("a/b"));
  setMode(root_, 0400);
  const auto stream = watchRoot();
  EXPECT_THAT(lostAt(*stream), testing::ElementsAre(root_));
  stream->flush();
  EXPECT_NE(stream->flagsOf(root_) & kMustScan, 0U) << stream->describe();
  setMode(root_, 0755);
  EXPECT_TRUE(eventually([&] { return lostAt(*stream).empty(); }));
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  stream->flush();
  stream->clear();
  writeFile(in("a/b/file"), "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(in("a/b/file")) & kCreated, 0U) << stream->describe();
}

TEST_P(StreamLosses, AreOverWhenTheStreamIsStopped) {
  makeFolders(in("a"));
  setMode(in("a"), 0);
  const std::string closed = outside("closed");
  makeFolders(closed);
  setMode(closed, 0);
  const auto stream = watch({.paths = {root_, closed}});
  EXPECT_THAT(lostAt(*stream), testing::UnorderedElementsAre(in("a"), closed));
  stream->stream().stop();
  EXPECT_THAT(lostAt(*stream), testing::IsEmpty());
  setMode(closed, 0755);
}

TEST(StreamLossNotices, ReachTheReaderAlsoWhenTheHandlerOfEventsThrows) {
  TemporaryDirectory folder;
  const auto loop = platform::RunLoop::current();
  std::vector<std::string> told;
  // No stream has ever given out this identifier, which is a loss.
  FSEventStream stream([](FSEventStream&, std::span<const FSEvent>) { throw std::runtime_error("the handler fails"); }, {folder.path()}, 1,
                       0.01, kFileEvents);
  stream.setLossCallback([&](FSEventStream&, std::span<const FSEventStream::LossNotice> notices) {
    for (const auto& notice : notices) told.push_back((notice.begins ? "+" : "-") + notice.path);
  });
  stream.scheduleWithRunLoop(loop);
  ASSERT_TRUE(stream.start());
  EXPECT_THROW(loop->run(), std::runtime_error);
  EXPECT_THAT(told, testing::ElementsAre("+" + folder.path(), "-" + folder.path()));
}

}  // namespace
}  // namespace kestrine::test
