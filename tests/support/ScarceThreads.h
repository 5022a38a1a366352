#pragma once

#include <functional>

namespace kestrine::test {

/// Runs `block` on a thread that can make no further threads: the kernel answers EAGAIN, as it does when there are too many. False, and
/// nothing was run, where the kernel or a sandbox has no such filter.
bool withoutThreads(const std::function<void()>& block);

}  // namespace kestrine::test
