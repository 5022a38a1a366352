#include "tests/fsevents/support/TestFuse.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "tests/fsevents/support/Hex.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {

namespace {

using platform::FileHandle;

std::string fuseProgram() { return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "fsevents_fuse_helper"; }

std::array<FileHandle, 2> makePipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  return {FileHandle(ends[0]), FileHandle(ends[1])};
}

std::string readLineOf(int descriptor) {
  std::string line;
  for (char byte = 0;; line += byte) {
    pollfd ready{descriptor, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(kPatience.count())) <= 0) throw std::runtime_error("the file system's server does not answer");
    if (::read(descriptor, &byte, 1) != 1) throw std::runtime_error("the file system's server is gone");
    if (byte == '\n') return line;
  }
}

}  // namespace

TestFuse::TestFuse(std::string backing, std::string point) : backing_(std::move(backing)), point_(std::move(point)) { start(); }

TestFuse::~TestFuse() {
  die();
  // Detached at once: whoever is still inside gets errors, and nobody waits.
  if (mounted_) ::umount2(point_.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW);
}

std::string TestFuse::whyNot() {
  const TemporaryDirectory folder;
  makeFolder(folder / "backing");
  makeFolder(folder / "point");
  try {
    const TestFuse tried(folder / "backing", folder / "point");
    return {};
  } catch (const std::exception& refusal) {
    return refusal.what();
  }
}

void TestFuse::start() {
  auto input = makePipe();
  auto output = makePipe();
  std::vector<std::string> arguments = {fuseProgram(), backing_, point_};
  std::vector<char*> pointers;
  for (auto& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, input[0].fileDescriptor(), STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, output[1].fileDescriptor(), STDOUT_FILENO);
  const int failure = ::posix_spawn(&server_, pointers[0], &actions, nullptr, pointers.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) {
    server_ = -1;
    throw std::system_error(failure, std::generic_category(), "start " + arguments[0]);
  }
  input_ = std::move(input[1]);
  output_ = std::move(output[0]);
  output[1].closeFile();
  std::string said;
  try {
    said = readLineOf(output_.fileDescriptor());
  } catch (const std::exception& silence) {
    said = silence.what();
  }
  mounted_ = said == "ready";
  if (mounted_) return;
  die();
  throw std::runtime_error("no file system in user space: " + said);
}

std::string TestFuse::ask(const std::string& line) {
  const auto text = line + "\n";
  if (::write(input_.fileDescriptor(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    throw std::runtime_error("the file system's server is gone");
  return readLineOf(output_.fileDescriptor());
}

void TestFuse::hang() { ask("hang"); }

void TestFuse::answer() { ask("answer"); }

void TestFuse::fail(const std::string& operation, const std::string& path, int error) {
  ask("fault " + operation + " " + toHex(path) + " " + std::to_string(error));
}

void TestFuse::heal() { ask("heal"); }

std::uint64_t TestFuse::asked(const std::string& operation, const std::string& path) {
  return std::stoull(ask("asked " + operation + " " + toHex(path)));
}

void TestFuse::die() {
  if (server_ <= 0) return;
  ::kill(server_, SIGKILL);
  int status = 0;
  while (::waitpid(server_, &status, 0) < 0 && errno == EINTR) continue;
  server_ = -1;
  input_.closeFile();
  output_.closeFile();
}

void TestFuse::leave() {
  die();
  if (mounted_ && ::umount2(point_.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) != 0)
    throw std::system_error(errno, std::generic_category(), "unmount " + point_);
  mounted_ = false;
}

void TestFuse::comeBack() {
  leave();
  start();
}

int TestFuse::unmount() {
  if (::umount2(point_.c_str(), UMOUNT_NOFOLLOW) != 0) return errno;
  mounted_ = false;
  return 0;
}

}  // namespace kestrine::test
