#include "platform/xpc/connection/StatusAnswer.h"

#include "platform/foundation/process/StatusRegistry.h"
#include "platform/xpc/value/ObjectConversion.h"

namespace platform::xpc {

Value statusAnswer() { return valueWithObject(StatusRegistry::shared().snapshot()); }

}  // namespace platform::xpc
