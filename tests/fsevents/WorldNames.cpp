#include <algorithm>
#include <filesystem>
#include <set>

#include "tests/fsevents/support/StreamProcess.h"
#include "tests/fsevents/support/WorldTest.h"

// A change is told under a path that it had, or had at some time; never under one put together from a name and a place that the folder
// reached when the name was gone. The stream reads its queue only after everything has happened.

namespace kestrine::test {
namespace {

class WorldNames : public WorldTest {
 protected:
  void SetUp() override {
    WorldTest::SetUp();
    if (IsSkipped()) return;
    makeFolders(in("a/d/deep"));
    makeFolders(in("b"));
    for (const auto* name : {"old", "other"}) writeFile(in("a/d/") + name, "text");
    process_ = std::make_unique<StreamProcess>(StreamProcess::Options{.paths = {root_}, .source = sourceName(GetParam())});
    ASSERT_EQ(process_->source(), sourceName(GetParam())) << process_->error();
    remember();
  }
  /// One change, and what is there after it.
  void then(const std::function<void()>& change) {
    change();
    remember();
  }
  void remember() {
    existed_.insert(root_);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) existed_.insert(entry.path().string());
  }
  void move(const std::string& from, const std::string& to) {
    then([&] { moveItem(in(from), in(to)); });
  }
  void make(const std::string& name) {
    then([&] { touchFile(in(name)); });
  }
  void remove(const std::string& name) {
    then([&] { removeTree(in(name)); });
  }
  void makeDeep(const std::string& name) {
    then([&] { makeFolders(in(name)); });
  }
  /// The changes, unread until they are all over; then no event is of a path that never was, and what is listed is told at one of the paths
  /// given, or covered by a rescan.
  void expectTrue(const std::function<void()>& changes, const std::vector<std::vector<std::string>>& toldAtOneOf) {
    process_->halt();
    changes();
    process_->goOn();
    const auto events = process_->flush();
    for (const auto& event : events) EXPECT_TRUE(existed_.contains(event.path)) << "never was: " << describeEvent(event);
    for (const auto& places : toldAtOneOf) {
      const bool any = std::any_of(places.begin(), places.end(), [&](const std::string& name) { return covered(events, in(name)); });
      EXPECT_TRUE(any) << places.front();
    }
    // And the tree is true afterwards.
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
      if (entry.is_directory()) writeFile(entry.path().string() + "/probe", "text");
    }
    const auto later = process_->flush();
    for (const auto& event : later) EXPECT_TRUE(std::filesystem::exists(event.path)) << "later, of nothing: " << describeEvent(event);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
      if (entry.path().filename() == "probe") {
        EXPECT_TRUE(covered(later, entry.path().string())) << entry.path();
      }
    }
  }

  std::unique_ptr<StreamProcess> process_;
  std::set<std::string> existed_;
};
KESTRINE_PER_SOURCE(WorldNames);

TEST_P(WorldNames, OfWhatWasGoneBeforeItsFolderMoved) {
  expectTrue(
      [this] {
        make("a/d/brief");
        remove("a/d/brief");
        remove("a/d/old");
        move("a/d", "b/d");
      },
      {{"a/d/brief"}, {"a/d/old"}, {"a/d", "b/d"}});
}

TEST_P(WorldNames, OfWhatWasRenamedBeforeItsFolderMoved) {
  expectTrue(
      [this] {
        move("a/d/old", "a/d/new");
        move("a/d", "b/d");
      },
      {{"a/d/old"}, {"a/d/new", "b/d/new"}});
}

TEST_P(WorldNames, OfWhatWasMadeAfterItsFolderMoved) {
  expectTrue(
      [this] {
        move("a/d", "b/d");
        make("b/d/late");
        remove("b/d/other");
      },
      {{"b/d/late"}, {"b/d/other", "a/d/other"}});
}

