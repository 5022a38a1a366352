#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/foundation/base/FileHandle.h"
#include "tests/foundation/CapturedStandardError.h"

namespace platform {
namespace {

using kestrine::test::makeFolder;
using kestrine::test::readFile;
using kestrine::test::TemporaryDirectory;
using kestrine::test::writeFile;

/// Names no file again when it goes, so that the folder may go, too.
class LogTo {
 public:
  explicit LogTo(std::string file, std::size_t limit = 4U << 20U) {
    setLogDestination({.syslog = false, .file = std::move(file), .fileLimit = limit});
  }
  ~LogTo() {
    setLogDestination({});
    flushLog();
  }
  LogTo(const LogTo&) = delete;
  LogTo& operator=(const LogTo&) = delete;
};

TEST(LogFile, HoldsWhatStandardErrorHolds) {
  const TemporaryDirectory folder;
  const CapturedStandardError captured;
  const LogTo destination(folder / "log");
  NSLog("first");
  NSLog("second\nwith two lines");
  const std::string onStandardError = captured.text();
  EXPECT_EQ(readFile(folder / "log"), onStandardError);
  EXPECT_THAT(readFile(folder / "log"), testing::EndsWith("] second\nwith two lines\n"));
}

TEST(LogFile, IsForItsOwnerAlone) {
  const TemporaryDirectory folder;
  const CapturedStandardError captured;
  const LogTo destination(folder / "log");
  NSLog("x");
  flushLog();
  struct stat status {};
  ASSERT_EQ(stat((folder / "log").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0077U, 0U);
}

TEST(LogFile, IsAppendedTo) {
  const TemporaryDirectory folder;
  const CapturedStandardError captured;
  writeFile(folder / "log", "from an earlier run\n");
  const LogTo destination(folder / "log");
  NSLog("x");
  flushLog();
  EXPECT_THAT(readFile(folder / "log"), testing::MatchesRegex("from an earlier run\n.*] x\n"));
}

TEST(LogFile, IsRenamedBeforeItGrowsBeyondItsLimit) {
  constexpr std::size_t kLimit = 1000;
  const TemporaryDirectory folder;
  const CapturedStandardError captured;
  const LogTo destination(folder / "log", kLimit);
  for (int i = 0; i < 200; ++i) {
    NSLog("line " + std::to_string(i) + ".");
    flushLog();
    EXPECT_LE(std::filesystem::file_size(folder / "log"), kLimit);
  }
  const std::string last = readFile(folder / "log");
  const std::string old = readFile(folder / "log.old");
  EXPECT_LE(old.size(), kLimit);
  EXPECT_THAT(last, testing::EndsWith("] line 199.\n"));
  // Both together are the end of the log, without a gap.
  const std::string all = captured.text();
  EXPECT_EQ(all.substr(all.size() - old.size() - last.size()), old + last);
}

TEST(LogFile, CutsALineThatIsLongerThanItsLimit) {
  const TemporaryDirectory folder;
  const CapturedStandardError captured;
  const LogTo destination(folder / "log", 500);
  NSLog("short");
  NSLog(std::string(5000, 'x'));
  NSLog("short again");
  flushLog();
  EXPECT_THAT(readFile(folder / "log"), testing::EndsWith("] short again\n"));
  EXPECT_EQ(std::filesystem::file_size(folder / "log.old"), 500U);
}

TEST(LogFile, ThatCannotBeWrittenIsSaidOnceAndTriedAgain) {
  const TemporaryDirectory folder;
  const CapturedStandardError captured;
  const LogTo destination(folder / "missing/log");
  NSLog("one");
  NSLog("two");
  flushLog();
  const std::string text = captured.text();
  const std::string complaint = "cannot be written: No such file or directory";
  ASSERT_NE(text.find(complaint), std::string::npos) << text;
  EXPECT_EQ(text.find(complaint), text.rfind(complaint)) << text;
  EXPECT_THAT(text, testing::HasSubstr("] two\n"));
  makeFolder(folder / "missing");
  NSLog("three");
  flushLog();
  EXPECT_THAT(readFile(folder / "missing/log"), testing::EndsWith("] three\n"));
}

TEST(LogFile, ThatIsAPipeHoldsNobodyUp) {
  const TemporaryDirectory folder;
  const CapturedStandardError captured;
  ASSERT_EQ(mkfifo((folder / "log").c_str(), 0600), 0);
  {
    const LogTo destination(folder / "log");
    NSLog("for nobody");
    flushLog();
    EXPECT_THAT(captured.text(), testing::HasSubstr("cannot be written: nobody reads the pipe '" + (folder / "log") + "'"));
  }
  const FileHandle reader(open((folder / "log").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  ASSERT_TRUE(reader.isOpen());
  const LogTo destination(folder / "log");
  const std::string line(4000, 'x');
  // More than a pipe takes.
  for (int i = 0; i < 100; ++i) NSLog(line);
  flushLog();
  EXPECT_THAT(captured.text(), testing::HasSubstr("cannot be written: nobody empties the pipe '" + (folder / "log") + "'"));
}

TEST(LogFile, IsNotLookedForBehindAnothersLink) {
  if (geteuid() != 0) GTEST_SKIP() << "left out: another user's link, because this is not root and can give nothing away";
  const TemporaryDirectory folder;
  const CapturedStandardError captured;
  writeFile(folder / "victim", "of root\n");
  std::filesystem::create_symlink("victim", folder / "log");
  ASSERT_EQ(lchown((folder / "log").c_str(), 65534, 65534), 0);
  const LogTo destination(folder / "log");
  NSLog("x");
  flushLog();
  EXPECT_EQ(readFile(folder / "victim"), "of root\n");
  EXPECT_THAT(captured.text(), testing::HasSubstr("log' is a symbolic link that user 65534 made"));
}

}  // namespace
}  // namespace platform
