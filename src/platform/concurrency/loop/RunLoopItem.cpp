#include "platform/concurrency/loop/RunLoopItem.h"

namespace platform {

RunLoopItem::~RunLoopItem() = default;

}  // namespace platform
