#include "platform/concurrency/RunLoopItem.h"

namespace platform {

RunLoopItem::~RunLoopItem() = default;

}  // namespace platform
