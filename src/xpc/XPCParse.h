#pragma once

#include <optional>

#include "platform/foundation/value/Object.h"
#include "platform/xpc/value/Value.h"

/// The product's conversion between what the channel carries and objects, both ways. It loses more than the platform's own
/// (platform/xpc/value/ObjectConversion.h), and applications rely on what it loses:
///
/// | value of the channel        | object                    | back                                                          |
/// |-----------------------------|---------------------------|---------------------------------------------------------------|
/// | dictionary                  | dictionary                | dictionary                                                    |
/// | array                       | array                     | array                                                         |
/// | date (whole nanoseconds)    | date (seconds, a double)  | date, truncated toward zero                                   |
/// | data                        | data, a copy              | data                                                          |
/// | shared memory               | nil                       | -                                                             |
/// | string                      | string                    | string, up to its first NUL                                   |
/// | uuid                        | UUID (see XPCUUID)        | uuid                                                          |
/// | file descriptor             | handle of a duplicate     | file descriptor, a duplicate                                  |
/// | bool, uint64, int64, double | number                    | true: bool; unsigned 64-bit: uint64; 64-bit: int64; any other |
/// |                             |                           | number, false included: double                                |
/// | null                        | nil                       | -                                                             |
///
/// What becomes nil, or has no way back, is dropped from its container without a word. Text that is not UTF-8 becomes nil.
/// Threads: any.
namespace kestrine {

/// By the value's kind; nil for a kind that no object stands for.
[[nodiscard]] platform::Object objectWithXPCObject(const platform::xpc::Value& object);

// One class each; nil for a value of another kind than theirs.

/// Entries whose key or value becomes nil are skipped.
[[nodiscard]] platform::Object dictionaryWithContentsOfXPCObject(const platform::xpc::Value& object);
/// Each element goes to the index that it has in the value. So an element that becomes nil is skipped at the end only: one that follows it
/// would be put beyond the end, which throws platform::Exception(NSRangeException).
[[nodiscard]] platform::Object arrayWithContentsOfXPCObject(const platform::xpc::Value& object);
[[nodiscard]] platform::Object dateWithXPCObject(const platform::xpc::Value& object);
[[nodiscard]] platform::Object dataWithXPCObject(const platform::xpc::Value& object);
[[nodiscard]] platform::Object stringWithXPCObject(const platform::xpc::Value& object);
[[nodiscard]] platform::Object numberWithXPCObject(const platform::xpc::Value& object);
/// The handle owns a duplicate and closes it. Throws platform::Exception(NSInvalidArgumentException) when the process has no descriptor
/// left.
[[nodiscard]] platform::Object fileHandleWithXPCObject(const platform::xpc::Value& object);

/// The value of any object that has one; nothing for nil, for null and for a handle that is closed. A date beyond what nanoseconds can tell
/// (the years 1677 to 2262) becomes the nearest that they can.
[[nodiscard]] std::optional<platform::xpc::Value> newXPCObject(const platform::Object& object);

}  // namespace kestrine
