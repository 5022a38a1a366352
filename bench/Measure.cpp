#include "bench/Measure.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace kestrine::bench {

double now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

std::size_t residentBytes() {
  std::FILE* file = std::fopen("/proc/self/statm", "re");
  if (file == nullptr) fail("/proc/self/statm");
  std::size_t total = 0;
  std::size_t resident = 0;
  const int fields = std::fscanf(file, "%zu %zu", &total, &resident);
  std::fclose(file);
  if (fields != 2) fail("/proc/self/statm");
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

double processorSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& value) { return static_cast<double>(value.tv_sec) + static_cast<double>(value.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void fail(const char* what) {
  std::fprintf(stderr, "bench: %s: %s\n", what, std::strerror(errno));
  std::exit(1);
}

}  // namespace kestrine::bench
