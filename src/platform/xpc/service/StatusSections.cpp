#include "platform/xpc/service/StatusSections.h"

#include <unistd.h>

#include <utility>

#include "platform/foundation/value/Dictionary.h"

namespace platform::xpc {

StatusRegistry::Registration addProcessSection(const std::string& identifier) {
  return StatusRegistry::shared().add("process", [identifier, started = Object(Date::now())] {
    return Object(Dictionary{{"pid", Object::numberWithInt(getpid())}, {"startedAt", started}, {"identifier", identifier}});
  });
}

StatusRegistry::Registration addChannelSection(std::shared_ptr<const Listener> listener) {
  return StatusRegistry::shared().add("channel", [listener = std::move(listener)] {
    const auto numbers = listener->statistics();
    return Object(Dictionary{{"openSockets", Object::numberWithUnsignedLongLong(numbers.openSockets)},
                             {"peers", Object::numberWithUnsignedLongLong(numbers.peers)},
                             {"accepted", Object::numberWithUnsignedLongLong(numbers.accepted)}});
  });
}

}  // namespace platform::xpc
