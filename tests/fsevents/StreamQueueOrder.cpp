#include "tests/fsevents/support/StreamProcess.h"

// The kernel may merge a change into an earlier one that nobody has read yet, and so tell less than what happened, and in another order.
// These tests keep the queue unread while the changes are made, so that every merge that can happen does.

namespace kestrine::test {
namespace {

class StreamQueueOrder : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    makeFolders(in("a/sub/deep"));
  }
  // Makes the changes while the reader is stopped; returns what it tells then.
  std::vector<FSEvent> unread(const std::function<void()>& changes) {
    if (!process_) process_ = std::make_unique<StreamProcess>(StreamProcess::Options{.paths = {root_}, .source = sourceName(GetParam())});
    EXPECT_EQ(process_->source(), sourceName(GetParam())) << process_->error();
    process_->halt();
    changes();
    process_->goOn();
    return process_->flush();
  }
  void expectExact(const std::string& file) {
    writeFile(file, "text");
    const auto events = process_->flush();
    EXPECT_NE(test::flagsOf(events, file) & kCreated, 0U) << file;
    for (const auto& event : events) EXPECT_EQ(event.path, file) << describeEvent(event);
    std::string difference;
    EXPECT_TRUE(eventually([&] {
      difference = differenceOfMarks(kernelMarks(process_->pid()), {root_});
      return difference.empty();
    })) << difference;
  }
  std::unique_ptr<StreamProcess> process_;
};
KESTRINE_PER_SOURCE(StreamQueueOrder);

TEST_P(StreamQueueOrder, FolderRenamedBackAndForthIsFollowed) {
  for (int renames = 1; renames <= 5; ++renames) {
    const bool endsAway = renames % 2 == 1;
    const auto events = unread([&] {
      for (int i = 0; i < renames; ++i) i % 2 == 0 ? moveItem(in("a"), in("b")) : moveItem(in("b"), in("a"));
    });
    EXPECT_NE(test::flagsOf(events, in("a")) & kRenamed, 0U) << renames;
    EXPECT_NE(test::flagsOf(events, in("b")) & kRenamed, 0U) << renames;
    expectExact(in(endsAway ? "b" : "a") + "/sub/deep/after" + std::to_string(renames));
    if (endsAway) moveItem(in("b"), in("a"));
    process_->flush();
  }
}

TEST_P(StreamQueueOrder, FolderMovedOutAndInManyTimesIsFollowed) {
  for (int moves = 1; moves <= 5; ++moves) {
    const bool endsOutside = moves % 2 == 1;
    unread([&] {
      for (int i = 0; i < moves; ++i) i % 2 == 0 ? moveItem(in("a"), outside("a")) : moveItem(outside("a"), in("a"));
    });
    if (endsOutside) {
      writeFile(outside("a/sub/deep/late"), "text");
      const auto events = process_->flush();
      EXPECT_FALSE(covered(events, in("a/sub/deep/late"))) << moves;
      moveItem(outside("a"), in("a"));
      process_->flush();
    }
    expectExact(in("a/sub/deep/after" + std::to_string(moves)));
  }
}

TEST_P(StreamQueueOrder, FoldersExchangedManyTimesAreFollowed) {
  makeFolders(in("b/other"));
  for (int exchanges = 1; exchanges <= 4; ++exchanges) {
    unread([&] {
      for (int i = 0; i < exchanges; ++i) exchangeItems(in("a"), in("b"));
    });
    const bool exchanged = exchanges % 2 == 1;
    expectExact(in(exchanged ? "b" : "a") + "/sub/deep/after" + std::to_string(exchanges));
    expectExact(in(exchanged ? "a" : "b") + "/other/after" + std::to_string(exchanges));
    if (exchanged) exchangeItems(in("a"), in("b"));
    process_->flush();
  }
}

TEST_P(StreamQueueOrder, FoldersRotatedAreFollowed) {
  makeFolders(in("b/second"));
  makeFolders(in("c/third"));
  unread([&] {
    for (int turn = 0; turn < 4; ++turn) {
      moveItem(in("a"), in("spare"));
      moveItem(in("b"), in("a"));
      moveItem(in("c"), in("b"));
      moveItem(in("spare"), in("c"));
    }
  });
  // Four turns of three: each is one place further than where it began.
  expectExact(in("a/second/after"));
  expectExact(in("b/third/after"));
  expectExact(in("c/sub/deep/after"));
}

