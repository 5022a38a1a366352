#include "tests/fsevents/support/StreamProcess.h"

// The kernel's limits, lowered inside a user namespace and never for the machine.

namespace kestrine::test {
namespace {

class StreamLimits : public StreamTest {
 protected:
  static constexpr int kLimit = 23;
  static constexpr int kFolders = 60;

  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    if (const auto why = StreamProcess::whyNoNamespaces(); !why.empty()) GTEST_SKIP() << "left out: the kernel's limits, because " << why;
  }
  static std::string lower(const std::string& limit, int value) { return "echo " + std::to_string(value) + " > /proc/sys/user/" + limit; }
  std::unique_ptr<StreamProcess> start(const std::string& lowered) {
    return std::make_unique<StreamProcess>(
        StreamProcess::Options{.paths = {root_}, .source = sourceName(GetParam()), .inNamespace = lowered});
  }
  // The log names the limit in words that lead to it, its value and what to do.
  static void expectSaidOnce(const std::string& log, const std::vector<std::string>& words) {
    int lines = 0;
    std::size_t at = 0;
    while (at < log.size()) {
      const auto end = std::min(log.find('\n', at), log.size());
      const auto line = log.substr(at, end - at);
      at = end + 1;
      lines +=
          std::all_of(words.begin(), words.end(), [&](const std::string& word) { return line.find(word) != std::string::npos; }) ? 1 : 0;
    }
    EXPECT_EQ(lines, 1) << log;
  }
};
KESTRINE_PER_SOURCE(StreamLimits);

TEST_P(StreamLimits, OfMarksAtTheStartAreToldAsARescan) {
  for (int i = 0; i < kFolders; ++i) makeFolder(in(std::to_string(i)));
  const auto process = start(lower(markLimitOf(GetParam()), kLimit));
  ASSERT_EQ(process->source(), sourceName(GetParam())) << process->error();
  std::vector<FSEvent> events;
  const auto unmarked = [&] {
    // A folder is either watched or a rescan of it is told.
    int missing = 0;
    for (int i = 0; i < kFolders; ++i) writeFile(in(std::to_string(i)) + "/file", "text");
    for (auto& event : process->flush()) events.push_back(std::move(event));
    for (int i = 0; i < kFolders; ++i) missing += covered(events, in(std::to_string(i)) + "/file") ? 0 : 1;
    return missing;
  };
  EXPECT_EQ(unmarked(), 0);
  const bool rescan = std::any_of(events.begin(), events.end(), [](const FSEvent& event) { return (event.flags & kMustScan) != 0; });
  EXPECT_TRUE(rescan);
  EXPECT_GE(process->statusNumber("losses"), 1U);
  EXPECT_LT(process->statusNumber("foldersMarked"), static_cast<std::size_t>(kFolders));
  EXPECT_GT(process->statusNumber("foldersMarked"), 5U);
  EXPECT_TRUE(eventually([&] { return process->log().find(markLimitOf(GetParam())) != std::string::npos; })) << process->log();
  expectSaidOnce(process->log(), {markLimitOf(GetParam()), std::to_string(kLimit), "sysctl"});
}

TEST_P(StreamLimits, OfMarksReachedLaterAreToldAsARescan) {
  const auto process = start(lower(markLimitOf(GetParam()), kLimit));
  ASSERT_EQ(process->source(), sourceName(GetParam())) << process->error();
  for (int i = 0; i < kFolders; ++i) {
    makeFolder(in(std::to_string(i)));
    writeFile(in(std::to_string(i)) + "/file", "text");
  }
  const auto events = process->flush();
  for (int i = 0; i < kFolders; ++i) EXPECT_TRUE(covered(events, in(std::to_string(i)) + "/file")) << i;
  EXPECT_TRUE(std::any_of(events.begin(), events.end(), [](const FSEvent& event) { return (event.flags & kMustScan) != 0; }));
  EXPECT_TRUE(eventually([&] { return process->log().find(markLimitOf(GetParam())) != std::string::npos; })) << process->log();
  expectSaidOnce(process->log(), {markLimitOf(GetParam()), std::to_string(kLimit), "sysctl"});
}

TEST_P(StreamLimits, ThatAreNotReachedAreNotSpokenOf) {
  for (int i = 0; i < 5; ++i) makeFolder(in(std::to_string(i)));
  const auto process = start(lower(markLimitOf(GetParam()), kFolders));
  ASSERT_EQ(process->source(), sourceName(GetParam())) << process->error();
  writeFile(in("3/file"), "text");
  const auto events = process->flush();
  EXPECT_NE(test::flagsOf(events, in("3/file")) & kCreated, 0U);
  EXPECT_EQ(process->statusNumber("losses"), 0U);
  EXPECT_THAT(process->log(), testing::Not(testing::HasSubstr(markLimitOf(GetParam()))));
}

TEST_P(StreamLimits, OfMarksFreedAgainServeNewFolders) {
  for (int i = 0; i < kFolders; ++i) makeFolder(in(std::to_string(i)));
  const auto process = start(lower(markLimitOf(GetParam()), kLimit));
  ASSERT_EQ(process->source(), sourceName(GetParam())) << process->error();
  process->flush();
  for (int i = 0; i < kFolders; ++i) removeTree(in(std::to_string(i)));
  process->flush();
  makeFolder(in("new"));
  process->flush();
  writeFile(in("new/file"), "text");
  EXPECT_NE(test::flagsOf(process->flush(), in("new/file")) & kCreated, 0U);
}

TEST_P(StreamLimits, OfGroupsAreToldWithTheRemedyAndAskForARescan) {
  const auto process = start(lower(queueLimitOf(GetParam()), 0));
  EXPECT_EQ(process->source(), "polling");
  EXPECT_NE(test::flagsOf(process->flush(), root_) & kMustScan, 0U);
  writeFile(in("file"), "text");
  EXPECT_NE(test::flagsOf(process->flush(), in("file")) & kCreated, 0U);
  EXPECT_TRUE(eventually([&] { return process->log().find(queueLimitOf(GetParam())) != std::string::npos; })) << process->log();
  expectSaidOnce(process->log(), {queueLimitOf(GetParam()), " 0", "sysctl"});
}

TEST(StreamLimitsOfGroups, MakeAutomaticTakeTheOtherSource) {
  if (const auto why = whyMissing(Source::Fanotify) + whyMissing(Source::Inotify); !why.empty())
    GTEST_SKIP() << "left out: the choice, because of " << why;
  if (const auto why = StreamProcess::whyNoNamespaces(); !why.empty()) GTEST_SKIP() << "left out: the kernel's limits, because " << why;
  const TemporaryDirectory folder;
  StreamProcess process({.paths = {folder.path()}, .inNamespace = "echo 0 > /proc/sys/user/max_fanotify_groups"});
  EXPECT_EQ(process.source(), "inotify") << process.error();
  writeFile(folder / "file", "text");
  EXPECT_NE(flagsOf(process.flush(), folder / "file") & kCreated, 0U);
}

TEST(StreamLimitsOfGroups, LeftAloneMakeAutomaticTakeFanotify) {
  if (const auto why = whyMissing(Source::Fanotify); !why.empty()) GTEST_SKIP() << "left out: the choice, because of " << why;
  const TemporaryDirectory folder;
  StreamProcess process({.paths = {folder.path()}});
  EXPECT_EQ(process.source(), "fanotify") << process.error();
}

}  // namespace
}  // namespace kestrine::test
