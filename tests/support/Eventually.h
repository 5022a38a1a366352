#pragma once

#include <chrono>
#include <functional>

namespace kestrine::test {

/// Waits until `condition` is true, for at most `limit`; looks every few milliseconds. For what can only be seen from outside.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = std::chrono::seconds(20));

/// How long cases are to be: `full` in a plain build, `shortened` under a sanitizer and where KESTRINE_SHORTENED says why ("without
/// rights"). The shortening is printed.
int longOrShort(int full, int shortened);

}  // namespace kestrine::test
