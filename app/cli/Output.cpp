#include "app/cli/Output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "platform/foundation/base/SystemError.h"

namespace kestrine {

namespace {

// In milliseconds: for a reader that is slow, not for one that has stopped.
constexpr int kPatience = 2000;

}  // namespace

Output::Output(int descriptor, int interrupt) : descriptor_(descriptor), interrupt_(interrupt) {
  const int flags = fcntl(descriptor_, F_GETFL);
  if (flags >= 0 && (flags & O_ACCMODE) != O_RDONLY) return;
  error_ = EBADF;
  state_ = State::Failed;
}

std::string Output::reason() const {
  switch (state_) {
    case State::Open:
      return "";
    case State::ReaderGone:
      return "its reader has gone";
    case State::ReaderStuck:
      return "its reader does not read";
    case State::Failed:
      return platform::errnoText(error_);
  }
  return "";
}

bool Output::waitUntilWritable() {
  for (;;) {
    // A negative descriptor is left out (poll(2)).
    pollfd ready[] = {{descriptor_, POLLOUT, 0}, {isHurried_ ? -1 : interrupt_, POLLIN, 0}};
    const int count = poll(ready, 2, isHurried_ ? kPatience : -1);
    if (count < 0 && errno != EINTR) {
      error_ = errno;
      state_ = State::Failed;
      return false;
    }
    if (count == 0) {
      state_ = State::ReaderStuck;
      return false;
    }
    if (count > 0 && ready[0].revents != 0) return true;
    if (count > 0) isHurried_ = true;
  }
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
