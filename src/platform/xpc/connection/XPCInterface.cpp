#include "platform/xpc/connection/XPCInterface.h"

#include "platform/foundation/base/Exception.h"

namespace platform {

void XPCInterface::call(std::string_view selector, void* object) const {
  const auto found = operations_.find(selector);
  if (found == operations_.end()) {
    throw Exception(NSInvalidArgumentException, "the interface " + name_ + " has no operation " + std::string(selector));
  }
  found->second(object);
}

}  // namespace platform
