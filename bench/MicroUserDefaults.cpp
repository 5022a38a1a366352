// What the store costs per change that is told: the flag is set and synchronised once for each, and nearly always it is set already.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/foundation/UserDefaults.h"

namespace {

using platform::UserDefaults;

constexpr const char* kKey = "FileWatcherStatusKey";

/// A folder of its own for the time of one benchmark.
class Folder {
 public:
  Folder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kestrine-micro-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void setAndSynchronizeUnchanged(benchmark::State& state) {
  const Folder folder;
  UserDefaults defaults("Bench", folder.path());
  while (state.KeepRunning()) {
    defaults.setObject_forKey("1", kKey);
    if (!defaults.synchronize()) state.SkipWithError("synchronize failed");
  }
}
BENCHMARK(setAndSynchronizeUnchanged)->Name("UserDefaults: set and synchronize, unchanged");

void setAndSynchronizeAfterReset(benchmark::State& state) {
  const Folder folder;
  UserDefaults service("Bench", folder.path());
  UserDefaults application("Bench", folder.path());
  while (state.KeepRunning()) {
    service.setObject_forKey("1", kKey);
    if (!service.synchronize()) state.SkipWithError("synchronize failed");
    application.exchange(kKey, [](const platform::Object&) { return platform::Object("0"); });
  }
}
BENCHMARK(setAndSynchronizeAfterReset)->Name("UserDefaults: reset, set and synchronize");

}  // namespace
