#include "platform/xpc/IOThread.h"

#include <pthread.h>

#include <csignal>
#include <exception>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "platform/foundation/Log.h"

namespace platform::xpc {

namespace {

void serveLoop(std::promise<std::shared_ptr<RunLoop>> started) {
  pthread_setname_np(pthread_self(), "xpc-io");
  const auto loop = RunLoop::current();
  // Keeps the loop running while there is no socket; costs nothing.
  const auto anchor = RunLoopSource::create([] {});
  loop->add(anchor);
  started.set_value(loop);
  for (;;) {
    try {
      loop->run();
    } catch (const std::exception& exception) {
      NSLog(std::string("xpc: a failure on the channel's thread was contained: ") + exception.what());
    }
  }
}

std::shared_ptr<RunLoop> startThread() {
  std::promise<std::shared_ptr<RunLoop>> started;
  auto loop = started.get_future();
  // Signals are for the process's other threads: a handler of the application must not run between two frames.
  sigset_t all;
  sigset_t former;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &former);
  std::thread(serveLoop, std::move(started)).detach();
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
  return loop.get();
}

}  // namespace

RunLoop& ioLoop() {
  static const auto& loop = *new std::shared_ptr<RunLoop>(startThread());
  return *loop;
}

void onIOThread(std::function<void()> block) {
  // Destroyed with the block on the I/O thread, where a failure would otherwise skip whatever the loop has to do after it.
  ioLoop().perform([block = std::move(block)] {
    try {
      block();
    } catch (const std::exception& exception) {
      NSLog(std::string("xpc: a failure on the channel's thread was contained: ") + exception.what());
    }
  });
}

bool isIOThread() { return ioLoop().isCurrent(); }

}  // namespace platform::xpc
