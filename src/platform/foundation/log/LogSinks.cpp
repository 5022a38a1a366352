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
#include "platform/foundation/base/SystemError.h"

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

std::string FileSink::open() {
  auto place = findTrustedPlace(file_);
  if (!place) return place.error().reason;
  auto file = openTrustedFile(*place, O_WRONLY | O_APPEND | O_CREAT);
  // A pipe with no reader.
  if (!file && file.error().error == ENXIO) return "nobody reads the pipe '" + place->path + "'";
  if (!file) return file.error().reason;
  place_ = *std::move(place);
  handle_ = *std::move(file);
  return {};
}

std::string FileSink::beginAnew() {
  const std::string old = place_.name + ".old";
  const int folder = place_.folder.fileDescriptor();
  handle_.closeFile();
  if (renameat(folder, place_.name.c_str(), folder, old.c_str()) != 0) return errnoText(errno);
  return open();
}

std::string FileSink::write(std::string_view line) {
  if (file_.empty()) return {};
  if (!handle_.isOpen()) {
    if (auto reason = open(); !reason.empty()) return reason;
  }
  if (line.size() > limit_) line = line.substr(0, limit_);
  struct stat status {};
  if (fstat(handle_.fileDescriptor(), &status) != 0) return errnoText(errno);
  // Only a regular file grows; a device or a pipe of that name is not renamed.
  if (S_ISREG(status.st_mode) && status.st_size > 0 && static_cast<std::size_t>(status.st_size) + line.size() > limit_) {
    if (auto reason = beginAnew(); !reason.empty()) return reason;
  }
  const int error = writeAll(handle_.fileDescriptor(), line);
  // Opened so that it never waits.
  if (error == EAGAIN) return "nobody empties the pipe '" + place_.path + "'";
  return error == 0 ? std::string() : errnoText(error);
}

}  // namespace platform
