// What the store costs per change that is told: the flag is set and synchronised once for each, and nearly always it is up already.
#include <benchmark/benchmark.h>

#include <string>
#include <utility>
#include <vector>

#include "bench/TemporaryFolder.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"

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

void changeOneKeyOfMany(benchmark::State& state) {
  const TemporaryFolder folder;
  UserDefaults defaults("Bench", folder.path());
  std::vector<platform::Dictionary::value_type> many;
  for (int i = 0; i < 100000; ++i) many.emplace_back("a key with the number " + std::to_string(i), "value " + std::to_string(i));
  if (!defaults.setPersistentDomain_forName(platform::Dictionary::withEntries(std::move(many)), "Bench")) state.SkipWithError("not set");
  int round = 0;
  while (state.KeepRunning()) {
    defaults.setObject_forKey(std::to_string(++round), "a key with the number 5000");
    if (!defaults.synchronize()) state.SkipWithError("synchronize failed");
  }
}
BENCHMARK(changeOneKeyOfMany)->Name("UserDefaults: one changed key of 100,000");

}  // namespace
