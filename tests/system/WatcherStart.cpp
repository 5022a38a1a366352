// How a watch begins, or does not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "tests/system/WatcherFixture.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::ElementsAre;

class WatcherStart : public WatcherService {
 protected:
  void startAndCall() {
    startService();
    application_.callToFileWatcher();
  }

  Application application_;
};

TEST_F(WatcherStart, LogsItsStepsInOrder) {
  setBasePath(base());
  startAndCall();
  ASSERT_TRUE(eventuallyStanding({1}));
  ASSERT_TRUE(service().waitForErrorOutput("\n------\n"));
  const std::string text = log();
  const std::size_t inside = text.find("] inside initFilewatcher\n");
  const std::size_t url = text.find("] watcher url  " + base() + "\n");
  const std::size_t run = text.find("] -[FileWatcherServiceXPC run]:\n<CDEvents: 0x");
  const std::size_t list = text.find(" { watchedURLs = (\n    \"" + watchedFolder() + "\"\n) }>\n------\n");
  EXPECT_NE(list, std::string::npos);
  EXPECT_LT(inside, url);
  EXPECT_LT(url, run);
  EXPECT_LT(run, list);
}

TEST_F(WatcherStart, FailsOnceOnABasePathWithABlankAndLeavesTheServiceRunning) {
  makeFolder(folder("a b"));
  makeFolder(folder("a b/Kestrine"));
  setBasePath(folder("a b"));
  startAndCall();
  ASSERT_TRUE(eventually([] { return watches().size() == 1 && watches()[0].objectForKey("state") == Object("failed"); }));
  EXPECT_FALSE(watches()[0].objectForKey("reason").stringValue().empty());
  writeFile(folder("a b/Kestrine/file"), "text");
  std::this_thread::sleep_for(kWellBeyondTheLatency);
  EXPECT_TRUE(flag().isNil());
  EXPECT_EQ(occurrences(log(), "    ErrorMethod = \"Run Method\";\n"), 1U) << "one report";
  EXPECT_TRUE(service().isRunning());

  // The next request is a new one.
  setBasePath(base());
  application_.callToFileWatcher();
  EXPECT_TRUE(eventuallyStanding({2}));
}

TEST_F(WatcherStart, NamesALimitOfTheKernelAndTellsTheApplicationToLookForItself) {
  // In a user namespace of its own the limit can be set to nothing.
  if (runToEnd({"unshare", "-Ur", "sh", "-c", "echo 0 >/proc/sys/user/max_inotify_instances"}).status != 0) {
    GTEST_SKIP() << "left out: a kernel at its limit, because user namespaces are not to be had here";
  }
  setBasePath(base());
  const std::string command = "echo 0 >/proc/sys/user/max_inotify_instances && exec " KESTRINE_SERVICE;
  startCommand({"unshare", "-Ur", "sh", "-c", command}, {{"KESTRINE_FSEVENTS_SOURCE", "inotify"}});
  application_.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  EXPECT_TRUE(service().waitForErrorOutput("user.max_inotify_instances = 0"));
  EXPECT_TRUE(eventuallyFlagged());
  ASSERT_TRUE(eventuallyTold(1));
  EXPECT_EQ(toldPaths().front(), watchedFolder());
}

TEST_F(WatcherStart, WithoutPreferencesWatchesTheTextOfNothing) {
  startAndCall();
  ASSERT_TRUE(eventuallyStanding({1}));
  EXPECT_EQ(watches()[0].objectForKey("folder"), Object("(null)/Kestrine"));
  EXPECT_TRUE(service().waitForErrorOutput("watcher url  (null)\n"));
  EXPECT_TRUE(service().waitForErrorOutput("    \"(null)/Kestrine\"\n"));
  EXPECT_TRUE(service().isRunning());
}

