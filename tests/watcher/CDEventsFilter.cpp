#include "watcher/CDEventsFilter.h"

#include <gtest/gtest.h>

namespace kestrine::test {
namespace {

std::vector<platform::URL> listOf(const std::vector<std::string>& texts) {
  std::vector<platform::URL> URLs;
  URLs.reserve(texts.size());
  for (const std::string& text : texts) URLs.push_back(platform::URL::URLWithString(text).value());
  return URLs;
}

constexpr bool kWatchedFoldersOnly = true;
constexpr bool kEverything = false;

TEST(CDEventsFilter, LeavesOutWhateverBeginsWithAnExcludedPathCharacterByCharacter) {
  const CDEventsFilter filter(listOf({"/u"}), listOf({"/u/Downloads"}));
  EXPECT_TRUE(filter.ignores("/u/Downloads", kEverything));
  EXPECT_TRUE(filter.ignores("/u/Downloads/x", kEverything));
  EXPECT_TRUE(filter.ignores("/u/Downloads2/x", kEverything));
  EXPECT_FALSE(filter.ignores("/u/Docs/x", kEverything));
  EXPECT_FALSE(filter.ignores("/u/Download", kEverything));
  EXPECT_FALSE(filter.ignores("/v/u/Downloads", kEverything));
}

TEST(CDEventsFilter, ConsultsEveryExcludedPath) {
  const CDEventsFilter filter(listOf({"/u"}), listOf({"/u/a", "/u/b"}));
  EXPECT_TRUE(filter.ignores("/u/a", kEverything));
  EXPECT_TRUE(filter.ignores("/u/b", kEverything));
  EXPECT_FALSE(filter.ignores("/u/c", kEverything));
}

TEST(CDEventsFilter, ComparesExcludedPathsWithoutTheirEscapesAndTrailingSeparators) {
  const CDEventsFilter filter(listOf({"/u"}), listOf({"/u/my%20files/"}));
  EXPECT_TRUE(filter.ignores("/u/my files/x", kEverything));
  EXPECT_TRUE(filter.ignores("/u/my files", kEverything));
  EXPECT_FALSE(filter.ignores("/u/my%20files/x", kEverything));
}

TEST(CDEventsFilter, KeepsEverythingWithoutAnExcludeList) {
  const CDEventsFilter filter(listOf({"/u"}), std::nullopt);
  EXPECT_FALSE(filter.ignores("/u/Downloads", kEverything));
  EXPECT_FALSE(filter.ignores("/elsewhere", kEverything));
}

TEST(CDEventsFilter, KeepsOnlyTheWatchedFoldersThemselvesInThatMode) {
  const CDEventsFilter filter(listOf({"/w/a", "/w/c/"}), std::nullopt);
  EXPECT_FALSE(filter.ignores("/w/a", kWatchedFoldersOnly));
  EXPECT_FALSE(filter.ignores("/w/c", kWatchedFoldersOnly));
  EXPECT_TRUE(filter.ignores("/w/a/b", kWatchedFoldersOnly));
  EXPECT_TRUE(filter.ignores("/w/aa", kWatchedFoldersOnly));
  EXPECT_TRUE(filter.ignores("/w", kWatchedFoldersOnly));
}

TEST(CDEventsFilter, ForgetsTheExcludeListInThatMode) {
  const CDEventsFilter filter(listOf({"/w/a"}), listOf({"/w"}));
  EXPECT_FALSE(filter.ignores("/w/a", kWatchedFoldersOnly));
  EXPECT_TRUE(filter.ignores("/w/a", kEverything));
}

}  // namespace
}  // namespace kestrine::test
