#include "app/client/WatchedFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/foundation/log/Log.h"
#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

using testing::HasSubstr;

struct Text {
  std::string text;
  std::string base;
};

const Text kWatchable[] = {
    {"/home/me", "/home/me"},
    {"/home/me/\u00dcbersicht", "/home/me/\u00dcbersicht"},
    {"/home/\u65e5\u672c", "/home/\u65e5\u672c"},
    {"/a/%41", "/a/A"},
    {"/a/My%20Documents", "/a/My Documents"},
    {"/a/b%3Fc%23d%25", "/a/b?c#d%"},
    {"/a/b/", "/a/b"},
    {"/a//b", "/a/b"},
    {"/a///b//", "/a/b"},
    {"file:///home/me", "/home/me"},
    {"file://localhost/home/me", "/home/me"},
    {"file://", "/"},
};

TEST(WatchedFolder, IsTheOneThatTheTextNamesAsAURL) {
  for (const Text& row : kWatchable) {
    const WatchedFolder folder = watchedFolder(row.text);
    EXPECT_EQ(folder.problem, "") << row.text;
    EXPECT_EQ(folder.base, row.base) << row.text;
  }
  EXPECT_EQ(watchedFolder("/home/me").watched, "/home/me/Kestrine");
  EXPECT_EQ(watchedFolder("/a/My%20Documents").watched, "/a/My Documents/Kestrine");
  EXPECT_EQ(watchedFolder("file://").watched, "/Kestrine");
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
    {"", "it is empty"},
    {"/", "'Kestrine' is the name of a host in it"},
    {"//server/share", "'server' is the name of a host in it"},
    {"file://server/share", "'server' is the name of a host in it"},
    {"/?x", "'?' ends the path of a URL"},
    {"?x", "'?' ends the path of a URL"},
    {"/a/b?c", "'?' ends the path of a URL"},
    {"/a/b#c", "'#' ends the path of a URL"},
    {"#x", "'#' ends the path of a URL"},
    {"mailto:me", "it is a URL of the kind 'mailto:'"},
    {"x:y", "it is a URL of the kind 'x:'"},
    {"http://server/a", "it is a URL of the kind 'http:'"},
    {"/a%00b", "it has no path"},
};

TEST(WatchedFolder, IsNoneForATextThatNamesNoFolderOfThisMachine) {
  for (const Unwatchable& row : kUnwatchable) {
    const WatchedFolder folder = watchedFolder(row.base);
    EXPECT_EQ(folder.watched, "") << row.base;
    EXPECT_EQ(folder.base, "") << row.base;
    EXPECT_THAT(folder.problem, HasSubstr("'" + row.base + "' names no folder of this machine: ")) << row.base;
    EXPECT_THAT(folder.problem, HasSubstr(row.problem)) << row.base;
  }
}

TEST(WatchedFolder, IsTheOneWhosePathWasStoredWhateverItsName) {
  const std::string names[] = {"plain", "My Documents", "a%20b",          "a?b",     "a#b", "50%", "%",           "[x]", "a\tb",
                               "a\nb",  "\xff\xfe",     "\u00dcbersicht", "a;b=c&d", "a:b", "~",   "'\"<>\\^`{|}"};
  for (const std::string& name : names) {
    const std::string path = "/base/" + name;
    EXPECT_EQ(watchedFolder(baseTextOfPath(path)).problem, "") << name;
    EXPECT_EQ(watchedFolder(baseTextOfPath(path)).base, path) << name;
    EXPECT_EQ(watchedFolder(baseTextOfPath(path)).watched, path + "/Kestrine") << name;
  }
  for (int byte = 1; byte < 256; ++byte) {
    if (byte == '/') continue;
    const std::string path = std::string("/a") + static_cast<char>(byte) + "b";
    EXPECT_EQ(watchedFolder(baseTextOfPath(path)).base, path) << byte;
  }
}

TEST(WatchedFolder, IsStoredAsItStandsWhereItsNameIsPlain) {
  EXPECT_EQ(baseTextOfPath("/home/me/Documents"), "/home/me/Documents");
  EXPECT_EQ(baseTextOfPath("//h/tmp"), "/h/tmp") << "a path, not the name of a host";
  EXPECT_EQ(baseTextOfPath("/a//b/"), "/a/b");
  EXPECT_EQ(baseTextOfPath("/home/My Documents"), "/home/My%20Documents");
}

TEST(WatchedFolder, OfTheRootIsStoredSoThatItIsNoHost) {
  EXPECT_EQ(watchedFolder(baseTextOfPath("/")).watched, "/Kestrine");
  EXPECT_EQ(watchedFolder(baseTextOfPath("//")).watched, "/Kestrine");
}

TEST(WatchedFolder, CanNeverBeWhereSomethingElseStands) {
  const Sandbox sandbox;
  writeFile(sandbox.folder("file"), "text");
  EXPECT_EQ(whyNeverABaseFolder(sandbox.base()), "");
  EXPECT_EQ(whyNeverABaseFolder(sandbox.folder("drive/that/is/not/there")), "");
  EXPECT_THAT(whyNeverABaseFolder(sandbox.folder("file")), HasSubstr("is no folder"));
  EXPECT_THAT(whyNeverABaseFolder(sandbox.folder("file/below")), HasSubstr("Not a directory"));
  EXPECT_THAT(whyNeverABaseFolder("/dev/null"), HasSubstr("is no folder"));
  EXPECT_THAT(whyNeverABaseFolder("/missing/" + std::string(300, 'x')), HasSubstr("is too long"));
  EXPECT_THAT(whyNeverABaseFolder("relative"), HasSubstr("is no absolute path"));
  writeFile(sandbox.watched(), "text");
  EXPECT_THAT(whyNeverABaseFolder(sandbox.base()), HasSubstr("Kestrine' is no folder"));
}

TEST(WatchedFolder, KeepsTheBaseFolderInTheApplicationsPreferences) {
  const Sandbox sandbox;
  sandbox.enter();
  EXPECT_EQ(baseText(), std::nullopt);
  ASSERT_TRUE(setBasePath("/home/me"));
  EXPECT_EQ(baseText(), "/home/me");
  ASSERT_TRUE(setBasePath("/home/My Documents"));
  EXPECT_EQ(baseText(), "/home/My%20Documents");
  EXPECT_FALSE(setBasePath("home/me"));
  EXPECT_FALSE(setBasePath("/dev/null"));
  EXPECT_EQ(sandbox.defaults("Ostrabyte.Kestrine", "kestrinePathKey"), platform::Object("/home/My%20Documents"));
}

}  // namespace
}  // namespace kestrine::test
