#include <chrono>
#include <memory>

#include "contract/ServiceName.h"
#include "platform/xpc/service/ServiceProcess.h"
#include "platform/xpc/service/XPCListener.h"
#include "service/ServiceDelegate.h"
#include "service/WatchOnMessage.h"
#include "service/XPCService.h"
#include "util/ServicesUtilities.h"
#include "watcher/Watches.h"

int main() {
  platform::xpc::ServiceProcess::begin(kestrine::kServiceName);
  platform::xpc::ServiceProcess::setEndHandler(
      [](std::chrono::steady_clock::time_point limit) { kestrine::Watches::ofThisProcess().endAll(limit); });
  if (kestrine::ServicesUtilities::is10_7()) kestrine::XPCService::runServiceWithConnectionHandler(kestrine::startWatchOnEveryMessage);

  // The listener does not keep its delegate; this variable does, for the life of the process.
  const auto delegate = std::make_shared<kestrine::ServiceDelegate>();
  platform::XPCListener& listener = platform::XPCListener::serviceListener();
  listener.setDelegate(delegate);
  listener.resume();
  return 0;
}