TEST_P(StreamQueueOrder, NestingTurnedInsideOutIsFollowed) {
  unread([&] {
    moveItem(in("a/sub/deep"), in("deep"));
    moveItem(in("a/sub"), in("deep/sub"));
    moveItem(in("a"), in("deep/sub/a"));
  });
  expectExact(in("deep/sub/a/after"));
  unread([&] {
    moveItem(in("deep/sub/a"), in("a"));
    moveItem(in("deep/sub"), in("a/sub"));
    moveItem(in("deep"), in("a/sub/deep"));
  });
  expectExact(in("a/sub/deep/after"));
}

TEST_P(StreamQueueOrder, FolderRemovedAndMadeManyTimesIsFollowed) {
  const auto events = unread([&] {
    for (int i = 0; i < 20; ++i) {
      removeTree(in("a"));
      makeFolders(in("a/sub/deep"));
    }
  });
  EXPECT_EQ(test::flagsOf(events, in("a")) & (kRemoved | kCreated), kRemoved | kCreated);
  expectExact(in("a/sub/deep/after"));
}

TEST_P(StreamQueueOrder, FolderMadeRenamedAndMadeAgainIsFollowed) {
  unread([&] {
    for (int i = 0; i < 10; ++i) {
      makeFolders(in("x/" + std::to_string(i)));
      moveItem(in("x"), in("y" + std::to_string(i)));
    }
    makeFolders(in("x/last"));
  });
  expectExact(in("x/last/after"));
  expectExact(in("y5/5/after"));
}

TEST_P(StreamQueueOrder, FolderThatPassedThroughIsFoundWhereItIs) {
  // When the stream first looks, the folder is in its last place already; the way it took there is read afterwards.
  unread([&] {
    makeFolders(in("new/x/y/z"));
    moveItem(in("new/x/y"), in("passing"));
    moveItem(in("passing"), in("new/x/final"));
  });
  expectExact(in("new/x/final/z/after"));
  unread([&] {
    makeFolders(in("other/x/y/z"));
    moveItem(in("other/x/y"), in("passing"));
    moveItem(in("passing"), in("other/last"));
    moveItem(in("other"), in("moved"));
  });
  expectExact(in("moved/last/z/after"));
}

TEST_P(StreamQueueOrder, FolderThatWentOutThroughANewOneIsForgotten) {
  unread([&] {
    makeFolders(in("new/x"));
    moveItem(in("a"), in("new/x/a"));
    moveItem(in("new/x/a"), outside("a"));
  });
  writeFile(outside("a/sub/deep/late"), "text");
  expectExact(in("new/x/after"));
  unread([&] { moveItem(outside("a"), in("new/x/back")); });
  expectExact(in("new/x/back/sub/deep/after"));
}

TEST_P(StreamQueueOrder, WritesBeforeAndAfterARenameAreToldUnderAName) {
  const auto events = unread([&] {
    writeFile(in("a/sub/file"), "text");
    moveItem(in("a"), in("b"));
    appendFile(in("b/sub/file"), "more");
    moveItem(in("b/sub/file"), in("b/sub/final"));
    appendFile(in("b/sub/final"), "more");
  });
  EXPECT_NE((test::flagsOf(events, in("a/sub/file")) | test::flagsOf(events, in("b/sub/file"))) & kModified, 0U);
  EXPECT_NE(test::flagsOf(events, in("b/sub/final")) & kRenamed, 0U);
  EXPECT_NE(test::flagsOf(events, in("b/sub/final")) & kModified, 0U);
}

TEST_P(StreamQueueOrder, AFileIsToldLastAsWhatBecameOfIt) {
  writeFile(in("goes"), "text");
  const auto events = unread([&] {
    for (int i = 0; i < 5; ++i) {
      removeItem(in("goes"));
      writeFile(in("goes"), "text");
    }
    removeItem(in("goes"));
    writeFile(in("comes"), "text");
    removeItem(in("comes"));
    writeFile(in("comes"), "text");
  });
  FSEventStreamEventFlags lastGoes = 0;
  FSEventStreamEventFlags lastComes = 0;
  for (const auto& event : events) {
    if (event.path == in("goes")) lastGoes = event.flags;
    if (event.path == in("comes")) lastComes = event.flags;
  }
  EXPECT_NE(lastGoes & kRemoved, 0U);
  EXPECT_NE(lastComes & kCreated, 0U);
}

}  // namespace
}  // namespace kestrine::test
