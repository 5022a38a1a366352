#include "platform/network/NetworkThread.h"

#include <curl/curl.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "platform/foundation/Log.h"

namespace platform::network {

namespace {

void logged(const std::function<void()>& block) {
  try {
    block();
  } catch (const std::exception& exception) {
    NSLog(std::string("network: a failure on the network's thread was contained: ") + exception.what());
  }
}

void serveLoop(std::promise<std::shared_ptr<RunLoop>> started) {
  pthread_setname_np(pthread_self(), "network");
  const auto loop = RunLoop::current();
  // Keeps the loop running while there is no socket; costs nothing.
  const auto anchor = RunLoopSource::create([] {});
  loop->add(anchor);
  started.set_value(loop);
  for (;;) logged([&loop] { loop->run(); });
}

/// Registered after the TLS library's own handler and so called before it: nothing may use that library any more when it has gone.
void parkAtExit() {
  if (networkLoop().isCurrent()) return;
  const auto parked = std::make_shared<std::promise<void>>();
  networkLoop().perform([parked] {
    parked->set_value();
    for (;;) pause();
  });
  parked->get_future().wait_for(std::chrono::seconds(5));
}

std::shared_ptr<RunLoop> startThread() {
  curl_global_init(CURL_GLOBAL_ALL);
  std::promise<std::shared_ptr<RunLoop>> started;
  auto loop = started.get_future();
  // Signals are for the process's other threads. SIGPIPE of a TLS write stays blocked here, too.
  sigset_t all;
  sigset_t former;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &former);
  std::thread(serveLoop, std::move(started)).detach();
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
  return loop.get();
}

}  // namespace

RunLoop& networkLoop() {
  static const auto& loop = *new std::shared_ptr<RunLoop>(startThread());
  static const bool registered = std::atexit(parkAtExit) == 0;
  static_cast<void>(registered);
  return *loop;
}

void onNetworkThread(std::function<void()> block) {
  networkLoop().perform([block = std::move(block)] { logged(block); });
}

}  // namespace platform::network