TEST_P(WorldNames, OfWhatHappenedOnTheWayOfAFolderThatMovedTwice) {
  expectTrue(
      [this] {
        make("a/d/first");
        remove("a/d/first");
        move("a/d", "b/d");
        make("b/d/second");
        remove("b/d/second");
        move("b/d", "a/e");
        make("a/e/third");
      },
      {{"a/d/first"}, {"b/d/second"}, {"a/e/third"}});
}

TEST_P(WorldNames, BelowAFolderAboveThatMoved) {
  expectTrue(
      [this] {
        make("a/d/deep/brief");
        remove("a/d/deep/brief");
        move("a", "b/a");
        make("b/a/d/deep/late");
        move("b/a/d", "b/d");
        remove("b/d/deep/late");
      },
      {{"a/d/deep/brief"}, {"b/a/d/deep/late", "b/d/deep/late"}});
}

TEST_P(WorldNames, InFoldersThatChangedPlaces) {
  makeFolders(in("b/d"));
  process_->flush();
  remember();
  expectTrue(
      [this] {
        make("a/d/mine");
        remove("a/d/mine");
        make("b/d/yours");
        remove("b/d/yours");
        then([this] { exchangeItems(in("a/d"), in("b/d")); });
        make("a/d/after");
      },
      {{"a/d/mine"}, {"b/d/yours"}, {"a/d/after"}});
}

TEST_P(WorldNames, InANewFolderThatMoved) {
  expectTrue(
      [this] {
        makeDeep("a/new/x");
        make("a/new/x/brief");
        remove("a/new/x/brief");
        move("a/new", "b/new");
        make("b/new/x/late");
      },
      {{"b/new/x/late"}, {"a/new", "b/new"}});
}

TEST_P(WorldNames, InANewFolderThatMovedOnAndOn) {
  expectTrue(
      [this] {
        makeDeep("a/n0/x/y");
        for (int i = 0; i < 8; ++i) {
          const std::string from = (i % 2 == 0 ? "a/n" : "b/n") + std::to_string(i);
          const std::string to = (i % 2 == 0 ? "b/n" : "a/n") + std::to_string(i + 1);
          make(from + "/x/file" + std::to_string(i));
          move(from, to);
          remove(to + "/x/file" + std::to_string(i));
        }
        make("a/n8/x/y/last");
      },
      {{"a/n8/x/y/last"}});
}

TEST_P(WorldNames, OfAFolderWhosePlaceAnotherTook) {
  expectTrue(
      [this] {
        make("a/d/before");
        remove("a/d/before");
        move("a/d", "b/d");
        makeDeep("a/d/deep");
        make("a/d/deep/in-the-second");
        move("a/d", "a/d2");
        make("b/d/in-the-first");
      },
      {{"a/d/before"}, {"b/d/in-the-first"}, {"a/d2/deep/in-the-second", "a/d/deep/in-the-second"}});
}

TEST_P(WorldNames, OfAFolderThatWentAndAnotherOfItsName) {
  expectTrue(
      [this] {
        make("a/d/before");
        remove("a/d");
        makeDeep("a/d");
        make("a/d/after");
        move("a/d", "b/d");
      },
      {{"a/d/before"}, {"b/d/after", "a/d/after"}});
}

TEST_P(WorldNames, OfAFolderThatMovedOutAndBackElsewhere) {
  expectTrue(
      [this] {
        make("a/d/before");
        remove("a/d/before");
        moveItem(in("a/d"), outside("d"));
        touchFile(outside("d/while-out"));
        removeItem(outside("d/while-out"));
        then([this] { moveItem(outside("d"), in("b/d")); });
        make("b/d/after");
      },
      {{"a/d/before"}, {"b/d/after"}});
}

TEST_P(WorldNames, OfAFolderThatMovedIntoItsFormerChild) {
  expectTrue(
      [this] {
        make("a/d/brief");
        remove("a/d/brief");
        move("a/d", "d");
        move("a", "d/a");
        make("d/a/late");
        move("d/deep", "d/a/deep");
        make("d/a/deep/later");
      },
      {{"a/d/brief"}, {"d/a/late"}, {"d/a/deep/later"}});
}

}  // namespace
}  // namespace kestrine::test
