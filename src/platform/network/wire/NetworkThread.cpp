#include "platform/network/wire/NetworkThread.h"

#include <curl/curl.h>

#include <cassert>
#include <cstdlib>
#include <utility>

#include "platform/concurrency/thread/ServingThread.h"

namespace platform::network {

namespace {

const ServingThread& thread();

/// Registered after the TLS library's own handler and so called before it: nothing may use that library any more when it has gone.
void parkAtExit() { thread().park(); }

const ServingThread& start() {
  curl_global_init(CURL_GLOBAL_ALL);
  // With SIGPIPE of a TLS write blocked, as every signal is on it.
  const auto& made = *new ServingThread("network", kNetworkFailure);
  std::atexit(parkAtExit);
  return made;
}

const ServingThread& thread() {
  static const ServingThread& made = start();
  return made;
}

}  // namespace

RunLoop& networkLoop() { return thread().loop(); }

void onNetworkThread(Block block) { thread().perform(std::move(block)); }

void assertOnNetworkThread() { assert(thread().loop().isCurrent()); }

}  // namespace platform::network
