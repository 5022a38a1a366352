#include "bench/Writer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <new>
#include <utility>

#include "bench/Measure.h"

namespace kestrine::bench {

namespace {

void makeFile(const std::string& path, bool withText) {
  const int file = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
  if (file < 0) fail(path.c_str());
  if (withText && write(file, "some text", 9) != 9) fail("write");
  close(file);
}

}  // namespace

Writer::Writer() {
  if (pipe2(command_, O_CLOEXEC) != 0) fail("pipe2");
  void* shared = mmap(nullptr, sizeof(std::atomic<double>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) fail("mmap");
  changedAt_ = new (shared) std::atomic<double>(0);
}

Writer::Writer(Writer&& other) noexcept
    : child_(std::exchange(other.child_, -1)),
      endDescriptor_(std::exchange(other.endDescriptor_, -1)),
      command_{std::exchange(other.command_[0], -1), std::exchange(other.command_[1], -1)},
      changedAt_(std::exchange(other.changedAt_, nullptr)) {}

Writer::~Writer() {
  if (changedAt_ == nullptr) return;
  close(command_[1]);  // the child's wait ends
  waitpid(child_, nullptr, 0);
  close(endDescriptor_);
  munmap(changedAt_, sizeof(*changedAt_));
}

bool Writer::fork() {
  child_ = ::fork();
  if (child_ < 0) fail("fork");
  if (child_ == 0) {
    close(command_[1]);
    return true;
  }
  close(command_[0]);
  endDescriptor_ = static_cast<int>(syscall(SYS_pidfd_open, child_, 0));
  if (endDescriptor_ < 0) fail("pidfd_open");
  return false;
}

bool Writer::waitForBegin() const {
  char byte = 0;
  return read(command_[0], &byte, 1) == 1;
}

Writer Writer::burst(const std::string& path, int files, int folders) {
  Writer writer;
  if (!writer.fork()) return writer;
  if (writer.waitForBegin()) {
    for (int file = 0; file < files; ++file) {
      makeFile(path + "/d" + std::to_string(file % folders) + "/f" + std::to_string(file), true);
    }
  }
  _exit(0);
}

Writer Writer::singleFiles(const std::string& path) {
  Writer writer;
  if (!writer.fork()) return writer;
  for (int file = 0; writer.waitForBegin(); ++file) {
    const std::string name = path + "/s" + std::to_string(file);
    writer.changedAt_->store(now());
    makeFile(name, false);
  }
  _exit(0);
}

void Writer::begin() {
  if (write(command_[1], "b", 1) != 1) fail("write");
}

bool Writer::hasEnded() const {
  pollfd ended{endDescriptor_, POLLIN, 0};
  return poll(&ended, 1, 0) == 1;
}

}  // namespace kestrine::bench
