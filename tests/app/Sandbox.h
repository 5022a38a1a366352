#pragma once

#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/foundation/preferences/UserDefaults.h"
#include "tests/support/Eventually.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {

/// A user's surroundings with every folder of the product's in a temporary one, the service installed, and a base folder. Ends the service
/// when destroyed. Several may stand side by side: nothing is set in the test's own process unless `enter` is called.
class Sandbox {
 public:
  Sandbox() {
    for (const char* name : {"home", "config", "state", "data", "data/xpc-services", "no-data", "run", "base"}) makeFolder(folder_ / name);
    chmod((folder_ / "run").c_str(), 0700);
    installService(KESTRINE_SERVICE);
    environment = {{"HOME", folder_ / "home"},
                   {"XDG_CONFIG_HOME", folder_ / "config"},
                   {"XDG_STATE_HOME", folder_ / "state"},
                   {"XDG_DATA_HOME", folder_ / "data"},
                   {"XDG_DATA_DIRS", folder_ / "no-data"},
                   {"XDG_RUNTIME_DIR", folder_ / "run"},
                   {"TZ", "UTC"}};
  }
  ~Sandbox() { stop(); }
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  /// Makes the surroundings those of the test's own process too, for what is called in it.
  void enter() const {
    for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
  }

  void installService(const std::string& program) const {
    writeFile(folder_ / "data/xpc-services/Ostrabyte.FileWatcherXpcService.plist",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>Program</key><string>" + program +
                  "</string></dict></plist>\n");
  }

  [[nodiscard]] Process::Options options() const {
    Process::Options options;
    options.environment = environment;
    options.directory = folder_ / "home";
    return options;
  }

  static std::vector<std::string> command(const std::vector<std::string>& arguments) {
    std::vector<std::string> words;
    words.reserve(arguments.size() + 1);
    words.emplace_back(KESTRINE_COMMAND);
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
  }
  /// Runs the `kestrine` command to its end.
  [[nodiscard]] Outcome run(const std::vector<std::string>& arguments) const { return runToEnd(command(arguments), options()); }

  [[nodiscard]] Outcome start() const { return run({"start", "--base", base()}); }

  /// The service's process by its own account; 0 when it does not answer.
  [[nodiscard]] pid_t service() const {
    const std::string text = run({"status", "--json"}).output;
    const auto position = text.find("\"pid\":");
    return position == std::string::npos ? 0 : static_cast<pid_t>(std::stol(text.substr(position + 6)));
  }

  [[nodiscard]] std::string folder(const std::string& name) const { return folder_ / name; }
  [[nodiscard]] std::string base() const { return folder_ / "base"; }
  [[nodiscard]] std::string watched() const { return base() + "/Kestrine"; }
  [[nodiscard]] std::string preferences() const { return folder_ / "config/Preferences"; }

  /// The flag as any program reads it: nil when it was never written.
  [[nodiscard]] platform::Object flag() const { return defaults("Ostrabyte.FileWatcherXpcService", "FileWatcherStatusKey"); }
  void setFlag(const std::string& value) const {
    platform::UserDefaults preferences("Ostrabyte.FileWatcherXpcService", this->preferences());
    preferences.setObject_forKey(value, "FileWatcherStatusKey");
    if (!preferences.synchronize()) throw std::runtime_error("the flag could not be written");
  }
  [[nodiscard]] platform::Object defaults(const std::string& domain, const std::string& key) const {
    return platform::UserDefaults(domain, preferences()).objectForKey(key);
  }

  std::map<std::string, std::string> environment;

 private:
  void stop() const {
    const Outcome stopped = run({"stop"});
    if (stopped.status == 0) return;
    if (const pid_t process = service(); process > 0) kill(process, SIGKILL);
  }

  TemporaryDirectory folder_;
};

/// Signals a process. Numbers that mean groups of processes, as 0 does, are a mistake of the test.
inline void signalProcess(pid_t process, int number) {
  if (process <= 0 || kill(process, number) != 0) throw std::runtime_error("no process to signal: " + std::to_string(process));
}

/// Stops a process as SIGSTOP does, and returns when each of its threads has stopped, which may take a moment.
inline void stopProcess(pid_t process) {
  signalProcess(process, SIGSTOP);
  const std::filesystem::path tasks = "/proc/" + std::to_string(process) + "/task";
  const bool stopped = eventually([&] {
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
      if (readFile(task.path() / "status").find("State:\tT") == std::string::npos) return false;
    }
    return true;
  });
  if (!stopped) throw std::runtime_error("process " + std::to_string(process) + " does not stop");
}

/// What the watch takes to tell, and something for the machine.
inline constexpr std::chrono::milliseconds kLongEnough = kPatience;

}  // namespace kestrine::test
