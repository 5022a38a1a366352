#include "platform/xpc/service/ServiceProcess.h"

#include <malloc.h>
#include <sys/resource.h>
#include <sysexits.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <utility>

#include "platform/concurrency/loop/EndingSignals.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/ApplicationIdentifier.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/log/Contained.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/process/StatusRegistry.h"
#include "platform/xpc/channel/IOThread.h"
#include "platform/xpc/launch/LaunchRecord.h"
#include "platform/xpc/launch/ServiceFolder.h"
#include "platform/xpc/launch/ServiceLocks.h"
#include "platform/xpc/launch/SocketActivation.h"
#include "platform/xpc/service/ServiceLog.h"
#include "platform/xpc/service/StatusSections.h"
#include "platform/xpc/service/Termination.h"

namespace platform::xpc {

namespace {

/// What lives as long as the process.
struct Service {
  std::string name;
  /// How long the former process of this service may take to be gone.
  std::chrono::milliseconds formerProcessLimit;
  ServiceFolder folder;
  LockFile lifeLock;
  FileHandle handedOverSocket;
  StatusRegistry::Registration processSection;
  StatusRegistry::Registration channelSection{};
  Termination::EndHandler endHandler{};
  std::optional<Termination> termination{};
  EndingSignals endingSignals{};
};

/// Nothing before `begin`. Never destroyed: other threads are at work when the process ends.
Service*& service() {
  static Service* one = nullptr;
  return one;
}

[[noreturn]] void giveUp(const LaunchError& error) {
  NSLog("xpc: " + error.reason);
  flushLogAtEnd();
  _exit(error.kind == LaunchError::Kind::AlreadyServed ? EX_TEMPFAIL : EX_OSERR);
}

template <class Value>
Value orGiveUp(Result<Value, LaunchError> result) {
  if (!result) giveUp(result.error());
  return std::move(*result);
}

/// Every thread that is made later has the ending signals blocked. SIGPIPE and SIGXFSZ are each an error of the write that met it.
void prepareSignals() {
  EndingSignals::block();
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

/// The usual soft limit of 1024 descriptors is about what the channel alone may take.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// A large message is gone with its handler, and so is its memory: left to itself the allocator learns from the first one to keep what is
/// freed for the next (mallopt(3), on its moving threshold).
void giveLargeMemoryBack() {
  constexpr int kLarge = 256 << 10;
  mallopt(M_MMAP_THRESHOLD, kLarge);
  mallopt(M_TRIM_THRESHOLD, kLarge);
}

FileHandle takeSocket(Service& own) {
  if (own.handedOverSocket.isOpen()) return std::move(own.handedOverSocket);
  return orGiveUp(makeOwnSocket(own.folder, own.name, own.formerProcessLimit));
}

}  // namespace

void ServiceProcess::begin(const std::string& identifier, std::chrono::milliseconds formerProcessLimit) {
  setApplicationIdentifier(identifier);
  prepareSignals();
  raiseDescriptorLimit();
  giveLargeMemoryBack();
  // Read and removed while there is one thread.
  auto socket = orGiveUp(takeHandedOverSocket());
  openServiceLog();
  if (const auto refused = refuseName(identifier)) giveUp(*refused);
  auto folder = orGiveUp(ServiceFolder::open(true));
  auto lifeLock = orGiveUp(takeLifeLock(folder, identifier, formerProcessLimit));
  service() = new Service{.name = identifier,
                          .formerProcessLimit = formerProcessLimit,
                          .folder = std::move(folder),
                          .lifeLock = std::move(lifeLock),
                          .handedOverSocket = std::move(socket),
                          .processSection = addProcessSection(identifier)};
}

void ServiceProcess::setEndHandler(Termination::EndHandler handler) {
  if (service() == nullptr) throw Exception(NSInternalInconsistencyException, "ServiceProcess::setEndHandler was called before begin");
  service()->endHandler = std::move(handler);
}

void ServiceProcess::serve(Listener::ConnectionFunction function) {
  if (service() == nullptr) throw Exception(NSInternalInconsistencyException, "ServiceProcess::serve was called before begin");
  Service& own = *service();
  const std::shared_ptr<Listener> listener = Listener::create(takeSocket(own), std::move(function));
  own.channelSection = addChannelSection(listener);
  own.termination.emplace(own.folder, own.name, listener, own.endHandler);
  if (const int error = own.endingSignals.open(); error != 0) giveUp({"signals cannot be received: " + errnoText(error)});
  own.endingSignals.schedule(ioLoop(), [&own] { own.termination->begin(); });
  // The main queue is served for as long as the process lives, whether or not something is scheduled.
  const auto anchor = RunLoopSource::create([] {});
  RunLoop::main()->add(anchor);
  listener->resume();
  for (;;) runContained("an exception left the main run loop", [] { RunLoop::main()->run(); });
}

}  // namespace platform::xpc
