#pragma once

#include <cstddef>

namespace kestrine::bench {

/// CLOCK_MONOTONIC in seconds: comparable between processes.
double now();
/// What this process has resident, in bytes (VmRSS).
std::size_t residentBytes();
/// Processor time of this process, user and system, without its children, in seconds.
double processorSeconds();

/// Says what failed, with errno, and ends the process: a benchmark that cannot measure has no result.
[[noreturn]] void fail(const char* what);

}  // namespace kestrine::bench
