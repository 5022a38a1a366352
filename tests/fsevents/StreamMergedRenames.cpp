#include "tests/fsevents/support/StreamProcess.h"

// A folder that goes to and fro while nobody reads the queue. fanotify takes a rename for part of an equal one that is unread, so the last
// rename is told before others, and what is told after them happened somewhere else than they say.

namespace kestrine::test {
namespace {

class StreamMergedRenames : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    makeFolders(in("one/within"));
    makeFolder(in("beside"));
    process_ = std::make_unique<StreamProcess>(StreamProcess::Options{.paths = {root_}, .source = sourceName(GetParam())});
    ASSERT_EQ(process_->source(), sourceName(GetParam())) << process_->error();
    process_->flush();
  }
  void move(const std::string& from, const std::string& to) const { moveItem(in(from), in(to)); }
  // Leaves nothing behind by which it could be found later.
  void touchAndRemove(const std::string& path) const {
    touchFile(in(path));
    removeItem(in(path));
  }
  static std::vector<std::string> pathsEndingIn(const std::vector<FSEvent>& events, const std::string& name) {
    std::vector<std::string> paths;
    for (const auto& event : events) {
      if (event.path.ends_with("/" + name)) paths.push_back(event.path);
    }
    return paths;
  }
  std::unique_ptr<StreamProcess> process_;
};
KESTRINE_PER_SOURCE(StreamMergedRenames);

TEST_P(StreamMergedRenames, EndWhereTheDiskHasTheFolder) {
  const auto events = process_->toldOf([this] {
    move("one", "two");
    move("two", "one");
    move("one", "two");
    touchAndRemove("two/file");
    touchAndRemove("two/within/deep");
  });
  EXPECT_EQ(pathsEndingIn(events, "file"), std::vector{in("two/file")});
  EXPECT_EQ(pathsEndingIn(events, "deep"), std::vector{in("two/within/deep")});
}

TEST_P(StreamMergedRenames, EndWhereTheNextRenameBegins) {
  const auto events = process_->toldOf([this] {
    move("one", "two");
    move("two", "one");
    move("one", "two");
    touchAndRemove("two/file");
    move("two", "beside/three");
    touchAndRemove("beside/three/other");
  });
  EXPECT_EQ(pathsEndingIn(events, "file"), std::vector{in("two/file")});
  EXPECT_EQ(pathsEndingIn(events, "other"), std::vector{in("beside/three/other")});
}

TEST_P(StreamMergedRenames, MayHaveGoneRoundMoreThanTwoPlaces) {
  const auto events = process_->toldOf([this] {
    move("one", "two");
    move("two", "beside/three");
    move("beside/three", "one");
    move("one", "two");
    move("two", "beside/three");
    touchAndRemove("beside/three/file");
  });
  EXPECT_EQ(pathsEndingIn(events, "file"), std::vector{in("beside/three/file")});
}

TEST_P(StreamMergedRenames, ThatWereNoneAreNotMadeUp) {
  const auto events = process_->toldOf([this] {
    move("one", "two");
    move("two", "one");
    touchAndRemove("one/file");
    move("one", "beside/three");
    touchAndRemove("beside/three/other");
    move("beside/three", "one");
  });
  EXPECT_EQ(pathsEndingIn(events, "file"), std::vector{in("one/file")});
  EXPECT_EQ(pathsEndingIn(events, "other"), std::vector{in("beside/three/other")});
}

TEST_P(StreamMergedRenames, TakeThePlaceOfAFolderThatIsThere) {
  makeFolder(in("other"));
  process_->flush();
  const auto events = process_->toldOf([this] {
    move("one", "two");
    move("two", "one");
    move("one", "two");
    move("other", "one");
    touchAndRemove("one/file");
    touchAndRemove("two/within/deep");
  });
  EXPECT_EQ(pathsEndingIn(events, "file"), std::vector{in("one/file")});
  EXPECT_EQ(pathsEndingIn(events, "deep"), std::vector{in("two/within/deep")});
}

TEST_P(StreamMergedRenames, OfManyFoldersAtOnceAreFollowedToo) {
  constexpr int kFolders = 40;
  for (int i = 0; i < kFolders; ++i) makeFolder(in("from" + std::to_string(i)));
  process_->flush();
  const auto events = process_->toldOf([this] {
    for (int i = 0; i < kFolders; ++i) {
      const auto number = std::to_string(i);
      for (int turn = 0; turn < 3; ++turn) move((turn == 1 ? "to" : "from") + number, (turn == 1 ? "from" : "to") + number);
      touchAndRemove("to" + number + "/file" + number);
    }
  });
  for (int i = 0; i < kFolders; ++i) {
    const auto number = std::to_string(i);
    EXPECT_EQ(pathsEndingIn(events, "file" + number), std::vector{in("to" + number + "/file" + number)});
  }
}

}  // namespace
}  // namespace kestrine::test
