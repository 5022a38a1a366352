#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/value/Object.h"

namespace platform {

/// The text as UTF-8 when it is something else: UTF-16, with a byte order mark or without, or what it declares as ISO-8859-1. Nullopt when
/// it is to be read as it stands.
std::optional<std::string> utf8FromXML(std::string_view text);

/// The numbers that the texts of elements stand for; of those beyond the types of numbers the digits. Throw PropertyListError.
Object propertyListInteger(std::string_view text);
Object propertyListReal(std::string_view text);

}  // namespace platform
