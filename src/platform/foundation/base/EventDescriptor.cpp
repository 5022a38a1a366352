#include "platform/foundation/base/EventDescriptor.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

namespace platform {

EventDescriptor::EventDescriptor() : EventDescriptor(std::nothrow) {
  if (!isOpen()) throw std::system_error(errno, std::system_category(), "eventfd");
}

EventDescriptor::EventDescriptor(const std::nothrow_t& /*without*/) noexcept : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

// A write that fails because the counter is full means that it is readable already.
void EventDescriptor::ring() const noexcept { ::eventfd_write(descriptor(), 1); }

void EventDescriptor::clear() const noexcept {
  eventfd_t rings = 0;
  ::eventfd_read(descriptor(), &rings);
}

}  // namespace platform
