#include "platform/concurrency/RunLoop.h"

namespace platform {

RunLoopItem::~RunLoopItem() = default;
RunLoop::~RunLoop() = default;

}  // namespace platform
