// bench_engine SOURCE stand PATH                     time and memory until FSEventStream::start has returned
// bench_engine SOURCE burst PATH FILES FOLDERS       processor time of a stream that tells a burst, and how many files it told
// bench_engine SOURCE latency PATH COUNT             time from a change to the callback, with NoDefer and a small latency
// SOURCE is fanotify or inotify. Prints one line of JSON.
#include <sys/epoll.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bench/Measure.h"
#include "bench/Writer.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/fsevents/FSEventStream.h"

namespace {

using namespace kestrine::bench;
using namespace platform;

/// As the product watches: per item, latency counted from the first change.
constexpr double kBurstLatency = 1.0;
constexpr double kSmallLatency = 0.001;
constexpr useconds_t kQuietTime = 20'000;

class Watcher {
 public:
  Watcher(FSEventStream::Source source, const std::string& path, double latency, FSEventStreamCreateFlags flags,
          std::function<void(std::span<const FSEvent>)> callback)
      : stream_([callback = std::move(callback)](FSEventStream&, std::span<const FSEvent> events) { callback(events); }, {path},
                kFSEventStreamEventIdSinceNow, latency, flags | kFSEventStreamCreateFlagFileEvents, source) {
    stream_.scheduleWithRunLoop(RunLoop::current());
  }
  void start() {
    if (!stream_.start()) fail("start");
  }
  FSEventStream& stream() { return stream_; }

 private:
  FSEventStream stream_;
};

void stand(FSEventStream::Source source, const std::string& path) {
  const std::size_t before = residentBytes();
  Watcher watcher(source, path, kBurstLatency, kFSEventStreamCreateFlagNone, [](std::span<const FSEvent>) {});
  const double start = now();
  watcher.start();
  const double seconds = now() - start;
  const std::size_t after = residentBytes();
  const auto folders = static_cast<unsigned long long>(watcher.stream().status().objectForKey("foldersMarked").unsignedLongLongValue());
  std::printf("{\"seconds\": %.6f, \"folders\": %llu, \"bytes\": %zu}\n", seconds, folders, after - before);
}

/// Ticks off the files of a burst by the number in their names.
class Tally {
 public:
  explicit Tally(int files) : told_(static_cast<std::size_t>(files), false) {}

  void take(std::span<const FSEvent> events) {
    for (const FSEvent& event : events) {
      if ((event.flags & kFSEventStreamEventFlagMustScanSubDirs) != 0) ++rescans_;
      const std::size_t number = event.path.rfind("/f");
      if (number == std::string::npos) continue;
      std::size_t file = told_.size();
      std::from_chars(event.path.data() + number + 2, event.path.data() + event.path.size(), file);
      if (file >= told_.size() || told_[file]) continue;
      told_[file] = true;
      ++count_;
    }
  }
  [[nodiscard]] std::size_t notTold() const { return told_.size() - count_; }
  [[nodiscard]] std::size_t rescans() const { return rescans_; }

 private:
  std::vector<bool> told_;
  std::size_t count_ = 0;
  std::size_t rescans_ = 0;
};

void burst(FSEventStream::Source source, const std::string& path, int files, int folders) {
  Writer writer = Writer::burst(path, files, folders);
  Tally tally(files);
  Watcher watcher(source, path, kBurstLatency, kFSEventStreamCreateFlagNone, [&](std::span<const FSEvent> events) { tally.take(events); });
  watcher.start();
  const auto end = RunLoopDescriptor::create(writer.endDescriptor(), EPOLLIN, [](unsigned) { RunLoop::current()->stop(); });
  RunLoop::current()->add(end);
  const double start = now();
  const double before = processorSeconds();
  writer.begin();
  RunLoop::current()->run();
  watcher.stream().flushSync();
  const double cpu = processorSeconds() - before;
  end->invalidate();
  std::printf("{\"cpu\": %.6f, \"seconds\": %.6f, \"notTold\": %zu, \"rescans\": %zu}\n", cpu, now() - start, tally.notTold(),
              tally.rescans());
}

void latency(FSEventStream::Source source, const std::string& path, int count) {
  Writer writer = Writer::singleFiles(path);
  double arrived = 0;
  Watcher watcher(source, path, kSmallLatency, kFSEventStreamCreateFlagNoDefer, [&](std::span<const FSEvent>) {
    if (arrived != 0) return;  // what else the same change tells
    arrived = now();
    RunLoop::current()->stop();
  });
  watcher.start();
  std::printf("{\"seconds\": [");
  for (int change = 0; change < count; ++change) {
    arrived = 0;
    writer.begin();
    if (!RunLoop::current()->runFor(10)) fail("no event");
    std::printf("%s%.6f", change == 0 ? "" : ", ", arrived - writer.changedAt());
    RunLoop::current()->runFor(kQuietTime / 1e6);
  }
  std::printf("]}\n");
}

int usage() {
  std::fprintf(stderr, "bench_engine fanotify|inotify stand PATH | burst PATH FILES FOLDERS | latency PATH COUNT\n");
  return 2;
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 4) return usage();
  const auto source = std::string_view(arguments[1]) == "fanotify" ? FSEventStream::Source::Fanotify : FSEventStream::Source::Inotify;
  const std::string_view what = arguments[2];
  if (what == "stand") {
    stand(source, arguments[3]);
  } else if (what == "burst" && count == 6) {
    burst(source, arguments[3], std::atoi(arguments[4]), std::atoi(arguments[5]));
  } else if (what == "latency" && count == 5) {
    latency(source, arguments[3], std::atoi(arguments[4]));
  } else {
    return usage();
  }
  return 0;
}
