#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <map>
#include <set>
#include <thread>

#include "platform/fsevents/polling/PolledRegion.h"
#include "tests/fsevents/support/PolledWorld.h"

// The places of compared folders: what a look finds that nobody knows, what it does not find where it should be, and what has not been seen
// until it is found.

namespace kestrine::test {
namespace {

using platform::fsevents::NodeId;
using testing::ElementsAre;
using testing::IsEmpty;
using Told = std::map<std::string, FSEventStreamEventFlags>;
using Why = PolledWorld::Region::Why;

/// Owns folders by number, does nothing about what it is told, and writes it down.
class PlacesOwner final : public PolledWorld::Region::Host {
 public:
  using Flags = FSEventStreamEventFlags;

  void add(const std::string& path, Why why = Why::MarkRefused) {
    const platform::FileHandle folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(region.add(static_cast<NodeId>(paths_.size()), folder.fileDescriptor(), why)) << path;
    paths_.push_back(path);
  }
  /// A pass at once; its number.
  std::uint32_t pass() {
    const std::uint32_t number = region.hasten();
    region.work(*this, kWholePass);
    return number;
  }
  /// The next one, when the region says so.
  void passWhenDue() {
    std::this_thread::sleep_until(region.due().value_or(PolledWorld::Region::Clock::now()));
    region.work(*this, kWholePass);
  }
  Told takeTold() { return std::exchange(told_, {}); }
  std::vector<std::string> takeFound() { return std::exchange(found_, {}); }
  std::vector<std::string> takeReplaced() { return std::exchange(replaced_, {}); }

  PolledWorld::Region region{std::chrono::nanoseconds(1), false};
  std::set<std::string> known;
  /// Once, when the next folder has been opened.
  std::function<void()> afterOpening;

 private:
  static constexpr std::chrono::hours kWholePass{1};

