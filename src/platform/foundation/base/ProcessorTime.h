#pragma once

#include <chrono>

namespace platform {

/// The processor time that the calling thread has used since it began (clock_gettime(2), CLOCK_THREAD_CPUTIME_ID), which is there always.
/// Only differences between two calls on one thread mean anything. Any thread.
std::chrono::nanoseconds threadProcessorTime();

}  // namespace platform
