#include "platform/concurrency/thread/ServingThread.h"

#include <unistd.h>

#include <chrono>
#include <future>
#include <memory>
#include <utility>

namespace platform {

namespace {

constexpr std::chrono::seconds kPatienceAtTheEnd{5};

}  // namespace

ServingThread::ServingThread(std::string name, std::string failure) : thread_(std::move(name), std::move(failure)) {}

void ServingThread::perform(Block block) const { thread_.perform(std::move(block)); }

void ServingThread::park() const {
  if (loop().isCurrent()) return;
  const auto parked = std::make_shared<std::promise<void>>();
  loop().perform([parked] {
    parked->set_value();
    for (;;) pause();
  });
  parked->get_future().wait_for(kPatienceAtTheEnd);
}

}  // namespace platform
