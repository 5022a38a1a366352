#pragma once

#include <chrono>
#include <functional>

namespace kestrine::test {

/// How long a test waits for what must come: only as long as that takes when all is well, so it may be long, and a machine that is busy
/// with other things is no fault. Not for what must not come.
inline constexpr std::chrono::milliseconds kPatience = std::chrono::minutes(2);

/// Waits until `condition` is true, for at most `limit`; looks every few milliseconds. For what can only be seen from outside.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = kPatience);

/// How long cases are to be: `full` in a plain build, `shortened` under a sanitizer and where KESTRINE_SHORTENED says why ("without
/// rights"). The shortening is printed.
int longOrShort(int full, int shortened);

}  // namespace kestrine::test
