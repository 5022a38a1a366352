#include "app/client/WatchedFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

using testing::HasSubstr;

struct Watchable {
  std::string base;
  std::string watched;
  /// A part of the warning; empty where the folder typed is the one watched.
  std::string warning;
};

const Watchable kWatchable[] = {
    {"/home/me", "/home/me/Kestrine", ""},
    {"", "/Kestrine", ""},
    {"/home/me/Übersicht", "/home/me/Übersicht/Kestrine", ""},
    {"/home/日本", "/home/日本/Kestrine", ""},
    {"/a/b#c", "/a/b", "'#' ends the path"},
    {"/a/b?c", "/a/b", "'?' ends the path"},
    {"/a/b?c#d", "/a/b", "'?' ends the path"},
    {"/a/%41", "/a/A/Kestrine", "'%' and two digits stand for another character"},
    {"//server/share", "/share/Kestrine", "'//' at the beginning makes the next part a host name"},
    {"file:///home/me", "/home/me/Kestrine", "the text names a URL"},
};

TEST(WatchedFolder, FollowsTheRulesOfURLsAndWarnsWhereTheyLeadElsewhere) {
  for (const Watchable& row : kWatchable) {
    const WatchedFolder folder = watchedFolder(row.base);
    EXPECT_EQ(folder.watched, row.watched) << row.base;
    EXPECT_EQ(folder.problem, "") << row.base;
    EXPECT_EQ(folder.warning.empty(), row.warning.empty()) << row.base << ": " << folder.warning;
    EXPECT_THAT(folder.warning, HasSubstr(row.warning)) << row.base;
    const std::string named = row.warning.empty() ? "" : "'" + row.watched + "'";
    EXPECT_THAT(folder.warning, HasSubstr(named)) << row.base;
  }
}

TEST(WatchedFolder, TakesATrailingOrRepeatedSeparatorForWhatItIs) {
  for (const char* base : {"/a/b/", "/a//b", "/a///b//"}) {
    const WatchedFolder folder = watchedFolder(base);
    EXPECT_EQ(folder.typed, "/a/b/Kestrine") << base;
    EXPECT_EQ(folder.problem, "") << base;
    EXPECT_EQ(folder.warning, "") << base;
  }
}

struct Unwatchable {
  std::string base;
  std::string problem;
};

const Unwatchable kUnwatchable[] = {
    {"/home/my files", "it holds a blank"},
    {"/a/50%", "it holds a '%' that is not followed by two hexadecimal digits"},
    {"/a/%4", "it holds a '%' that is not followed by two hexadecimal digits"},
    {"/a\tb", "it holds the control character 0x09"},
    {"/a<b>", "it holds the character '<'"},
    {"/a\"b", "it holds the character '\"'"},
    {"home/me", "it is no absolute path"},
    {"(null)", "it is no absolute path"},
};

TEST(WatchedFolder, SaysWhyABaseFolderCannotBeWatched) {
  for (const Unwatchable& row : kUnwatchable) {
    const WatchedFolder folder = watchedFolder(row.base);
    EXPECT_EQ(folder.watched, "") << row.base;
    EXPECT_THAT(folder.problem, HasSubstr("'" + row.base + "'"));
    EXPECT_THAT(folder.problem, HasSubstr(row.problem)) << row.base;
  }
}

TEST(WatchedFolder, KeepsTheBaseFolderInTheApplicationsPreferences) {
  const Sandbox sandbox;
  sandbox.enter();
  EXPECT_EQ(basePath(), std::nullopt);
  ASSERT_TRUE(setBasePath("/home/me"));
  EXPECT_EQ(basePath(), "/home/me");
  EXPECT_EQ(sandbox.defaults("Ostrabyte.Kestrine", "kestrinePathKey"), platform::Object("/home/me"));
}

}  // namespace
}  // namespace kestrine::test
