// What the store costs per change that is told: the flag is set and synchronised once for each, and nearly always it is up already.
#include <benchmark/benchmark.h>

#include "bench/TemporaryFolder.h"
#include "platform/foundation/preferences/UserDefaults.h"

namespace {

using kestrine::bench::TemporaryFolder;
using platform::Object;
using platform::UserDefaults;

constexpr const char* kKey = "FileWatcherStatusKey";

void setAndSynchronizeUnchanged(benchmark::State& state) {
  const TemporaryFolder folder;
  UserDefaults defaults("Bench", folder.path());
  while (state.KeepRunning()) {
    defaults.setObject_forKey("1", kKey);
    if (!defaults.synchronize()) state.SkipWithError("synchronize failed");
  }
}
BENCHMARK(setAndSynchronizeUnchanged)->Name("UserDefaults: set and synchronize, unchanged");

void setAndSynchronizeAfterReset(benchmark::State& state) {
  const TemporaryFolder folder;
  UserDefaults service("Bench", folder.path());
  UserDefaults application("Bench", folder.path());
  while (state.KeepRunning()) {
    service.setObject_forKey("1", kKey);
    if (!service.synchronize()) state.SkipWithError("synchronize failed");
    application.exchange(kKey, [](const Object&) { return Object("0"); });
  }
}
BENCHMARK(setAndSynchronizeAfterReset)->Name("UserDefaults: reset, set and synchronize");

}  // namespace
