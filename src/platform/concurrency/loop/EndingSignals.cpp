#include "platform/concurrency/loop/EndingSignals.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

#include "platform/concurrency/loop/RunLoop.h"

namespace platform {

namespace {

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGHUP);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

void takeAll(int descriptor) {
  signalfd_siginfo information{};
  while (read(descriptor, &information, sizeof information) > 0) {
  }
}

}  // namespace

EndingSignals::~EndingSignals() { cancel(); }

void EndingSignals::block() {
  const sigset_t ending = endingSignals();
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
}

void EndingSignals::unblock() {
  const sigset_t ending = endingSignals();
  pthread_sigmask(SIG_UNBLOCK, &ending, nullptr);
}

int EndingSignals::open() {
  const sigset_t ending = endingSignals();
  descriptor_ = FileHandle(signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK));
  return descriptor_.isOpen() ? 0 : errno;
}

void EndingSignals::schedule(RunLoop& loop, std::function<void()> told) {
  const int descriptor = descriptor_.fileDescriptor();
  item_ = RunLoopDescriptor::create(descriptor, EPOLLIN, [descriptor, told = std::move(told)](unsigned) {
    takeAll(descriptor);
    told();
  });
  loop.add(item_);
}

void EndingSignals::cancel() {
  if (item_) item_->invalidate();
}

}  // namespace platform
