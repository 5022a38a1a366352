#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Object.h"
#include "platform/xpc/connection/XPCConnection.h"
#include "tests/support/Eventually.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {

/// The application as the service sees it: one connection on which the one operation is called.
class Application {
 public:
  Application();
  void callToFileWatcher();
  /// How often the service ended under the connection.
  [[nodiscard]] int interruptions() const { return *interruptions_; }

 private:
  std::shared_ptr<std::atomic<int>> interruptions_ = std::make_shared<std::atomic<int>>(0);
  std::shared_ptr<platform::XPCConnection> connection_;
};

/// The whole service process with home, preferences, runtime and state folders of the test's own, and a base folder with the folder that is
/// watched. The service description is installed, so the service also starts on demand. Ends the service when destroyed.
class WatcherService : public testing::Test {
 public:
  WatcherService();
  ~WatcherService() override;

 protected:
  static constexpr const char* kServiceName = "Ostrabyte.FileWatcherXpcService";

  /// Ends a service started by the test in order, and shows its log when the case failed.
  void TearDown() override;

  /// Begins a case with what tells the changes: "fanotify" or "inotify". False, and the case is left out, where the kernel has it not.
  [[nodiscard]] bool useSource(const std::string& source);
  /// Moves one of the service's folders, "XDG_CONFIG_HOME" or "XDG_STATE_HOME", before it starts.
  void moveFolder(const std::string& variable, const std::string& path);

  void setBasePath(const std::string& path);
  [[nodiscard]] std::string in(const std::string& name) const { return watchedFolder() + "/" + name; }
  [[nodiscard]] std::string watchedFolder() const { return base() + "/Kestrine"; }
  [[nodiscard]] std::string base() const { return folder_ / "base"; }
  [[nodiscard]] std::string folder(const std::string& name) const { return folder_ / name; }

  /// Starts the service with what it writes to standard error caught, instead of leaving that to the first call.
  void startService(const std::vector<std::string>& arguments = {}, const std::map<std::string, std::string>& environment = {});
  /// The same with a command that ends up as the service.
  void startCommand(const std::vector<std::string>& command, const std::map<std::string, std::string>& environment = {});
  Process& service() { return *service_; }
  /// The service's process, however it was started; 0 when none runs.
  [[nodiscard]] static pid_t servicePid();
  /// What was logged: standard error when started by the test, the log file when started on demand.
  std::string log();

  /// The service's own account of its watches.
  static platform::Array watches();
  static bool eventuallyStanding(const std::vector<std::int64_t>& numbers);
  /// Waits for the log to hold `count` changes that were told, or more.
  bool eventuallyTold(std::size_t count);
  /// The paths of the changes told, in order; each checked to stand behind its thread's line that the flag was set.
  std::vector<std::string> toldPaths();

  /// The flag as the application reads it.
  platform::Object flag();
  bool eventuallyFlagged();
  void resetFlag();

  TemporaryDirectory folder_;

 private:
  std::string configuration_;
  std::string state_;
  std::unique_ptr<Process> service_;
};

/// The latency of a watch, and something for the machine.
inline constexpr std::chrono::milliseconds kWellBeyondTheLatency = std::chrono::seconds(5);

/// How often `text` occurs in `log`.
std::size_t occurrences(const std::string& log, const std::string& text);

}  // namespace kestrine::test
