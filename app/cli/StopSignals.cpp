#include "app/cli/StopSignals.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/concurrency/loop/RunLoop.h"

namespace kestrine {

namespace {

sigset_t stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

int makeDescriptor() {
  const sigset_t signals = stopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // A shell without job control starts its background jobs with SIGINT ignored, and an ignored signal never reaches a signalfd.
  ::signal(SIGINT, SIG_DFL);
  ::signal(SIGTERM, SIG_DFL);
  const int descriptor = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
  return descriptor;
}

}  // namespace

StopSignals::StopSignals() : descriptor_(makeDescriptor()) {}

StopSignals::~StopSignals() { cancel(); }

void StopSignals::schedule(platform::RunLoop& loop, std::function<void()> handler) {
  item_ = platform::RunLoopDescriptor::create(descriptor_.fileDescriptor(), EPOLLIN, [this, handler = std::move(handler)](unsigned) {
    signalfd_siginfo received;
    while (read(descriptor_.fileDescriptor(), &received, sizeof received) > 0) {
    }
    const sigset_t signals = stopSignals();
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    handler();
    cancel();
  });
  loop.add(item_);
}

void StopSignals::cancel() {
  if (item_) item_->invalidate();
}

}  // namespace kestrine
