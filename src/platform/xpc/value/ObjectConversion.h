#pragma once

#include "platform/foundation/value/Object.h"
#include "platform/xpc/value/Value.h"

namespace platform::xpc {

/// The object-level conversion between messages and objects: no kind that both sides have is lost.
///
/// Booleans stay booleans; the signed integers become int64 and come back as 64-bit numbers, unsigned ones uint64, floats and doubles
/// double. Dates keep whole nanoseconds as far as a double holds them. Handles are shared, not duplicated. Nil and null become null, null
/// becomes null; shared memory, which no object can hold, becomes nil (inside containers: null). Text with a NUL throws
/// Exception(NSInvalidArgumentException).
[[nodiscard]] Value valueWithObject(const Object& object);
[[nodiscard]] Object objectWithValue(const Value& value);

}  // namespace platform::xpc
