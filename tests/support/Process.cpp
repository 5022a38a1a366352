#include "tests/support/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "platform/foundation/base/FileHandle.h"

namespace kestrine::test {

namespace {

using Clock = std::chrono::steady_clock;
using platform::FileHandle;

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

struct Pipe {
  FileHandle readEnd;
  FileHandle writeEnd;
  Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) fail("pipe");
    readEnd = FileHandle(ends[0]);
    writeEnd = FileHandle(ends[1]);
  }
};

/// The child's standard input: a file without a name, so that nobody has to feed a pipe.
FileHandle standardInputOf(const std::string& text) {
  FileHandle file(memfd_create("standard input", MFD_CLOEXEC));
  if (!file.isOpen()) fail("memfd_create");
  if (write(file.fileDescriptor(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) fail("write standard input");
  lseek(file.fileDescriptor(), 0, SEEK_SET);
  return file;
}

std::vector<std::string> environmentOf(const Process::Options& options) {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; entry != nullptr && *entry != nullptr && !options.clearEnvironment; ++entry) {
    const std::string text = *entry;
    const std::size_t equals = text.find('=');
    if (equals != std::string::npos) variables[text.substr(0, equals)] = text.substr(equals + 1);
  }
  for (const auto& [name, value] : options.environment) variables[name] = value;
  std::vector<std::string> texts;
  texts.reserve(variables.size());
  for (const auto& [name, value] : variables) texts.push_back(name + "=" + value);
  return texts;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

/// Everything the child needs, prepared before the fork: between fork and exec nothing may allocate.
struct Launch {
  std::vector<char*> arguments;
  std::vector<char*> environment;
  const char* directory;
  /// The process that it must not outlive; 0 for one that is found when it does, by its environment.
  pid_t endsWith;
  int input;
  int output;
  int errors;
  int failure;
};

[[noreturn]] void runChild(const Launch& launch) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  if (launch.endsWith != 0 && (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != launch.endsWith)) _exit(127);
  const bool ready = dup2(launch.input, 0) == 0 && dup2(launch.output, 1) == 1 && dup2(launch.errors, 2) == 2 &&
                     (launch.directory[0] == '\0' || chdir(launch.directory) == 0);
  if (ready) execvpe(launch.arguments[0], launch.arguments.data(), launch.environment.data());
  const int error = errno;
  static_cast<void>(!write(launch.failure, &error, sizeof(error)));
  _exit(127);
}

/// Reads what is there into `text`; closes `descriptor` at its end.
void readAvailable(int& descriptor, std::string& text) {
  std::array<char, 65536> buffer;
  while (descriptor >= 0) {
    const ssize_t size = read(descriptor, buffer.data(), buffer.size());
    if (size > 0) {
      text.append(buffer.data(), static_cast<std::size_t>(size));
    } else if (size < 0 && errno == EINTR) {
      continue;
    } else if (size < 0 && errno == EAGAIN) {
      return;
    } else {
      close(std::exchange(descriptor, -1));
    }
  }
}

/// Sleeps until there is output or a few milliseconds have gone (the end of a process is not seen on its pipes when others hold them).
void pause(int out, int err) {
  std::array<pollfd, 2> pollers = {pollfd{out, POLLIN, 0}, pollfd{err, POLLIN, 0}};
  poll(pollers.data(), pollers.size(), 5);
}

}  // namespace

Process::Process(const std::vector<std::string>& arguments) : Process(arguments, Options()) {}

Process::Process(const std::vector<std::string>& arguments, const Options& options) {
  Pipe out;
  Pipe err;
  Pipe failure;
  const FileHandle input = standardInputOf(options.standardInput);
  std::vector<std::string> argumentTexts = arguments;
  std::vector<std::string> environmentTexts = environmentOf(options);
  const Launch launch = {.arguments = pointersTo(argumentTexts),
                         .environment = pointersTo(environmentTexts),
                         .directory = options.directory.c_str(),
                         .endsWith = options.clearEnvironment ? getpid() : 0,
                         .input = input.fileDescriptor(),
                         .output = out.writeEnd.fileDescriptor(),
                         .errors = err.writeEnd.fileDescriptor(),
                         .failure = failure.writeEnd.fileDescriptor()};
  pid_ = fork();
  if (pid_ < 0) fail("fork");
  if (pid_ == 0) runChild(launch);

  failure.writeEnd.closeFile();
  int error = 0;
  if (read(failure.readEnd.fileDescriptor(), &error, sizeof(error)) == static_cast<ssize_t>(sizeof(error))) {
    waitpid(pid_, nullptr, 0);
    errno = error;
    fail("start " + arguments.at(0));
  }
  out_ = out.readEnd.release();
  err_ = err.readEnd.release();
  fcntl(out_, F_SETFL, O_NONBLOCK);
  fcntl(err_, F_SETFL, O_NONBLOCK);
}

Process::~Process() {
  if (isRunning()) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_ >= 0) close(out_);
  if (err_ >= 0) close(err_);
}

void Process::signal(int number) const {
  // Once reaped, the number may be another process's.
  if (!status_) kill(pid_, number);
}

bool Process::isRunning() {
  if (status_) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) != pid_) return true;
  status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  return false;
}

void Process::drain() {
  readAvailable(out_, output_);
  readAvailable(err_, errors_);
}

std::optional<int> Process::wait(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    const bool ended = !isRunning();
    drain();
    if (ended) return status_;
    if (Clock::now() >= deadline) return std::nullopt;
    pause(out_, err_);
  }
}

std::string Process::output() {
  drain();
  return output_;
}

std::string Process::errorOutput() {
  drain();
  return errors_;
}

bool Process::waitForText(const std::string& gathered, const std::string& text, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    const bool last = !isRunning() || Clock::now() >= deadline;
    drain();
    if (gathered.find(text) != std::string::npos) return true;
    if (last) return false;
    pause(out_, err_);
  }
}

bool Process::waitForOutput(const std::string& text, std::chrono::milliseconds limit) { return waitForText(output_, text, limit); }
bool Process::waitForErrorOutput(const std::string& text, std::chrono::milliseconds limit) { return waitForText(errors_, text, limit); }

Outcome runToEnd(const std::vector<std::string>& arguments, const Process::Options& options, std::chrono::milliseconds limit) {
  Process process(arguments, options);
  const std::optional<int> status = process.wait(limit);
  if (!status) process.signal(SIGKILL);
  return {status.value_or(-1), process.output(), process.errorOutput()};
}

}  // namespace kestrine::test
