#include "platform/concurrency/ServingThread.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <exception>
#include <future>
#include <thread>
#include <utility>

#include "platform/foundation/log/Log.h"

namespace platform {

namespace {

constexpr std::chrono::seconds kPatienceAtTheEnd{5};

void contain(const std::string& failure, const std::function<void()>& block) {
  try {
    block();
  } catch (const std::exception& exception) {
    NSLog(failure + ": " + exception.what());
  }
}

void serve(const char* name, const std::string& failure, std::promise<std::shared_ptr<RunLoop>> started) {
  pthread_setname_np(pthread_self(), name);
  const auto loop = RunLoop::current();
  // Keeps the loop running while there is no socket; costs nothing.
  const auto anchor = RunLoopSource::create([] {});
  loop->add(anchor);
  started.set_value(loop);
  for (;;) contain(failure, [&loop] { loop->run(); });
}

}  // namespace

ServingThread::ServingThread(const char* name, std::string failure) : failure_(std::move(failure)) {
  std::promise<std::shared_ptr<RunLoop>> started;
  auto loop = started.get_future();
  sigset_t all;
  sigset_t former;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &former);
  std::thread(serve, name, failure_, std::move(started)).detach();
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
  loop_ = loop.get();
}

void ServingThread::perform(std::function<void()> block) const {
  // Contained here already: a failure that left the loop would skip whatever else it has to do in this turn.
  loop_->perform([this, block = std::move(block)] { contain(failure_, block); });
}

void ServingThread::park() const {
  if (loop_->isCurrent()) return;
  const auto parked = std::make_shared<std::promise<void>>();
  loop_->perform([parked] {
    parked->set_value();
    for (;;) pause();
  });
  parked->get_future().wait_for(kPatienceAtTheEnd);
}

}  // namespace platform
