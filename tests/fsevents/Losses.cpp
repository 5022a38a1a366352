#include "platform/fsevents/status/Losses.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "platform/foundation/value/Dictionary.h"

// What is lost at the moment, and what a reader of the stream is told of it.

namespace kestrine::test {
namespace {

using platform::Dictionary;
using platform::Object;
using platform::fsevents::Losses;
using platform::fsevents::LossKind;
using platform::fsevents::LossNotice;
using platform::fsevents::LossNotices;
using testing::ElementsAre;
using testing::IsEmpty;

/// "+/a: reason; remedy" for one that begins, "-/a" for one that ends.
std::vector<std::string> noticesOf(Losses& losses) {
  std::vector<std::string> texts;
  for (const LossNotice& notice : losses.takeNotices()) {
    texts.push_back(notice.begins ? "+" + notice.path + ": " + notice.reason + "; " + notice.remedy : "-" + notice.path);
  }
  return texts;
}

/// "/a: reason; remedy; count", with "over: " before what does not last.
std::vector<std::string> shownBy(const Losses& losses) {
  Dictionary entries;
  losses.describe(entries);
  std::vector<std::string> texts;
  for (const Object& loss : entries["losses"].arrayValue()) {
    const auto text = [&](const char* key) { return loss.objectForKey(key).stringValue(); };
    texts.push_back((loss.objectForKey("lasting").boolValue() ? "" : "over: ") + text("path") + ": " + text("reason") + "; " +
                    text("remedy") + "; " + std::to_string(loss.objectForKey("count").unsignedLongLongValue()));
  }
  return texts;
}

std::vector<std::string> unreadableIn(const Losses& losses) {
  Dictionary entries;
  losses.describe(entries);
  std::vector<std::string> paths;
  for (const Object& path : entries["unreadable"].arrayValue()) paths.push_back(path.stringValue());
  return paths;
}

TEST(Losses, BeginOnceAtAPathAndAreCountedWhileTheyLast) {
  Losses losses;
  EXPECT_FALSE(losses.any());
  EXPECT_TRUE(losses.begin(LossKind::MarkLimit, "/a", "the limit is reached", "raise it"));
  EXPECT_TRUE(losses.any());
  EXPECT_FALSE(losses.begin(LossKind::MarkLimit, "/a", "the limit is reached", "raise it"));
  EXPECT_FALSE(losses.begin(LossKind::MarkLimit, "/a", "the limit is reached", "raise it"));
  EXPECT_THAT(noticesOf(losses), ElementsAre("+/a: the limit is reached; raise it"));
  EXPECT_THAT(shownBy(losses), ElementsAre("/a: the limit is reached; raise it; 3"));
  EXPECT_THAT(noticesOf(losses), IsEmpty());
}

TEST(Losses, EndOnceAndAreRemembered) {
  Losses losses;
  EXPECT_FALSE(losses.end(LossKind::InputOutput, "/a"));
  EXPECT_FALSE(losses.hasNotices());
  losses.begin(LossKind::InputOutput, "/a", "it fails", "look at the disk");
  EXPECT_TRUE(losses.hasNotices());
  EXPECT_FALSE(losses.end(LossKind::MarkLimit, "/a"));
  EXPECT_FALSE(losses.end(LossKind::InputOutput, "/a/b"));
  EXPECT_TRUE(losses.end(LossKind::InputOutput, "/a"));
  EXPECT_FALSE(losses.end(LossKind::InputOutput, "/a"));
  EXPECT_FALSE(losses.any());
  EXPECT_THAT(noticesOf(losses), ElementsAre("+/a: it fails; look at the disk", "-/a"));
  EXPECT_FALSE(losses.hasNotices());
  EXPECT_THAT(shownBy(losses), ElementsAre("over: /a: it fails; look at the disk; 1"));
}

TEST(Losses, ThatComeAgainAreToldAgainAndGoOnBeingCounted) {
  Losses losses;
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(losses.begin(LossKind::QueueOverflow, "/a", "the queue was full", ""));
    EXPECT_TRUE(losses.end(LossKind::QueueOverflow, "/a"));
  }
  EXPECT_TRUE(losses.begin(LossKind::QueueOverflow, "/a", "the queue was full", ""));
  EXPECT_THAT(shownBy(losses), ElementsAre("/a: the queue was full; ; 4"));
  EXPECT_EQ(noticesOf(losses).size(), 7U);
}

TEST(Losses, OfTwoKindsAtOnePathRecoverWithTheLastOfThem) {
  Losses losses;
  EXPECT_TRUE(losses.begin(LossKind::Rights, "/a", "no permission", ""));
  EXPECT_TRUE(losses.begin(LossKind::Hang, "/a", "no answer", ""));
  EXPECT_TRUE(losses.end(LossKind::Rights, "/a"));
  EXPECT_THAT(noticesOf(losses), ElementsAre("+/a: no permission; ", "+/a: no answer; "));
  EXPECT_TRUE(losses.end(LossKind::Hang, "/a"));
  EXPECT_THAT(noticesOf(losses), ElementsAre("-/a"));
}

TEST(Losses, AreForgottenWithWhatStoodThere) {
  Losses losses;
  for (const char* path : {"/a", "/a/b", "/a/b/c", "/a.b", "/ab", "/b"}) losses.begin(LossKind::Rights, path, "no permission", "");
  losses.begin(LossKind::InputOutput, "/a/b", "it fails", "");
  static_cast<void>(losses.takeNotices());
  losses.forget("/a");
  EXPECT_THAT(noticesOf(losses), testing::UnorderedElementsAre("-/a", "-/a/b", "-/a/b/c"));
  EXPECT_THAT(unreadableIn(losses), ElementsAre("/a.b", "/ab", "/b"));
  losses.forget("/");
  EXPECT_THAT(noticesOf(losses), ElementsAre("-/a.b", "-/ab", "-/b"));
  EXPECT_FALSE(losses.any());
}

TEST(Losses, MoveWithWhatTheyAreAt) {
  Losses losses;
  for (const char* path : {"/r/a", "/r/a/b", "/r/ab"}) losses.begin(LossKind::Rights, path, "no permission", "");
  losses.begin(LossKind::Hang, "/r/a", "no answer", "");
  static_cast<void>(losses.takeNotices());
  losses.move("/r/a", "/r/c/d");
  EXPECT_THAT(noticesOf(losses), testing::UnorderedElementsAre("+/r/c/d: no permission; ", "+/r/c/d/b: no permission; ",
                                                               "+/r/c/d: no answer; ", "-/r/a", "-/r/a/b"));
  EXPECT_THAT(unreadableIn(losses), ElementsAre("/r/ab", "/r/c/d", "/r/c/d/b"));
  EXPECT_FALSE(losses.end(LossKind::Rights, "/r/a"));
  EXPECT_TRUE(losses.end(LossKind::Rights, "/r/c/d/b"));
}

TEST(Losses, AtTheRootOfTheFileSystemHaveItsName) {
  Losses losses;
  EXPECT_TRUE(losses.begin(LossKind::Rights, "", "no permission", ""));
  EXPECT_FALSE(losses.begin(LossKind::Rights, "/", "no permission", ""));
  EXPECT_THAT(unreadableIn(losses), ElementsAre("/"));
  EXPECT_TRUE(losses.end(LossKind::Rights, ""));
  EXPECT_THAT(noticesOf(losses), ElementsAre("+/: no permission; ", "-/"));
}

// Beyond the places that are named.

std::string manyPath(std::size_t number) { return "/many/folders/" + std::to_string(number); }

void beginMany(Losses& losses, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) ASSERT_TRUE(losses.begin(LossKind::Rights, manyPath(i), "no permission", "chmod")) << i;
}

