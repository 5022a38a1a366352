#include "tests/fsevents/support/StreamProcess.h"

// Changes that nobody has read yet when the folder that they were made in leaves its place: they happened while the folder was there and
// are told.

namespace kestrine::test {
namespace {

class StreamQueueLeaving : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    makeFolders(in("a/d"));
    makeFolders(in("b"));
    for (const auto* name : {"written", "renamed", "removed", "mode", "moved"}) writeFile(in("a/d/") + name, "text");
    process_ = std::make_unique<StreamProcess>(StreamProcess::Options{.paths = {root_}, .source = sourceName(GetParam())});
    ASSERT_EQ(process_->source(), sourceName(GetParam())) << process_->error();
  }
  void changeEverything() const {
    appendFile(in("a/d/written"), "more");
    moveItem(in("a/d/renamed"), in("a/d/another"));
    removeItem(in("a/d/removed"));
    setMode(in("a/d/mode"), 0600);
    writeFile(in("a/d/created"), "text");
    moveItem(in("a/d/moved"), in("b/moved"));
    writeFile(in("a/d/brief"), "text");
    removeItem(in("a/d/brief"));
  }
  // Each change under one of the names that the folder had.
  static void expectTold(const std::vector<FSEvent>& events, const std::vector<std::string>& names) {
    struct Row {
      const char* name;
      FSEventStreamEventFlags flags;
    };
    static constexpr Row kRows[] = {{"written", kModified}, {"renamed", kRenamed}, {"another", kRenamed},          {"removed", kRemoved},
                                    {"mode", kMetadata},    {"created", kCreated}, {"brief", kCreated | kRemoved}, {"moved", kRenamed}};
    for (const auto& row : kRows) {
      FSEventStreamEventFlags flags = 0;
      for (const auto& name : names) flags |= test::flagsOf(events, name + "/" + row.name);
      EXPECT_EQ(flags & row.flags, row.flags) << row.name;
    }
    for (const auto& event : events) EXPECT_EQ(event.flags & kMustScan, 0U) << describeEvent(event);
  }
  std::vector<FSEvent> unread(const std::function<void()>& changes) {
    process_->halt();
    changes();
    process_->goOn();
    return process_->flush();
  }
  std::unique_ptr<StreamProcess> process_;
};
KESTRINE_PER_SOURCE(StreamQueueLeaving);

TEST_P(StreamQueueLeaving, OutOfTheTree) {
  const auto events = unread([this] {
    changeEverything();
    moveItem(in("a/d"), outside("d"));
  });
  expectTold(events, {in("a/d")});
  EXPECT_NE(test::flagsOf(events, in("a/d")) & kRenamed, 0U);
  EXPECT_NE(test::flagsOf(events, in("b/moved")) & kRenamed, 0U);
}

TEST_P(StreamQueueLeaving, OutOfTheTreeWithAFolderAbove) {
  const auto events = unread([this] {
    changeEverything();
    moveItem(in("a"), outside("a"));
  });
  expectTold(events, {in("a/d")});
}

TEST_P(StreamQueueLeaving, OutOfTheTreeOneAfterTheOther) {
  const auto events = unread([this] {
    changeEverything();
    moveItem(in("a/d"), outside("d"));
    moveItem(in("a"), outside("a"));
  });
  expectTold(events, {in("a/d")});
}

TEST_P(StreamQueueLeaving, ForAnotherPlace) {
  const auto events = unread([this] {
    changeEverything();
    moveItem(in("a/d"), in("b/d"));
  });
  expectTold(events, {in("a/d"), in("b/d")});
}

TEST_P(StreamQueueLeaving, ForAFolderThatIsNew) {
  const auto events = unread([this] {
    changeEverything();
    makeFolders(in("new/deep"));
    moveItem(in("a/d"), in("new/deep/d"));
  });
  expectTold(events, {in("a/d"), in("new/deep/d")});
}

TEST_P(StreamQueueLeaving, ForAFolderThatWasMovedIn) {
  makeFolders(outside("in/deep"));
  const auto events = unread([this] {
    changeEverything();
    moveItem(outside("in"), in("in"));
    moveItem(in("a/d"), in("in/deep/d"));
  });
  expectTold(events, {in("a/d"), in("in/deep/d")});
}

TEST_P(StreamQueueLeaving, ForAFolderThatWasMovedInBefore) {
  makeFolders(outside("in/deep"));
  const auto events = unread([this] {
    moveItem(outside("in"), in("in"));
    changeEverything();
    moveItem(in("a/d"), in("in/deep/d"));
  });
  expectTold(events, {in("a/d"), in("in/deep/d")});
}

TEST_P(StreamQueueLeaving, OutOfTheTreeAndBack) {
  const auto events = unread([this] {
    changeEverything();
    moveItem(in("a/d"), outside("d"));
    moveItem(outside("d"), in("a/back"));
  });
  expectTold(events, {in("a/d"), in("a/back")});
}

TEST_P(StreamQueueLeaving, ForGood) {
  const auto events = unread([this] {
    changeEverything();
    removeTree(in("a"));
  });
  expectTold(events, {in("a/d")});
  EXPECT_NE(test::flagsOf(events, in("a/d")) & kRemoved, 0U);
  EXPECT_NE(test::flagsOf(events, in("a")) & kRemoved, 0U);
}

}  // namespace
}  // namespace kestrine::test
