// bench_floor SOURCE stand PATH                     time and memory to watch a tree
// bench_floor SOURCE burst PATH FILES FOLDERS       processor time of reading the queue of a burst every 20 ms
// bench_floor SOURCE latency PATH COUNT             time from a change to its event, by epoll and read
// SOURCE is fanotify or inotify. Prints one line of JSON.
#include "bench/Floor.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "bench/Measure.h"
#include "bench/Writer.h"

namespace {

using namespace kestrine::bench;

constexpr useconds_t kReadEvery = 20'000;
/// Longer than anything that one change still has to tell takes to arrive.
constexpr useconds_t kQuietTime = 20'000;

void stand(Floor& floor, const std::string& path) {
  const std::size_t before = residentBytes();
  const double start = now();
  const std::size_t folders = floor.watch(path);
  const double seconds = now() - start;
  std::printf("{\"seconds\": %.6f, \"folders\": %zu, \"bytes\": %zu}\n", seconds, folders, residentBytes() - before);
}

void burst(Floor& floor, const std::string& path, int files, int folders) {
  Writer writer = Writer::burst(path, files, folders);
  floor.watch(path);
  const double start = now();
  const double before = processorSeconds();
  writer.begin();
  std::size_t events = 0;
  for (bool ended = false; !ended;) {
    usleep(kReadEvery);
    ended = writer.hasEnded();
    events += floor.drain();
  }
  std::printf("{\"cpu\": %.6f, \"seconds\": %.6f, \"events\": %zu, \"overflow\": %s}\n", processorSeconds() - before, now() - start, events,
              floor.hasOverflowed() ? "true" : "false");
}

void latency(Floor& floor, const std::string& path, int count) {
  Writer writer = Writer::singleFiles(path);
  floor.watch(path);
  const int loop = epoll_create1(EPOLL_CLOEXEC);
  epoll_event wanted{.events = EPOLLIN, .data = {.fd = floor.descriptor()}};
  if (loop < 0 || epoll_ctl(loop, EPOLL_CTL_ADD, floor.descriptor(), &wanted) != 0) fail("epoll");
  std::printf("{\"seconds\": [");
  for (int change = 0; change < count; ++change) {
    writer.begin();
    epoll_event ready{};
    if (epoll_wait(loop, &ready, 1, 10'000) != 1) fail("no event");
    floor.drain();
    const double arrived = now();
    std::printf("%s%.6f", change == 0 ? "" : ", ", arrived - writer.changedAt());
    usleep(kQuietTime);
    floor.drain();
  }
  std::printf("]}\n");
  close(loop);
}

int usage() {
  std::fprintf(stderr, "bench_floor fanotify|inotify stand PATH | burst PATH FILES FOLDERS | latency PATH COUNT\n");
  return 2;
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 4) return usage();
  const std::string_view source = arguments[1];
  const std::string_view what = arguments[2];
  const auto floor = source == "fanotify" ? Floor::fanotify() : Floor::inotify();
  if (what == "stand") {
    stand(*floor, arguments[3]);
  } else if (what == "burst" && count == 6) {
    burst(*floor, arguments[3], std::atoi(arguments[4]), std::atoi(arguments[5]));
  } else if (what == "latency" && count == 5) {
    latency(*floor, arguments[3], std::atoi(arguments[4]));
  } else {
    return usage();
  }
  return 0;
}
