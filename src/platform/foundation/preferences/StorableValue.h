#pragma once

#include <string_view>

#include "platform/foundation/value/Object.h"

namespace platform {

/// The value as it would be read back from under `key` of a domain. Throws Exception(NSInvalidArgumentException), which names the key, when
/// no domain can hold it: PropertyList.h says which, and its nesting has one level less, since the domain is one. The key is one that
/// `requirePropertyListText` has let pass.
Object storableValue(const Object& value, std::string_view key);

}  // namespace platform
