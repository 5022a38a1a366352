#include "app/cli/StopSignals.h"

#include <csignal>
#include <system_error>
#include <utility>

namespace kestrine {

StopSignals::StopSignals() {
  platform::EndingSignals::block();
  // A shell without job control starts its background jobs with SIGINT ignored, and an ignored signal never reaches a descriptor.
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
  if (const int error = signals_.open(); error != 0) throw std::system_error(error, std::generic_category(), "signalfd");
}

void StopSignals::schedule(platform::RunLoop& loop, std::function<void()> handler) {
  signals_.schedule(loop, [this, handler = std::move(handler)] {
    platform::EndingSignals::unblock();
    handler();
    cancel();
  });
}

}  // namespace kestrine
