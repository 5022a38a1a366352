#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "platform/foundation/value/Object.h"

namespace platform {

/// `format` with each "%@" replaced by the description of the next argument ("(null)" when there is none left) and each "%%" by '%'. All
/// else, other '%' included, stays as it is. Any thread.
std::string formatObject(std::string_view format, std::initializer_list<Object> arguments);

}  // namespace platform
