#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "contract/ServiceName.h"
#include "platform/foundation/base/DescriptorIO.h"
#include "platform/foundation/base/StandardDescriptors.h"
#include "platform/xpc/service/ServiceProcess.h"
#include "platform/xpc/service/XPCListener.h"
#include "service/ServiceDelegate.h"
#include "service/WatchOnMessage.h"
#include "service/XPCService.h"
#include "util/ServicesUtilities.h"
#include "watcher/Watches.h"

namespace {

constexpr std::string_view kHelp =
    "FileWatcherXpcService is the folder-watching service. It takes no arguments; a client starts it, or systemd, or whoever calls it.\n"
    "'kestrine start', 'kestrine status' and 'kestrine stop' start, examine and end it.\n";

/// Prints the text for the one argument that asks for it. Any other argument, which a starter may give, is ignored.
std::optional<int> answerArguments(int count, char** words) {
  const std::string_view asked = count == 2 ? words[1] : "";
  if (asked != "--help" && asked != "--version") return std::nullopt;
  const std::string text = asked == "--help" ? std::string(kHelp) : "FileWatcherXpcService " KESTRINE_VERSION "\n";
  return platform::writeAll(STDOUT_FILENO, text) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int count, char** words) {
  platform::openMissingStandardDescriptors();
  if (const auto status = answerArguments(count, words)) return *status;
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
