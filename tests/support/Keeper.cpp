#include "tests/support/Keeper.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestFolder.h"

namespace kestrine::test {

namespace {

constexpr const char* kVariable = "KESTRINE_TEST_LIFE";

/// What tells the processes of one test program from all others.
struct Life {
  std::string name;
  std::string pipe;
  std::string pipeLink;
};

std::string linkTarget(const std::string& path) {
  std::array<char, 256> text{};
  const ssize_t size = readlink(path.c_str(), text.data(), text.size());
  return size < 0 ? "" : std::string(text.data(), static_cast<std::size_t>(size));
}

bool belongsTo(const Life& life, const std::string& process) {
  if (linkTarget("/proc/" + process + "/fd/" + life.pipe) == life.pipeLink) return true;
  std::ifstream file("/proc/" + process + "/environ", std::ios::binary);
  const std::string environment{std::istreambuf_iterator<char>(file), {}};
  // Names stand one after another where a test runs a program that runs tests.
  const std::string begin = std::string(kVariable) + "=";
  const std::size_t at = environment.starts_with(begin) ? 0 : environment.find('\0' + begin);
  if (at == std::string::npos) return false;
  const std::string value = environment.c_str() + at + (at == 0 ? 0 : 1) + begin.size();
  return value.find(life.name) != std::string::npos;
}

std::vector<pid_t> processesOf(const Life& life) {
  std::vector<pid_t> processes;
  DIR* const folder = opendir("/proc");
  if (folder == nullptr) return processes;
  while (const dirent* const entry = readdir(folder)) {
    const pid_t number = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
    if (number > 0 && number != getpid() && belongsTo(life, entry->d_name)) processes.push_back(number);
  }
  closedir(folder);
  return processes;
}

void removeFolders() {
  const std::string folder = testFolder();
  std::vector<std::string> found;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    const std::string name = entry.path().filename();
    if (name.starts_with(testFolderPrefix())) found.push_back(entry.path());
  }
  for (const std::string& path : found) removeFolder(path);
}

void endWhatIsLeftOf(const Life& life) {
  // Those that are killed may have started others since they were looked for.
  for (int round = 0; round < 200; ++round) {
    const std::vector<pid_t> left = processesOf(life);
    if (left.empty()) break;
    for (const pid_t process : left) kill(process, SIGKILL);
    usleep(10000);
  }
  removeFolders();
}

/// A descriptor that is readable once the process is dead; -1 where the kernel does not hand out such.
int descriptorOf(pid_t process) { return static_cast<int>(syscall(SYS_pidfd_open, process, 0)); }

/// Waits for a word on the pipe, or for the death of the test or of its runner (0: of no matter). Returns whether there was a word.
bool endsWell(int pipe, pid_t test, pid_t runner) {
  const int testEnd = descriptorOf(test);
  const int runnerEnd = runner > 0 ? descriptorOf(runner) : -1;
  while (getppid() == test) {
    std::array<pollfd, 3> ready = {pollfd{pipe, POLLIN, 0}, pollfd{testEnd, POLLIN, 0}, pollfd{runnerEnd, POLLIN, 0}};
    // Without a descriptor it asks once a second whether it still has a parent.
    if (poll(ready.data(), ready.size(), testEnd < 0 ? 1000 : -1) < 0 && errno != EINTR) break;
    char word = 0;
    if (ready[0].revents != 0) return read(pipe, &word, 1) == 1;
    if (ready[1].revents != 0 || ready[2].revents != 0) break;
  }
  return false;
}

[[noreturn]] void keep(int pipe, const Life& life, pid_t test, pid_t runner) {
  setsid();
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE}) signal(number, SIG_IGN);
  // Whoever reads the test's output until its end must not wait for this process, and folders must not be held.
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null, standard);
  close(null);
  static_cast<void>(!chdir("/"));
  if (!endsWell(pipe, test, runner)) {
    // Alive when it was the runner that died.
    if (getppid() == test) kill(test, SIGKILL);
    endWhatIsLeftOf(life);
  }
  _exit(0);
}

}  // namespace

Keeper::Keeper() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return;
  const char* const outer = std::getenv(kVariable);
  const Life life = {testFolderPrefix(), std::to_string(ends[1]), linkTarget("/proc/self/fd/" + std::to_string(ends[1]))};
  const pid_t self = getpid();
  const pid_t runner = std::getenv("KESTRINE_TEST_ENDS_WITH_RUNNER") == nullptr ? 0 : getppid();
  // A service or a helper of this test has another runner.
  unsetenv("KESTRINE_TEST_ENDS_WITH_RUNNER");
  keeper_ = fork();
  if (keeper_ == 0) {
    close(ends[1]);
    keep(ends[0], life, self, runner);
  }
  close(ends[0]);
  pipe_ = ends[1];
  setenv(kVariable, ((outer == nullptr ? "" : std::string(outer) + " ") + life.name).c_str(), 1);
}

Keeper::~Keeper() {
  if (pipe_ < 0) return;
  static_cast<void>(!write(pipe_, "w", 1));
  close(pipe_);
  if (keeper_ > 0) waitpid(keeper_, nullptr, 0);
}

}  // namespace kestrine::test
