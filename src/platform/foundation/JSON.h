#pragma once

#include <string>

#include "platform/foundation/Object.h"

namespace platform {

/// `object` as JSON text (RFC 8259) without blanks. Nil and null are written as null; integers, unsigned integers, floating-point numbers
/// and booleans stay what they are. Throws Exception(NSInvalidArgumentException) for what JSON cannot hold: text or a key that is not
/// UTF-8, a number that is not finite, data, a date, a UUID, a file handle. Any thread.
std::string jsonText(const Object& object);

}  // namespace platform
