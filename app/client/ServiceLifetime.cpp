#include "app/client/ServiceLifetime.h"

#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "contract/ServiceName.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/xpc/launch/ServiceLauncher.h"

namespace kestrine {

namespace {

// In seconds; only where the kernel tells no end of a process that is not a child.
constexpr double kLookEvery = 1;

}  // namespace

ServiceProcessHandle openServiceProcess() {
  const auto service = platform::xpc::runningService(kServiceName);
  if (!service.isAlive || service.processIdentifier == 0) return {};
  platform::FileHandle descriptor(static_cast<int>(syscall(SYS_pidfd_open, service.processIdentifier, 0)));
  if (!descriptor.isOpen() && errno == ESRCH) return {};
  // While the same process still holds the lock, the descriptor cannot be one of a later process with its number.
  const auto again = platform::xpc::runningService(kServiceName);
  if (!again.isAlive || again.processIdentifier != service.processIdentifier) return {};
  return {service.processIdentifier, std::move(descriptor)};
}

ServiceLifetime::ServiceLifetime(std::shared_ptr<platform::RunLoop> loop, Handler began, Handler ended)
    : loop_(std::move(loop)), began_(std::move(began)), ended_(std::move(ended)) {}

ServiceLifetime::~ServiceLifetime() {
  if (item_) item_->invalidate();
}

void ServiceLifetime::look() {
  if (process_ != 0) return;
  ServiceProcessHandle handle = openServiceProcess();
  if (handle.process == 0) return;
  process_ = handle.process;
  descriptor_ = std::move(handle.descriptor);
  item_ = waitForEnd();
  loop_->add(item_);
  began_(process_);
}

std::shared_ptr<platform::RunLoopItem> ServiceLifetime::waitForEnd() {
  if (descriptor_.isOpen()) {
    return platform::RunLoopDescriptor::create(descriptor_.fileDescriptor(), EPOLLIN, [this](unsigned) { ended(); });
  }
  return platform::RunLoopTimer::create(kLookEvery, kLookEvery, [this] {
    const auto service = platform::xpc::runningService(kServiceName);
    if (!service.isAlive || service.processIdentifier != process_) ended();
  });
}

void ServiceLifetime::ended() {
  item_->invalidate();
  item_.reset();
  descriptor_.closeFile();
  ended_(std::exchange(process_, 0));
  look();
}

}  // namespace kestrine
