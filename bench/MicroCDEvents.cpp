// What lies between the platform's stream and the product's handler: path to URL, filter, event object.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench/TemporaryFolder.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/fsevents/FSEventStream.h"
#include "watcher/CDEvents.h"

namespace {

using kestrine::CDEvents;
using platform::FSEvent;
using platform::URL;

constexpr std::size_t kBatch = 1000;

void deliverBatch(benchmark::State& state) {
  const kestrine::bench::TemporaryFolder folder;
  std::vector<FSEvent> batch;
  batch.reserve(kBatch);
  for (std::size_t number = 0; number < kBatch; ++number) {
    batch.push_back({.path = folder.path() + "/some folder/file number " + std::to_string(number),
                     .flags = platform::kFSEventStreamEventFlagItemCreated,
                     .id = number});
  }
  std::size_t delivered = 0;
  CDEvents events(
      {URL::fileURLWithPath(folder.path())}, [&delivered](CDEvents&, const auto&) { ++delivered; }, platform::RunLoop::current(),
      kestrine::kCDEventsSinceEventNow, 3, false, std::vector<URL>{URL::fileURLWithPath("/somewhere/else")},
      kestrine::kCDEventsDefaultEventStreamFlags);
  while (state.KeepRunning()) CDEventsCallback(events, batch);
  if (delivered != batch.size() * state.iterations()) state.SkipWithError("not everything was delivered");
}
BENCHMARK(deliverBatch)->Name("CDEvents: a batch of 1,000 events to the handler");

}  // namespace