TEST(Losses, BeyondTheNamedOnesAreOneAtTheFolderAboveThem) {
  Losses losses;
  beginMany(losses, Losses::kNamed + 3);
  // Each is told, and none of them twice.
  EXPECT_FALSE(losses.begin(LossKind::Rights, manyPath(Losses::kNamed + 1), "no permission", "chmod"));
  auto notices = losses.takeNotices();
  ASSERT_EQ(notices.size(), Losses::kNamed + 1);
  EXPECT_EQ(notices.back().path, "/many/folders");
  EXPECT_EQ(notices.back().reason, "no permission (here and in further folders)");
  EXPECT_EQ(notices.back().remedy, "chmod");
  EXPECT_EQ(shownBy(losses).front(), "/many/folders: no permission (here and in further folders); chmod; 4");
  Dictionary entries;
  losses.describe(entries);
  EXPECT_EQ(entries["lossesNotShown"].unsignedLongLongValue(), 1U);

  EXPECT_TRUE(losses.end(LossKind::Rights, manyPath(Losses::kNamed)));
  EXPECT_TRUE(losses.end(LossKind::Rights, manyPath(Losses::kNamed + 1)));
  EXPECT_FALSE(losses.end(LossKind::Rights, manyPath(Losses::kNamed + 1)));
  EXPECT_THAT(noticesOf(losses), IsEmpty());
  EXPECT_TRUE(losses.end(LossKind::Rights, manyPath(Losses::kNamed + 2)));
  EXPECT_THAT(noticesOf(losses), ElementsAre("-/many/folders"));
  for (std::size_t i = 0; i < Losses::kNamed; ++i) EXPECT_TRUE(losses.end(LossKind::Rights, manyPath(i))) << i;
  EXPECT_FALSE(losses.any());
}

