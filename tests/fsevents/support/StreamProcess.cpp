#include "tests/fsevents/support/StreamProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "tests/fsevents/support/Hex.h"

namespace kestrine::test {

namespace {

constexpr std::chrono::milliseconds kAnswerLimit = kPatience;

std::string helperProgram() { return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "fsevents_stream_helper"; }

std::vector<std::string> argumentsOf(const StreamProcess::Options& options) {
  std::vector<std::string> arguments;
  if (options.hasOrdinaryQueue && ::geteuid() == 0) arguments = {"setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin"};
  if (!options.inNamespace.empty()) {
    arguments = {"unshare", "-Ur", "sh", "-c", options.inNamespace + "\nexec \"$@\"", "sh"};
  }
  arguments.insert(arguments.end(), {helperProgram(), options.source, std::to_string(options.latency), std::to_string(options.flags)});
  arguments.insert(arguments.end(), options.paths.begin(), options.paths.end());
  for (const auto& excluded : options.exclusions) arguments.push_back("-" + excluded);
  return arguments;
}

struct Pipe {
  platform::FileHandle reading;
  platform::FileHandle writing;
  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    reading = platform::FileHandle(ends[0]);
    writing = platform::FileHandle(ends[1]);
  }
};

char stateOf(pid_t process) {
  std::ifstream stream("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(stream, text);
  const auto end = text.rfind(')');
  return end == std::string::npos || end + 2 >= text.size() ? '?' : text[end + 2];
}

}  // namespace

StreamProcess::StreamProcess(const Options& options) {
  Pipe input;
  Pipe output;
  auto arguments = argumentsOf(options);
  std::vector<char*> pointers;
  pointers.reserve(arguments.size());
  for (auto& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, input.reading.fileDescriptor(), STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, output.writing.fileDescriptor(), STDOUT_FILENO);
  const auto log = folder_ / "log";
  ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  const int failure = ::posix_spawnp(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) throw std::system_error(failure, std::generic_category(), "start " + arguments[0]);
  input_ = std::move(input.writing);
  output_ = std::move(output.reading);
  output.writing.closeFile();
  const auto first = line();
  const auto blank = first.find(' ');
  (first.starts_with("ready") ? source_ : error_) = blank == std::string::npos ? first : first.substr(blank + 1);
}

StreamProcess::~StreamProcess() {
  if (pid_ <= 0) return;
  // A polite end first, so that the leak checker of a sanitizer has its say in the log. That checker halts the process by SIGSTOP, which a
  // SIGCONT would take back for good: it must come before.
  ::kill(pid_, SIGCONT);
  input_.closeFile();
  int status = 0;
  const bool ended = eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, kAnswerLimit);
  if (!ended) {
    ADD_FAILURE() << "the second process did not end: " << log();
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status, 0);
  } else if (status != 0) {
    ADD_FAILURE() << "the second process ended with wait status " << status << ": " << log();
  }
}

void StreamProcess::halt() const {
  ::kill(pid_, SIGSTOP);
  if (!eventually([this] { return stateOf(pid_) == 'T'; })) throw std::runtime_error("the process does not stop");
}

void StreamProcess::goOn() const { ::kill(pid_, SIGCONT); }

void StreamProcess::send(const std::string& line) const {
  const auto text = line + "\n";
  if (::write(input_.fileDescriptor(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    throw std::runtime_error("the process is gone: " + log());
}

std::string StreamProcess::line() {
  const auto deadline = std::chrono::steady_clock::now() + kAnswerLimit;
  for (;;) {
    if (const auto end = unread_.find('\n'); end != std::string::npos) {
      auto text = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      return text;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd ready{output_.fileDescriptor(), POLLIN, 0};
    if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0) throw std::runtime_error("no answer: " + log());
    char buffer[65536];
    const auto count = ::read(output_.fileDescriptor(), buffer, sizeof buffer);
    if (count <= 0) throw std::runtime_error("the process ended: " + log());
    unread_.append(buffer, static_cast<std::size_t>(count));
  }
}

std::vector<std::string> StreamProcess::request(const std::string& command) {
  send(command);
  std::vector<std::string> lines;
  for (auto text = line(); text != "done"; text = line()) lines.push_back(std::move(text));
  return lines;
}

std::vector<TimedEvent> StreamProcess::timedEventsOf(const std::string& command) {
  std::vector<TimedEvent> events;
  for (const auto& text : request(command)) {
    std::istringstream words(text);
    TimedEvent told;
    std::string path;
    words >> told.event.id >> told.event.flags >> path >> told.time;
    told.event.path = fromHex(path);
    events.push_back(std::move(told));
  }
  return events;
}

std::vector<FSEvent> StreamProcess::eventsOf(const std::string& command) {
  std::vector<FSEvent> events;
  for (auto& told : timedEventsOf(command)) events.push_back(std::move(told.event));
  return events;
}

std::vector<FSEvent> StreamProcess::toldOf(const std::function<void()>& work) {
  halt();
  work();
  goOn();
  return flush();
}

std::vector<TimedEvent> StreamProcess::flushTimed() { return timedEventsOf("flush"); }

std::vector<FSEvent> StreamProcess::flush() { return eventsOf("flush"); }

std::vector<FSEvent> StreamProcess::delivered() { return eventsOf("delivered"); }

std::vector<FSEvent> StreamProcess::until(const std::string& path, FSEventStreamEventFlags flags) {
  std::vector<FSEvent> all;
  const auto enough = [&] {
    for (auto& event : flush()) all.push_back(std::move(event));
    return (flagsOf(all, path) & flags) == flags;
  };
  static_cast<void>(eventually(enough));
  return all;
}

std::size_t StreamProcess::statusNumber(const std::string& key) { return std::stoull(request("status " + key).at(0)); }

std::size_t StreamProcess::foldersCompared() { return std::stoull(request("compared").at(0)); }

void StreamProcess::write(const std::string& path) { request("write " + toHex(path)); }

void StreamProcess::makeFolder(const std::string& path) { request("folder " + toHex(path)); }

void StreamProcess::move(const std::string& from, const std::string& to) { request("move " + toHex(from) + " " + toHex(to)); }

std::string StreamProcess::log() const {
  std::ifstream stream(folder_ / "log");
  std::ostringstream text;
  text << stream.rdbuf();
  return text.str();
}

std::string StreamProcess::whyNoNamespaces() {
  const int status = std::system(
      "unshare -Ur sh -c 'echo 1000 > /proc/sys/user/max_inotify_watches && echo 1000 > /proc/sys/user/max_fanotify_marks' >/dev/null "
      "2>&1");
  return status == 0 ? "" : "this user cannot make a user namespace and lower its limits";
}

bool covered(const std::vector<FSEvent>& events, const std::string& path) {
  return std::any_of(events.begin(), events.end(), [&](const FSEvent& event) { return coversPath(event, path); });
}

FSEventStreamEventFlags flagsOf(const std::vector<FSEvent>& events, const std::string& path) {
  FSEventStreamEventFlags flags = 0;
  for (const auto& event : events) {
    if (event.path == path) flags |= event.flags;
  }
  return flags;
}

}  // namespace kestrine::test
