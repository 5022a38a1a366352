#include "platform/foundation/base/ApplicationIdentifier.h"

#include <cerrno>
#include <mutex>
#include <utility>

namespace platform {

namespace {

struct Identifier {
  std::mutex mutex;
  std::string text = program_invocation_short_name;
};

Identifier& identifierInForce() {
  static Identifier& identifier = *new Identifier();
  return identifier;
}

}  // namespace

void setApplicationIdentifier(std::string identifier) {
  Identifier& inForce = identifierInForce();
  const std::lock_guard lock(inForce.mutex);
  inForce.text = std::move(identifier);
}

std::string applicationIdentifier() {
  Identifier& inForce = identifierInForce();
  const std::lock_guard lock(inForce.mutex);
  return inForce.text;
}

}  // namespace platform
