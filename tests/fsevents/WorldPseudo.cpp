#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/WorldTest.h"

// File systems that show the kernel's own state have thousands of folders and no events worth a mark: they are not entered.

namespace kestrine::test {
namespace {

class WorldPseudo : public WorldTest {
 protected:
  void SetUp() override {
    WorldTest::SetUp();
    if (IsSkipped()) return;
    makeFolders(in("point"));
    makeFolders(in("beside"));
  }
  // Every folder on the disk, and not one in what is mounted there but, perhaps, its root.
  void expectNotEntered(WatchedStream& stream, const std::string& name) const {
    EXPECT_TRUE(isWatched(stream, in("beside"), name));
    EXPECT_LE(foldersMarked(stream), 4) << stream.stream().status().description();
    EXPECT_LE(kernelMarks().size(), 40U);
  }
};
KESTRINE_PER_SOURCE(WorldPseudo);

TEST_P(WorldPseudo, FileSystemsBelowAreNotEntered) {
  inMountNamespace([this] {
    for (const auto* system : {"/proc", "/sys"}) {
      bindAllAt(in("point"), system);
      {
        const auto stream = watchRoot();
        expectNotEntered(*stream, system + 1);
        detachAt(in("point"));
        ASSERT_TRUE(stream->waitFor(in("point"), kUnmount)) << stream->describe();
        EXPECT_TRUE(isWatched(*stream, in("point"), std::string("underneath") + (system + 1)));
        EXPECT_TRUE(nothingIsLost(*stream));
      }
    }
  });
}

TEST_P(WorldPseudo, FileSystemsMountedLaterAreToldAndNotEntered) {
  inMountNamespace([this] {
    const auto stream = watchRoot();
    for (const auto* system : {"/proc", "/sys"}) {
      bindAllAt(in("point"), system);
      ASSERT_TRUE(stream->waitFor(in("point"), kMount)) << stream->describe();
      EXPECT_LE(foldersMarked(*stream), 4) << stream->stream().status().description();
      EXPECT_FALSE(stream->tellsBelow(in("point"))) << stream->describe();
      detachAt(in("point"));
      ASSERT_TRUE(stream->waitFor(in("point"), kUnmount)) << stream->describe();
      EXPECT_TRUE(isWatched(*stream, in("point"), std::string("underneath") + (system + 1)));
      EXPECT_TRUE(nothingIsLost(*stream));
      stream->clear();
    }
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  });
}

}  // namespace
}  // namespace kestrine::test