  platform::FileHandle openFolder(NodeId folder) override {
    platform::FileHandle opened(::open(paths_.at(folder).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const int error = errno;
    if (const auto once = std::exchange(afterOpening, {})) once();
    errno = error;
    return opened;
  }
  PolledWorld::Region::Mark tryMark(NodeId /*folder*/, int /*descriptor*/) override { return PolledWorld::Region::Mark::Refused; }
  void left(NodeId folder) override { ADD_FAILURE() << paths_.at(folder); }
  void changed(NodeId folder, std::string_view name, Flags flags) override { told_[place(folder, name)] |= flags; }
  void changedAt(std::string_view formerPlace, std::string_view name, Flags flags) override {
    told_[std::string(formerPlace) + "/" + std::string(name)] |= flags;
  }
  void folderGone(NodeId /*folder*/, std::string_view /*name*/, Flags /*flags*/) override {}
  void folderFound(NodeId folder, std::string_view name, Flags /*flags*/) override { found_.push_back(place(folder, name)); }
  [[nodiscard]] bool knowsFolder(NodeId folder, std::string_view name) override { return known.contains(place(folder, name)); }
  void replaced(NodeId folder) override {
    replaced_.push_back(paths_.at(folder));
    region.remove(folder);
  }
  void failed(NodeId folder, int error) override { ADD_FAILURE() << paths_.at(folder) << ": " << error; }
  void recovered(NodeId folder) override { ADD_FAILURE() << paths_.at(folder); }
  [[nodiscard]] std::string place(NodeId folder, std::string_view name) const { return paths_.at(folder) + "/" + std::string(name); }

  std::vector<std::string> paths_;
  Told told_;
  std::vector<std::string> found_, replaced_;
};

class PolledRegionPlaces : public testing::Test {
 protected:
  [[nodiscard]] std::string in(const std::string& name) const { return base_ / name; }
  /// The folder in the region, with nothing in it whose stamps are in question.
  void add(const std::string& path, Why why = Why::MarkRefused) {
    makeFolders(path);
    PolledWorld::letStampsGoOn();
    owner_.add(path, why);
  }
  TemporaryDirectory base_, outside_;
  PlacesOwner owner_;
};

TEST_F(PolledRegionPlaces, OfSubfoldersThatNobodyKnowsAreTakenUpAtEachLookUntilTheyAreKnown) {
  makeFolders(in("known"));
  makeFolders(in("unknown"));
  writeFile(in("file"), "text");
  makeLink("unknown", in("link"));
  add(base_.path());
  owner_.known = {in("known")};
  for (int look = 0; look < 2; ++look) {
    owner_.pass();
    EXPECT_THAT(owner_.takeFound(), ElementsAre(in("unknown"))) << look;
    EXPECT_EQ(owner_.takeTold(), (Told{{in("unknown"), kCreated | kIsFolder}})) << look;
  }
  owner_.known.insert(in("unknown"));
  owner_.pass();
  EXPECT_THAT(owner_.takeFound(), IsEmpty());
  EXPECT_EQ(owner_.takeTold(), Told{});
}

TEST_F(PolledRegionPlaces, OfSubfoldersThatCameBetweenTwoLooksAreTakenUpOnce) {
  makeFolders(in("old"));
  add(base_.path());
  owner_.known = {in("old")};
  owner_.pass();
  // By whoever they are told to, who may take them up or not; and again only at the next look.
  makeFolders(in("new"));
  moveItem(in("old"), outside_ / "old");
  makeFolders(in("old"));
  owner_.known.clear();
  owner_.pass();
  EXPECT_THAT(owner_.takeFound(), testing::UnorderedElementsAre(in("new"), in("old")));
  owner_.pass();
  EXPECT_THAT(owner_.takeFound(), testing::UnorderedElementsAre(in("new"), in("old")));
}

TEST_F(PolledRegionPlaces, OfSubfoldersAreTheKernelsToTellWhereTheFolderIsMarked) {
  makeFolders(in("unknown"));
  add(base_.path(), Why::OthersWrite);
  owner_.pass();
  EXPECT_THAT(owner_.takeFound(), IsEmpty());
  EXPECT_EQ(owner_.takeTold(), Told{});
}

TEST_F(PolledRegionPlaces, WhereAnotherFolderStandsAreGivenUpAtTheSecondLook) {
  add(in("a"));
  add(in("b"));
  moveItem(in("a"), in("away"));
  makeFolders(in("a"));
  writeFile(in("a/anothers"), "text");
  owner_.pass();
  EXPECT_THAT(owner_.takeReplaced(), IsEmpty());
  owner_.pass();
  EXPECT_THAT(owner_.takeReplaced(), ElementsAre(in("a")));
  owner_.pass();
  EXPECT_THAT(owner_.takeReplaced(), IsEmpty());
  EXPECT_EQ(owner_.takeTold(), Told{}) << "what is in the other is not the folder's";
  EXPECT_EQ(owner_.region.folders(), 1U);
}

TEST_F(PolledRegionPlaces, WhereNothingStandsAreGivenUpAtTheSecondLook) {
  add(in("a"));
  add(in("b"));
  moveItem(in("a"), in("away"));
  owner_.pass();
  EXPECT_THAT(owner_.takeReplaced(), IsEmpty());
  owner_.pass();
  EXPECT_THAT(owner_.takeReplaced(), ElementsAre(in("a")));
  EXPECT_EQ(owner_.region.folders(), 1U);
}

TEST_F(PolledRegionPlaces, WhereNothingStandsAreLeftToTheKernelThatWatchesThem) {
  add(in("a"), Why::OthersWrite);
  moveItem(in("a"), in("away"));
  for (int look = 0; look < 3; ++look) owner_.pass();
  EXPECT_THAT(owner_.takeReplaced(), IsEmpty());
  EXPECT_EQ(owner_.region.folders(), 1U);
}

TEST_F(PolledRegionPlaces, ThatAreTheirOwnAgainAtTheNextLookAreKept) {
  add(in("a"));
  for (int turn = 0; turn < 4; ++turn) {
    const bool isTaken = turn % 2 == 0;
    const std::string name = "/meanwhile" + std::to_string(turn);
    moveItem(in("a"), in("away"));
    writeFile(in("away") + name, "text");
    if (isTaken) makeFolders(in("a"));
    owner_.pass();
    EXPECT_EQ(owner_.takeTold(), Told{});
    if (isTaken) removeItem(in("a"));
    moveItem(in("away"), in("a"));
    owner_.pass();
    EXPECT_EQ(owner_.takeTold()[in("a") + name] & kCreated, kCreated);
    EXPECT_THAT(owner_.takeReplaced(), IsEmpty()) << turn;
  }
}

TEST_F(PolledRegionPlaces, ThatTheFolderLeftDuringTheLookAreToldNothingOf) {
  add(in("a"));
  owner_.pass();
  const std::uint64_t seen = owner_.region.seenUpTo();
  PolledWorld::letStampsGoOn();
  writeFile(in("a/file"), "text");
  owner_.afterOpening = [&] { moveItem(in("a"), in("away")); };
  const std::uint32_t pass = owner_.pass();
  EXPECT_EQ(owner_.takeTold(), Told{}) << "it may have happened in the other place";
  EXPECT_FALSE(owner_.region.isOver(pass));
  EXPECT_EQ(owner_.region.seenUpTo(), seen);
  moveItem(in("away"), in("a"));
  owner_.passWhenDue();
  EXPECT_EQ(owner_.takeTold(), (Told{{in("a/file"), kCreated | kIsFile}}));
  EXPECT_TRUE(owner_.region.isOver(pass));
  EXPECT_GT(owner_.region.seenUpTo(), seen);
}

TEST_F(PolledRegionPlaces, ThatWereMissedAreNotSeenUntilTheyAreLookedAtAgain) {
  add(in("a"));
  add(in("b"));
  for (const bool isTaken : {false, true}) {
    owner_.pass();
    const std::uint64_t seen = owner_.region.seenUpTo();
    moveItem(in("a"), in("away"));
    if (isTaken) makeFolders(in("a"));
    PolledWorld::letStampsGoOn();
    const std::uint32_t pass = owner_.pass();
    EXPECT_FALSE(owner_.region.isOver(pass)) << isTaken;
    EXPECT_EQ(owner_.region.seenUpTo(), seen) << isTaken;
    if (isTaken) removeItem(in("a"));
    moveItem(in("away"), in("a"));
    owner_.passWhenDue();
    EXPECT_TRUE(owner_.region.isOver(pass)) << isTaken;
    EXPECT_GT(owner_.region.seenUpTo(), seen) << isTaken;
  }
}

TEST_F(PolledRegionPlaces, ThatAreGivenUpAreNotWaitedFor) {
  add(in("a"));
  add(in("b"));
  owner_.pass();
  const std::uint64_t seen = owner_.region.seenUpTo();
  removeItem(in("a"));
  PolledWorld::letStampsGoOn();
  const std::uint32_t pass = owner_.pass();
  EXPECT_FALSE(owner_.region.isOver(pass));
  owner_.passWhenDue();
  EXPECT_THAT(owner_.takeReplaced(), ElementsAre(in("a")));
  EXPECT_TRUE(owner_.region.isOver(pass));
  EXPECT_GT(owner_.region.seenUpTo(), seen);
}

TEST_F(PolledRegionPlaces, ThatAreMissedForEverHoldUpNoFlushForEver) {
  add(in("a"), Why::OthersWrite);
  owner_.pass();
  const std::uint64_t seen = owner_.region.seenUpTo();
  moveItem(in("a"), in("away"));
  PolledWorld::letStampsGoOn();
  const std::uint32_t pass = owner_.pass();
  int passes = 0;
  for (; passes < 100 && !owner_.region.isOver(pass); ++passes) owner_.passWhenDue();
  EXPECT_TRUE(owner_.region.isOver(pass));
  EXPECT_GE(passes, 5) << "the kernel is about to tell where it is";
  EXPECT_EQ(owner_.region.seenUpTo(), seen);
}

}  // namespace
}  // namespace kestrine::test
