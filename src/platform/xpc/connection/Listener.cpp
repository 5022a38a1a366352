#include "platform/xpc/connection/Listener.h"

#include <future>
#include <utility>

#include "platform/xpc/channel/IOThread.h"
#include "platform/xpc/connection/ListenerCore.h"

namespace platform::xpc {

std::shared_ptr<Listener> Listener::create(FileHandle socket, ConnectionFunction function, ListenerLimits limits) {
  return std::shared_ptr<Listener>(new Listener(std::make_shared<Core>(std::move(socket), std::move(function), limits)));
}

Listener::Listener(std::shared_ptr<Core> core) : core_(std::move(core)) {}

Listener::~Listener() {
  onIOThread([core = std::move(core_)] {
    assertOnIOThread();
    core->stop();
  });
}

void Listener::resume() {
  onIOThread([core = core_] {
    assertOnIOThread();
    core->start();
  });
}

void Listener::cancel() {
  if (isIOThread()) {
    assertOnIOThread();
    return core_->stop();
  }
  std::promise<void> stopped;
  onIOThread([this, &stopped] {
    assertOnIOThread();
    core_->stop();
    stopped.set_value();
  });
  stopped.get_future().wait();
}

void Listener::terminate(const std::string& reason, std::function<void()> done) {
  onIOThread([core = core_, reason, done = std::move(done)] {
    assertOnIOThread();
    core->terminate(reason, done);
  });
}

Listener::Statistics Listener::statistics() const { return core_->statistics(); }

}  // namespace platform::xpc
