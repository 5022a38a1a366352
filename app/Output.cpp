#include "app/Output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace kestrine {

const char* Output::reason() const {
  switch (state_) {
    case State::Open:
      return "";
    case State::ReaderGone:
      return "its reader has gone";
    case State::ReaderStuck:
      return "its reader does not read";
    case State::Failed:
      return std::strerror(error_);
  }
  return "";
}

bool Output::waitUntilWritable() {
  pollfd ready[] = {{descriptor_, POLLOUT, 0}, {interrupt_, POLLIN, 0}};
  while (poll(ready, 2, -1) < 0) {
    if (errno == EINTR) continue;
    error_ = errno;
    state_ = State::Failed;
    return false;
  }
  if (ready[0].revents == 0) state_ = State::ReaderStuck;
  return state_ == State::Open;
}

bool Output::write(std::string_view text) {
  while (!text.empty() && state_ == State::Open) {
    // A pipe that is ready takes PIPE_BUF bytes without waiting (pipe(7)); with more, a signal to end would not be seen.
    if (!waitUntilWritable()) break;
    const ssize_t written = ::write(descriptor_, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR && errno != EAGAIN) {
      error_ = errno;
      state_ = errno == EPIPE ? State::ReaderGone : State::Failed;
    }
  }
  return state_ == State::Open;
}

}  // namespace kestrine
