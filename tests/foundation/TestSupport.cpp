// The tools of the tests are tested, too: a tool that hides a failure would hide it everywhere.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>

#include "platform/foundation/base/FileHandle.h"
#include "tests/support/Eventually.h"
#include "tests/support/Process.h"
#include "tests/support/Shortage.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestFolder.h"

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

/// Another value for a variable, or none, as long as this lives.
class Variable {
 public:
  Variable(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* const had = std::getenv(name)) before_ = had;
    set(value);
  }
  ~Variable() { set(before_); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  void set(const std::optional<std::string>& value) const { value ? setenv(name_, value->c_str(), 1) : unsetenv(name_); }
  const char* name_;
  std::optional<std::string> before_;
};

TEST(TemporaryDirectory, FollowsTheVariablesAndTheirLinks) {
  const TemporaryDirectory base;
  makeFolder(base / "real");
  std::filesystem::create_directory_symlink(base / "real", base / "link");
  const Variable system("TMPDIR", base / "link");
  {
    const Variable none("KESTRINE_TEST_FOLDER", std::nullopt);
    EXPECT_THAT(TemporaryDirectory().path(), testing::StartsWith(base / "real/" + testFolderPrefix()));
  }
  // The project's own goes first, and is made for all users.
  const Variable own("KESTRINE_TEST_FOLDER", base / "made");
  EXPECT_THAT(TemporaryDirectory().path(), testing::StartsWith(base / "made/" + testFolderPrefix()));
  EXPECT_EQ(std::filesystem::status(base / "made").permissions(), std::filesystem::perms(0755));
}

TEST(TemporaryDirectory, IsInMemoryWhereNothingIsSaidAndMemoryIsFit) {
  const Variable none("KESTRINE_TEST_FOLDER", std::nullopt);
  const Variable neither("TMPDIR", std::nullopt);
  const TemporaryDirectory folder;
  EXPECT_EQ(isInMemory(folder.path()), folder.path().starts_with("/dev/shm/") || isInMemory("/tmp"));
  EXPECT_FALSE(isInMemory("/proc"));
  // What stands there must be allowed to run.
  std::filesystem::copy_file(std::filesystem::canonical("/bin/true"), folder / "true");
  EXPECT_EQ(runToEnd({folder / "true"}).status, 0);
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

/// Gone, or dead and not yet buried by whoever got it.
bool hasEnded(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text);
  const auto end = text.rfind(')');
  return end == std::string::npos || text.substr(end, 3) == ") Z";
}

/// Leaves what a test may leave: a service in a session of its own, a process with an environment of its own, a mere fork, a folder.
[[noreturn]] void leaveEverythingBehind() {
  const TemporaryDirectory folder;
  makeFolder(folder / "closed");
  chmod((folder / "closed").c_str(), 0);
  Process service({"sh", "-c", "setsid sleep 1000 >/dev/null 2>&1 & echo $!; exec sleep 1000"});
  while (service.output().empty()) usleep(1000);
  Process::Options cleared;
  cleared.clearEnvironment = true;
  const Process own({"/usr/bin/env", "sleep", "1000"}, cleared);
  const pid_t forked = fork();
  if (forked == 0) {
    setsid();
    for (;;) pause();
  }
  std::cout << "left " << folder.path() << ' ' << service.pid() << ' ' << own.pid() << ' ' << forked << ' ' << service.output()
            << std::flush;
  for (;;) pause();
}

TEST(Keeper, EndsAndRemovesWhatAKilledTestLeaves) {
  constexpr const char* kVictim = "KESTRINE_KEEPERS_VICTIM";
  if (std::getenv(kVictim) != nullptr) leaveEverythingBehind();
  const std::vector<std::string> command = {std::filesystem::read_symlink("/proc/self/exe"), "--gtest_filter=Keeper.*"};
  Process victim(command, {.environment = {{kVictim, "1"}}});
  ASSERT_TRUE(victim.waitForOutput("\n", std::chrono::minutes(1)) && victim.waitForOutput("left ", std::chrono::minutes(1)));
  const std::string output = victim.output();
  std::istringstream left(output.substr(output.find("left ") + 5));
  std::string folder;
  left >> folder;
  EXPECT_TRUE(std::filesystem::exists(folder));
  std::vector<pid_t> processes;
  for (pid_t process = 0; left >> process;) processes.push_back(process);
  ASSERT_EQ(processes.size(), 4U);
  for (const pid_t process : processes) EXPECT_FALSE(hasEnded(process)) << process;
  victim.signal(SIGKILL);
  for (const pid_t process : processes) EXPECT_TRUE(eventually([&] { return hasEnded(process); }, std::chrono::minutes(1))) << process;
  EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(folder); }, std::chrono::minutes(1))) << folder;
}

TEST(Shortage, OfDescriptorsRoomAndWordsIsToldAndNoOther) {
  const TemporaryDirectory folder;
  EXPECT_EQ(shortageOf(folder.path()), std::nullopt);
  EXPECT_EQ(shortageIn("Expected equality of these values: 1 and 2"), std::nullopt);
  EXPECT_EQ(shortageIn("write /x: No space left on device"), "disk space (the failure says \"No space left on device\")");
  EXPECT_EQ(shortageIn("C++ exception with description \"std::bad_alloc\" thrown"), "memory (the failure says \"std::bad_alloc\")");
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit few = before;
  few.rlim_cur = 40;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  std::vector<FileHandle> taken;
  for (;;) {
    FileHandle handle(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!handle.isOpen()) break;
    taken.push_back(std::move(handle));
  }
  const auto told = shortageOf(folder.path());
  taken.clear();
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(told, "descriptors (the process may have 40)");
}

TEST(Shortage, OfRoomIsToldOfAFullFileSystem) {
  // A file system of a megabyte, in a namespace so that nobody else sees it.
  const TemporaryDirectory folder;
  const std::string script = "mount -t tmpfs -o size=1m,nr_inodes=50 none " + folder.path() + " && exec \"$@\"";
  const std::vector<std::string> self = {std::filesystem::read_symlink("/proc/self/exe"), "--gtest_filter=Shortage.OfRoom*"};
  constexpr const char* kInside = "KESTRINE_SHORTAGE_FOLDER";
  if (const char* const small = std::getenv(kInside)) {
    writeFile(std::string(small) + "/large", std::string(4U << 20U, 'x'));
    return;
  }
  if (runToEnd({"unshare", "-Urm", "sh", "-c", script, "sh", "true"}).status != 0) {
    GTEST_SKIP() << "left out: a full file system, because this user cannot mount one in a namespace";
  }
  std::vector<std::string> command = {"unshare", "-Urm", "sh", "-c", script, "sh"};
  command.insert(command.end(), self.begin(), self.end());
  const Outcome outcome = runToEnd(command, {.environment = {{kInside, folder.path()}, {"KESTRINE_TEST_FOLDER", folder.path()}}});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.output, testing::HasSubstr("\nthe machine ran short of disk space (0 MiB left in " + folder.path() + ")"));
}

}  // namespace
}  // namespace kestrine::test
