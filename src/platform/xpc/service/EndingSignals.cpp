#include "platform/xpc/service/EndingSignals.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

namespace platform::xpc {

namespace {

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

}  // namespace

void prepareSignals() {
  const sigset_t ending = endingSignals();
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

EndingSignals::~EndingSignals() {
  if (item_) item_->invalidate();
}

int EndingSignals::begin(RunLoop& loop, std::function<void()> told) {
  const sigset_t ending = endingSignals();
  descriptor_ = FileHandle(signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!descriptor_.isOpen()) return errno;
  const int descriptor = descriptor_.fileDescriptor();
  item_ = RunLoopDescriptor::create(descriptor, EPOLLIN, [descriptor, told = std::move(told)](unsigned) {
    signalfd_siginfo information{};
    if (read(descriptor, &information, sizeof information) > 0) told();
  });
  loop.add(item_);
  return 0;
}

}  // namespace platform::xpc
