#include "platform/foundation/base/ApplicationIdentifier.h"

#include <cerrno>
#include <utility>

#include "platform/foundation/base/Mutex.h"

namespace platform {

namespace {

Guarded<std::string>& identifierInForce() {
  static Guarded<std::string>& identifier = *new Guarded<std::string>(program_invocation_short_name);
  return identifier;
}

}  // namespace

void setApplicationIdentifier(std::string identifier) {
  identifierInForce().with([&](std::string& inForce) { inForce = std::move(identifier); });
}

std::string applicationIdentifier() {
  return identifierInForce().with([](const std::string& inForce) { return inForce; });
}

}  // namespace platform
