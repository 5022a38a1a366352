#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/foundation/base/ApplicationIdentifier.h"
#include "tests/foundation/CapturedStandardError.h"
#include "tests/support/Eventually.h"
#include "tests/support/KernelFilter.h"

namespace platform {
namespace {

struct Pipe {
  std::array<int, 2> ends{};
  Pipe() {
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("pipe");
    // Only the reading end stays non-blocking: standard error is somebody else's and usually blocks.
    fcntl(ends[1], F_SETFL, 0);
  }
  ~Pipe() {
    close(ends[0]);
    close(ends[1]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  std::string readAll() {
    std::string text;
    std::array<char, 65536> buffer;
    for (ssize_t size = 0; (size = read(ends[0], buffer.data(), buffer.size())) > 0;)
      text.append(buffer.data(), static_cast<std::size_t>(size));
    return text;
  }
};

// Alone in its process, as ctest runs it, the line without a thread is the log's first.
TEST(LogFailures, WithoutAThreadLinesGoStraightToStandardErrorUntilThereIsOne) {
  const CapturedStandardError captured;
  const auto sayBoth = [] {
    NSLog("said without a thread");
    flushLog();
  };
  if (!kestrine::test::withoutThreads(sayBoth))
    GTEST_SKIP() << "left out: a system without threads left, because this kernel takes no filter";
  NSLog("said with one");
  flushLog();
  EXPECT_THAT(captured.text(), testing::MatchesRegex("[^\n]*said without a thread\n[^\n]*said with one\n"));
}

TEST(LogFailures, AFullStandardErrorCostsLinesButStopsNobody) {
  Pipe pipe;
  const RedirectedStandardError redirected(pipe.ends[1]);
  const std::string text(10000, 'x');
  for (int i = 0; i < 100; ++i) NSLog(text);
  flushLog();
  const std::string before = pipe.readAll();
  EXPECT_LT(before.size(), 100 * text.size());
  NSLog("there is room again");
  flushLog();
  const std::string after = pipe.readAll();
  EXPECT_THAT(after, testing::ContainsRegex("] dropped [0-9]+ log lines\n"));
  EXPECT_THAT(after, testing::HasSubstr("] there is room again\n"));
  EXPECT_EQ(after[0], '\n') << "the line that was cut short has no end";
}

TEST(LogFailures, AStandardErrorThatNobodyCanReadDoesNotKillTheProcess) {
  Pipe pipe;
  const RedirectedStandardError redirected(pipe.ends[1]);
  close(std::exchange(pipe.ends[0], -1));
  NSLog("into nothing");
  flushLog();
  SUCCEED() << "SIGPIPE would have ended the process";
}

TEST(LogFailures, AClosedStandardErrorIsNoReasonToStop) {
  {
    const CapturedStandardError captured;
    NSLog("what an earlier test lost is said here");
  }
  const RedirectedStandardError redirected(STDERR_FILENO);
  close(STDERR_FILENO);
  NSLog("into nothing");
  flushLog();
  // The next line is written once there is a standard error again.
  const kestrine::test::TemporaryDirectory folder;
  const FileHandle file(open((folder / "log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  dup2(file.fileDescriptor(), STDERR_FILENO);
  NSLog("here");
  flushLog();
  const std::string text = kestrine::test::readFile(folder / "log");
  EXPECT_THAT(text, testing::HasSubstr("] dropped 1 log lines\n"));
  EXPECT_THAT(text, testing::HasSubstr("] here\n"));
}

/// The entry of the log's own thread in /proc.
std::string folderOfLogThread() {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (kestrine::test::readFile(task.path() / "comm") == "log\n") return task.path();
  }
  return {};
}

TEST(LogFailures, AnIdleLogSleepsWithoutATimeLimit) {
  const CapturedStandardError captured;
  NSLog("begin");
  flushLog();
  const std::string task = folderOfLogThread();
  ASSERT_NE(task, "");
  std::ifstream readable(task + "/syscall");
  if (std::string line; !std::getline(readable, line))
    GTEST_SKIP() << "left out: what the log's thread waits for, because the kernel does not show it";
  const bool sleeps = kestrine::test::eventually([&] {
    // "number argument argument argument argument...": the fourth argument of futex(2) is the time limit.
    std::ifstream file(task + "/syscall");
    std::string number;
    std::array<std::string, 4> arguments;
    file >> number >> arguments[0] >> arguments[1] >> arguments[2] >> arguments[3];
    return number == std::to_string(SYS_futex) && arguments[3] == "0x0";
  });
  EXPECT_TRUE(sleeps) << kestrine::test::readFile(task + "/syscall");
}

TEST(LogFailures, TheLogsThreadTakesNoSignals) {
  const CapturedStandardError captured;
  NSLog("begin");
  flushLog();
  std::ifstream status(folderOfLogThread() + "/status");
  unsigned long long blocked = 0;
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("SigBlk:")) blocked = std::stoull(line.substr(7), nullptr, 16);
  }
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGCHLD, SIGUSR1}) EXPECT_NE(blocked & (1ULL << (signal - 1)), 0U) << signal;
}

TEST(LogFailuresDeathTest, LinesAreWrittenBeforeTheProcessEndsNormally) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        for (int i = 0; i < 1000; ++i) NSLog("line");
        NSLog("the last line");
        std::exit(3);
      },
      testing::ExitedWithCode(3), "the last line");
}

TEST(LogFailuresDeathTest, AFullStandardErrorDoesNotStopTheProcessFromEnding) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const Pipe pipe;
        dup2(pipe.ends[1], STDERR_FILENO);
        for (int i = 0; i < 100; ++i) NSLog(std::string(10000, 'x'));
        std::exit(4);
      },
      testing::ExitedWithCode(4), "");
}

TEST(LogFailures, AForkedChildWritesStraightAndDoesNotHang) {
  const CapturedStandardError captured;
  setApplicationIdentifier("Parent");
  NSLog("before");
  const pid_t child = fork();
  if (child == 0) {
    NSLog("in the child");
    flushLog();
    _exit(5);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 5);
  NSLog("after");
  const std::string text = captured.text();
  EXPECT_THAT(text, testing::HasSubstr("[" + std::to_string(child) + ":" + std::to_string(child) + "] in the child\n"));
  EXPECT_THAT(text, testing::HasSubstr("] after\n"));
}

TEST(Journal, IsRecognisedByDeviceAndInode) {
  const kestrine::test::TemporaryDirectory folder;
  const FileHandle file(open((folder / "stream").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const RedirectedStandardError redirected(file.fileDescriptor());
  struct stat status {};
  ASSERT_EQ(fstat(file.fileDescriptor(), &status), 0);
  const std::string device = std::to_string(status.st_dev);
  const std::string inode = std::to_string(status.st_ino);
  const auto isJournalWhen = [](const std::string& variable) {
    setenv("JOURNAL_STREAM", variable.c_str(), 1);
    return standardErrorIsTheJournal();
  };
  EXPECT_TRUE(isJournalWhen(device + ":" + inode));
  EXPECT_FALSE(isJournalWhen(device + ":" + std::to_string(status.st_ino + 1)));
  EXPECT_FALSE(isJournalWhen(std::to_string(status.st_dev + 1) + ":" + inode));
  for (const std::string& bad : {std::string(), device, device + ":", ":" + inode, device + ":" + inode + "x", std::string("a:b")}) {
    EXPECT_FALSE(isJournalWhen(bad)) << bad;
  }
  unsetenv("JOURNAL_STREAM");
  EXPECT_FALSE(standardErrorIsTheJournal());
}

}  // namespace
}  // namespace platform
