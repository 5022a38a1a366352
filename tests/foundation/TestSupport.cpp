// The tools of the tests are tested, too: a tool that hides a failure would hide it everywhere.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "platform/foundation/base/FileHandle.h"
#include "tests/support/Eventually.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::FileHandle;

TEST(TemporaryDirectory, IsANewEmptyFolderThatGoesWithItsContents) {
  std::string path;
  {
    const TemporaryDirectory folder;
    const TemporaryDirectory other;
    path = folder.path();
    EXPECT_NE(path, other.path());
    EXPECT_TRUE(std::filesystem::is_empty(path));
    EXPECT_EQ(std::filesystem::canonical(path), path);
    makeFolder(folder / "sub");
    writeFile(folder / "sub/file", "text");
    std::filesystem::create_symlink("/", folder / "link");
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(TemporaryDirectory, FollowsTheVariableAndItsLinks) {
  const TemporaryDirectory base;
  makeFolder(base / "real");
  std::filesystem::create_directory_symlink(base / "real", base / "link");
  setenv("TMPDIR", (base / "link").c_str(), 1);
  const TemporaryDirectory folder;
  EXPECT_THAT(folder.path(), testing::StartsWith(base / "real/"));
  unsetenv("TMPDIR");
}

TEST(TemporaryDirectory, RemovesFoldersWithoutPermissions) {
  std::string path;
  {
    const TemporaryDirectory folder;
    path = folder.path();
    std::filesystem::create_directories(folder / "closed/inner");
    writeFile(folder / "closed/inner/file", "");
    chmod((folder / "closed/inner").c_str(), 0);
    chmod((folder / "closed").c_str(), 0);
    chmod(path.c_str(), 0500);
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(TemporaryDirectory, RemovesPathsBeyondTheLongestPath) {
  constexpr int kDepth = 3000;
  std::string path;
  {
    const TemporaryDirectory folder;
    path = folder.path();
    FileHandle current(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int i = 0; i < kDepth; ++i) {
      ASSERT_EQ(mkdirat(current.fileDescriptor(), "some-name", 0700), 0);
      current = FileHandle(openat(current.fileDescriptor(), "some-name", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      ASSERT_TRUE(current.isOpen());
    }
    ASSERT_TRUE(FileHandle(openat(current.fileDescriptor(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600)).isOpen());
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(TemporaryDirectory, LeavesWhatLinksPointTo) {
  const TemporaryDirectory outside;
  writeFile(outside / "kept", "text");
  {
    const TemporaryDirectory folder;
    std::filesystem::create_directory_symlink(outside.path(), folder / "link");
  }
  EXPECT_EQ(readFile(outside / "kept"), "text");
}

TEST(TestFiles, AreWrittenAppendedAndRead) {
  const TemporaryDirectory folder;
  const std::string bytes("a\0b\n", 4);
  writeFile(folder / "f", "old and longer");
  writeFile(folder / "f", bytes);
  appendFile(folder / "f", "more");
  EXPECT_EQ(readFile(folder / "f"), bytes + "more");
  EXPECT_THROW(readFile(folder / "missing"), std::runtime_error);
  EXPECT_THROW(writeFile(folder / "missing/f", ""), std::runtime_error);
  EXPECT_THROW(makeFolder(folder / "f"), std::runtime_error);
}

TEST(Eventually, IsTrueOnceTheConditionIs) {
  int asked = 0;
  EXPECT_TRUE(eventually([&] { return ++asked == 3; }));
  EXPECT_EQ(asked, 3);
  EXPECT_FALSE(eventually([] { return false; }, std::chrono::milliseconds(1)));
}

TEST(Process, GivesStatusAndOutput) {
  const Outcome outcome = runToEnd({"sh", "-c", "echo out; echo err >&2; exit 7"});
  EXPECT_EQ(outcome.status, 7);
  EXPECT_EQ(outcome.output, "out\n");
  EXPECT_EQ(outcome.errorOutput, "err\n");
}

TEST(Process, TellsTheSignalAsAShellDoes) { EXPECT_EQ(runToEnd({"sh", "-c", "kill -TERM $$"}).status, 143); }

TEST(Process, PassesInputEnvironmentAndDirectory) {
  const TemporaryDirectory folder;
  const Process::Options options = {.environment = {{"SOME_NAME", "some value"}}, .directory = folder.path(), .standardInput = "typed"};
  const Outcome outcome = runToEnd({"sh", "-c", "cat; echo \" $SOME_NAME\"; pwd"}, options);
  EXPECT_EQ(outcome.output, "typed some value\n" + folder.path() + "\n");
}

TEST(Process, KeepsOrClearsTheTestsEnvironment) {
  setenv("FROM_THE_TEST", "here", 1);
  EXPECT_EQ(runToEnd({"sh", "-c", "echo $FROM_THE_TEST"}).output, "here\n");
  const Process::Options cleared = {.environment = {{"A", "b"}}, .clearEnvironment = true};
  EXPECT_EQ(runToEnd({"/usr/bin/env"}, cleared).output, "A=b\n");
}

TEST(Process, TakesMoreOutputThanAPipeHolds) {
  const Outcome outcome = runToEnd({"sh", "-c", "head -c 1000000 /dev/zero; head -c 1000000 /dev/zero >&2"});
  EXPECT_EQ(outcome.output.size(), 1000000U);
  EXPECT_EQ(outcome.errorOutput.size(), 1000000U);
}

TEST(Process, WaitsForOutputOfARunningProcess) {
  Process process({"sh", "-c", "echo ready; echo set >&2; exec sleep 1000"});
  EXPECT_TRUE(process.waitForOutput("ready"));
  EXPECT_TRUE(process.waitForErrorOutput("set"));
  EXPECT_TRUE(process.isRunning());
  EXPECT_FALSE(process.waitForOutput("never said", std::chrono::milliseconds(20)));
  EXPECT_EQ(process.wait(std::chrono::milliseconds(20)), std::nullopt);
  process.signal(SIGINT);
  EXPECT_EQ(process.wait(), 130);
  EXPECT_FALSE(process.isRunning());
  EXPECT_FALSE(process.waitForOutput("never said"));
}

TEST(Process, IsKilledAndReapedWhenItGoes) {
  pid_t pid = -1;
  {
    Process process({"sh", "-c", "trap '' TERM INT; echo ready; exec sleep 1000"});
    ASSERT_TRUE(process.waitForOutput("ready"));
    pid = process.pid();
    EXPECT_EQ(kill(pid, 0), 0);
  }
  EXPECT_EQ(kill(pid, 0), -1);
}

TEST(Process, ThatCannotBeStartedThrows) { EXPECT_THROW(Process({"/no/such/program"}), std::runtime_error); }

TEST(Process, EndsWithStatusMinusOneAfterItsLimit) { EXPECT_EQ(runToEnd({"sleep", "1000"}, {}, std::chrono::milliseconds(20)).status, -1); }

}  // namespace
}  // namespace kestrine::test
