#include "platform/foundation/base/SystemError.h"

#include <system_error>

namespace platform {

std::string errnoText(int number) { return std::generic_category().message(number); }

}  // namespace platform