TEST_F(WatcherStart, BeginsToTellWhenAMissingFolderAppears) {
  setBasePath(folder("later"));
  startAndCall();
  ASSERT_TRUE(eventuallyStanding({1}));
  makeFolder(folder("later"));
  makeFolder(folder("later/Kestrine"));
  EXPECT_TRUE(eventuallyFlagged());
  writeFile(folder("later/Kestrine/file"), "text");
  EXPECT_TRUE(eventually([&] { return log().find("/later/Kestrine/file") != std::string::npos; }, std::chrono::seconds(60)));
}

TEST_F(WatcherStart, IsDoneOnDemand) {
  setBasePath(base());
  EXPECT_EQ(servicePid(), 0);
  application_.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  EXPECT_GT(servicePid(), 0);
  writeFile(in("file"), "text");
  EXPECT_TRUE(eventuallyFlagged());
}

TEST_F(WatcherStart, IgnoresTheArgumentsOfTheProcess) {
  setBasePath(base());
  startService({"--help", "--version", "nonsense"});
  application_.callToFileWatcher();
  EXPECT_TRUE(eventuallyStanding({1}));
  EXPECT_TRUE(service().output().empty());
}

struct BasePathCase {
  const char* name;
  /// Appended to the test's folder.
  const char* basePath;
  /// The folder that is really watched, and one that looks as if it were.
  const char* watched;
  const char* notWatched;
};

class WatcherBasePath : public WatcherStart, public testing::WithParamInterface<BasePathCase> {};

// The base path is read as the text of a URL, so some characters of a path mean something else there.
INSTANTIATE_TEST_SUITE_P(Texts, WatcherBasePath,
                         testing::Values(BasePathCase{"EndsAtANumberSign", "/a#b", "/a", "/a#b/Kestrine"},
                                         BasePathCase{"EndsAtAQuestionMark", "/a?b", "/a", "/a?b/Kestrine"},
                                         BasePathCase{"ResolvesAPercentEscape", "/%41", "/A/Kestrine", "/%41/Kestrine"},
                                         BasePathCase{"ResolvesAnEscapedBlank", "/a%20b", "/a b/Kestrine", "/a%20b/Kestrine"},
                                         BasePathCase{"MayEndInASeparator", "/a/", "/a/Kestrine", "/Kestrine"},
                                         BasePathCase{"MayHoldASeparatorTwice", "//a//b", "/a/b/Kestrine", "/b/Kestrine"},
                                         BasePathCase{"MayGoBeyondASCII",
                                                      "/\xC3\x9C"
                                                      "n\xC3\xAF/\xE6\x97\xA5",
                                                      "/\xC3\x9C"
                                                      "n\xC3\xAF/\xE6\x97\xA5/Kestrine",
                                                      "/%C3%9Cn%C3%AF/Kestrine"}),
                         [](const testing::TestParamInfo<BasePathCase>& row) { return std::string(row.param.name); });

TEST_P(WatcherBasePath, NamesTheFolder) {
  const std::string watched = folder_.path() + GetParam().watched;
  const std::string notWatched = folder_.path() + GetParam().notWatched;
  for (const std::string& path : {watched, notWatched}) ASSERT_EQ(runToEnd({"mkdir", "-p", path}).status, 0);
  setBasePath(folder_.path() + GetParam().basePath);
  startAndCall();
  ASSERT_TRUE(eventuallyStanding({1}));
  writeFile(notWatched + "/file", "text");
  writeFile(watched + "/file", "text");
  EXPECT_TRUE(eventuallyFlagged());
  ASSERT_TRUE(eventuallyTold(1));
  EXPECT_THAT(toldPaths(), ElementsAre(watched + "/file"));
}

TEST_F(WatcherStart, TakesALeadingDoubleSeparatorForAHost) {
  setBasePath("/" + base());
  startAndCall();
  ASSERT_TRUE(eventuallyStanding({1}));
  // "//tmp/x" is the path "/x" on the host "tmp".
  EXPECT_EQ(watches()[0].objectForKey("folder"), Object(watchedFolder().substr(watchedFolder().find('/', 1))));
}

}  // namespace
}  // namespace kestrine::test
