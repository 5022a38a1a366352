#include "platform/foundation/log/LogSinks.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <utility>

#include "platform/foundation/base/DescriptorIO.h"

namespace platform {

namespace {

constexpr int kPatienceInMilliseconds = 1000;

}  // namespace

bool DescriptorSink::waitUntilWritable() {
  pollfd poller = {descriptor_, POLLOUT, 0};
  int ready = 0;
  do {
    ready = poll(&poller, 1, stuck_ ? 0 : kPatienceInMilliseconds);
  } while (ready < 0 && errno == EINTR);
  stuck_ = ready == 0;
  // With an error condition the write itself tells what is wrong, and does not wait.
  return ready > 0 && (poller.revents & POLLNVAL) == 0;
}

bool DescriptorSink::write(std::string_view line) {
  // What was cut short gets its line end first.
  if (midLine_ && !writeAll("\n")) return false;
  return writeAll(line);
}

bool DescriptorSink::writeAll(std::string_view text) {
  while (!text.empty()) {
    if (!waitUntilWritable()) return false;
    // A pipe that is writable takes this much at once.
    const ssize_t written = ::write(descriptor_, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    if (written < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (written < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
    midLine_ = !text.empty();
  }
  return true;
}

int FileSink::open() {
  handle_ = FileHandle(::open(file_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600));
  return handle_.isOpen() ? 0 : errno;
}

int FileSink::beginAnew() {
  const std::string old = file_ + ".old";
  handle_.closeFile();
  if (std::rename(file_.c_str(), old.c_str()) != 0) return errno;
  return open();
}

int FileSink::write(std::string_view line) {
  if (file_.empty()) return 0;
  if (!handle_.isOpen()) {
    if (const int error = open(); error != 0) return error;
  }
  if (line.size() > limit_) line = line.substr(0, limit_);
  struct stat status {};
  if (fstat(handle_.fileDescriptor(), &status) != 0) return errno;
  // Only a regular file grows; a device or a pipe of that name is not renamed.
  if (S_ISREG(status.st_mode) && status.st_size > 0 && static_cast<std::size_t>(status.st_size) + line.size() > limit_) {
    if (const int error = beginAnew(); error != 0) return error;
  }
  return writeAll(handle_.fileDescriptor(), line);
}

}  // namespace platform