TEST(Losses, BeyondTheNamedOnesReachUpToWhatStandsAboveAll) {
  Losses losses;
  beginMany(losses, Losses::kNamed + 1);
  static_cast<void>(losses.takeNotices());
  EXPECT_TRUE(losses.begin(LossKind::Rights, "/many/other", "no permission", "chmod"));
  EXPECT_THAT(noticesOf(losses), ElementsAre("+/many: no permission (here and in further folders); chmod", "-/many/folders"));
  losses.move(manyPath(7), "/elsewhere");
  EXPECT_THAT(noticesOf(losses), testing::Contains("+/: no permission (here and in further folders); chmod"));
  losses.forget("/many");
  losses.forget("/elsewhere");
  EXPECT_TRUE(losses.any());  // not all that stood at "/" has gone
  losses.forget("/");
  EXPECT_FALSE(losses.any());
}

TEST(Losses, BeyondTheCountedOnesEndWithWhatStandsAboveThem) {
  Losses losses;
  const std::size_t count = Losses::kNamed + Losses::kCounted + 10;
  beginMany(losses, count);
  for (std::size_t i = 0; i < Losses::kNamed + Losses::kCounted; ++i) ASSERT_TRUE(losses.end(LossKind::Rights, manyPath(i))) << i;
  EXPECT_TRUE(losses.any());
  losses.forget("/many");
  EXPECT_FALSE(losses.any());
  auto notices = losses.takeNotices();
  ASSERT_FALSE(notices.empty());
  EXPECT_FALSE(notices.back().begins);
  EXPECT_EQ(notices.back().path, "/many/folders");
}

TEST(Losses, ThatAreOverAreRememberedToABound) {
  Losses losses;
  for (std::size_t i = 0; i < 3 * Losses::kRemembered; ++i) {
    losses.begin(LossKind::InputOutput, manyPath(i), "it fails", "");
    losses.end(LossKind::InputOutput, manyPath(i));
  }
  const std::vector<std::string> shown = shownBy(losses);
  ASSERT_EQ(shown.size(), Losses::kRemembered);
  EXPECT_EQ(shown.back(), "over: " + manyPath(3 * Losses::kRemembered - 1) + ": it fails; ; 1");
}

// A reader that takes no notices.

TEST(Losses, LeaveNobodyWaitingForARecoveryHoweverLongNobodyAsked) {
  Losses losses;
  losses.begin(LossKind::Hang, "/hangs", "no answer", "");
  losses.begin(LossKind::Rights, "/closed", "no permission", "");
  static_cast<void>(losses.takeNotices());
  losses.end(LossKind::Hang, "/hangs");
  for (std::size_t i = 0; i < 3 * LossNotices::kUnabridged; ++i) {
    losses.begin(LossKind::InputOutput, manyPath(i % 100), "it fails", "");
    losses.end(LossKind::InputOutput, manyPath(i % 100));
  }
  losses.begin(LossKind::InputOutput, "/fails", "it fails", "");
  auto notices = losses.takeNotices();
  EXPECT_LE(notices.size(), LossNotices::kUnabridged);
  std::map<std::string, int> open{{"/hangs", 1}, {"/closed", 1}};
  for (const LossNotice& notice : notices) open[notice.path] += notice.begins ? 1 : -1;
  EXPECT_EQ(open["/hangs"], 0);
  EXPECT_EQ(open["/closed"], 1);
  EXPECT_EQ(open["/fails"], 1);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(open[manyPath(i)], 0) << i;
}

TEST(Losses, AreToldInOrderToAReaderWhileOtherThreadsLoseAndFind) {
  Losses losses;
  std::atomic<int> running{4};
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&losses, &running, number] {
      const std::string mine = "/thread/" + std::to_string(number);
      for (int i = 0; i < 2000; ++i) {
        const std::string path = mine + "/" + std::to_string(i % 7);
        losses.begin(LossKind::InputOutput, path, "it fails", "");
        if (i % 3 == 0) losses.move(path, mine + "/moved");
        losses.end(LossKind::InputOutput, path);
        losses.forget(mine);
      }
      --running;
    });
  }
  std::set<std::string> lost;
  const auto take = [&] {
    for (const LossNotice& notice : losses.takeNotices()) {
      if (notice.begins) {
        EXPECT_TRUE(lost.insert(notice.path).second) << notice.path;
      } else {
        EXPECT_EQ(lost.erase(notice.path), 1U) << notice.path;
      }
    }
  };
  while (running > 0) take();
  for (auto& thread : threads) thread.join();
  take();
  EXPECT_THAT(lost, IsEmpty());
  EXPECT_FALSE(losses.any());
}

}  // namespace
}  // namespace kestrine::test
