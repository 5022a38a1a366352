#include "tests/system/WatcherFixture.h"

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <utility>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/files/Paths.h"
#include "platform/foundation/url/URL.h"
#include "platform/fsevents/FSEventStream.h"
#include "platform/xpc/launch/ServiceLauncher.h"
#include "platform/xpc/service/ServiceStatusQuery.h"

namespace kestrine::test {

namespace {

/// The operation as an application written elsewhere would declare it.
struct FileWatcherXpcServiceProtocol {
  virtual ~FileWatcherXpcServiceProtocol() = default;
  virtual void callToFileWatcher() = 0;
};

bool kernelHas(platform::FSEventStream::Source source, const std::string& folder) {
  platform::FSEventStream probe([](platform::FSEventStream&, std::span<const platform::FSEvent>) {}, {folder},
                                platform::kFSEventStreamEventIdSinceNow, 1.0, platform::kFSEventStreamCreateFlagNone, source);
  probe.scheduleWithRunLoop(platform::RunLoop::current());
  return probe.start();
}

constexpr const char* kFlagText = "FileWatcher 1 in filewatcher service";
constexpr const char* kEventText = "[Block] URLWatcher: <CDEvents: ";

struct LogEntry {
  std::string thread;
  std::string text;
};

/// The log's texts, which may span lines, with the threads that logged them.
std::vector<LogEntry> logEntries(const std::string& log) {
  static const std::regex& prefix = *new std::regex(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [^ ]+\[\d+:(\d+)\] (.*)$)");
  std::vector<LogEntry> entries;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    if (std::smatch match; std::regex_match(line, match, prefix)) {
      entries.push_back({match[1], match[2]});
    } else if (!entries.empty()) {
      entries.back().text += "\n" + line;
    }
  }
  return entries;
}

}  // namespace

Application::Application() : connection_(platform::XPCConnection::connectionWithServiceName("Ostrabyte.FileWatcherXpcService")) {
  connection_->setRemoteObjectInterface(platform::XPCInterface::interfaceWithProtocol<FileWatcherXpcServiceProtocol>(
      "FileWatcherXpcServiceProtocol", {{"callToFileWatcher", &FileWatcherXpcServiceProtocol::callToFileWatcher}}));
  connection_->setInterruptionHandler([count = interruptions_] { ++*count; });
  connection_->resume();
}

void Application::callToFileWatcher() { connection_->callRemote("callToFileWatcher"); }

WatcherService::WatcherService() : configuration_(folder_ / "config"), state_(folder_ / "state") {
  for (const char* name : {"home", "config", "state", "data", "data/xpc-services", "no-data", "run", "base", "base/Kestrine"}) {
    makeFolder(folder_ / name);
  }
  chmod((folder_ / "run").c_str(), 0700);
  writeFile(folder_ / "data/xpc-services/Ostrabyte.FileWatcherXpcService.plist",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>Program</key><string>" KESTRINE_SERVICE
            "</string></dict></plist>\n");
  setenv("HOME", (folder_ / "home").c_str(), 1);
  setenv("XDG_CONFIG_HOME", configuration_.c_str(), 1);
  setenv("XDG_STATE_HOME", state_.c_str(), 1);
  setenv("XDG_DATA_HOME", (folder_ / "data").c_str(), 1);
  setenv("XDG_DATA_DIRS", (folder_ / "no-data").c_str(), 1);
  setenv("XDG_RUNTIME_DIR", (folder_ / "run").c_str(), 1);
  unsetenv("KESTRINE_FSEVENTS_SOURCE");
  unsetenv("KESTRINE_SYSTEM_VERSION");
}

WatcherService::~WatcherService() {
  if (const pid_t pid = servicePid(); pid > 0) kill(pid, SIGKILL);
  service_.reset();
  eventually([] { return servicePid() == 0; });
}

void WatcherService::TearDown() {
  if (service_ && service_->isRunning()) {
    service_->signal(SIGTERM);
    EXPECT_EQ(service_->wait(std::chrono::seconds(60)), 0) << "the service did not end in order";
  }
  const std::string text = log();
  for (const char* report : {"Sanitizer: ", "runtime error: "}) EXPECT_EQ(text.find(report), std::string::npos);
  if (HasFailure()) std::fprintf(stderr, "--- the service's log:\n%s---\n", text.c_str());
}

bool WatcherService::useSource(const std::string& source) {
  setenv("KESTRINE_FSEVENTS_SOURCE", source.c_str(), 1);
  return kernelHas(source == "fanotify" ? platform::FSEventStream::Source::Fanotify : platform::FSEventStream::Source::Inotify,
                   watchedFolder());
}

void WatcherService::moveFolder(const std::string& variable, const std::string& path) {
  makeFolder(path);
  (variable == "XDG_CONFIG_HOME" ? configuration_ : state_) = path;
  setenv(variable.c_str(), path.c_str(), 1);
}

void WatcherService::setBasePath(const std::string& path) {
  platform::UserDefaults preferences("Ostrabyte.Kestrine", configuration_ + "/Preferences");
  preferences.setObject_forKey(path, "kestrinePathKey");
  ASSERT_TRUE(preferences.synchronize());
}

void WatcherService::startService(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment) {
  std::vector<std::string> command = {KESTRINE_SERVICE};
  command.insert(command.end(), arguments.begin(), arguments.end());
  startCommand(command, environment);
}

void WatcherService::startCommand(const std::vector<std::string>& command, const std::map<std::string, std::string>& environment) {
  Process::Options options;
  options.environment = environment;
  options.directory = folder_.path();
  service_ = std::make_unique<Process>(command, options);
  ASSERT_TRUE(eventually([&] { return platform::xpc::queryServiceStatus(kServiceName, std::chrono::seconds(5)).has_value(); })) << log();
}

pid_t WatcherService::servicePid() {
  const platform::xpc::RunningService running = platform::xpc::runningService(kServiceName);
  return running.isAlive ? running.processIdentifier : 0;
}

std::string WatcherService::log() {
  if (service_) return service_->errorOutput();
  std::string text;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(state_)) {
    if (entry.is_regular_file() && entry.path().extension() == ".log") text += readFile(entry.path());
  }
  return text;
}

platform::Array WatcherService::watches() {
  const auto status = platform::xpc::queryServiceStatus(kServiceName, std::chrono::seconds(5));
  return status ? status->objectForKey("watches").arrayValue() : platform::Array();
}

bool WatcherService::eventuallyStanding(const std::vector<std::int64_t>& numbers) {
  return eventually(
      [&] {
        std::vector<std::int64_t> standing;
        for (const platform::Object& watch : watches()) {
          if (watch.objectForKey("state").stringValue() == "standing") standing.push_back(watch.objectForKey("number").longLongValue());
        }
        // Watches that start at the same time stand in any order.
        std::sort(standing.begin(), standing.end());
        return standing == numbers;
      },
      std::chrono::seconds(60));
}

bool WatcherService::eventuallyTold(std::size_t count) {
  return eventually([&] { return occurrences(log(), kEventText) >= count; }, std::chrono::seconds(60));
}

std::vector<std::string> WatcherService::toldPaths() {
  const std::string text = log();
  std::vector<std::string> paths;
  std::map<std::string, std::string> lastTextOfThread;
  for (const LogEntry& entry : logEntries(text)) {
    const std::string last = std::exchange(lastTextOfThread[entry.thread], entry.text);
    if (!entry.text.starts_with(kEventText)) continue;
    EXPECT_EQ(last, kFlagText) << "before an event in\n" << text;
    const std::size_t url = entry.text.find(", URL = ") + 8;
    paths.push_back(platform::URL::URLWithString(entry.text.substr(url, entry.text.find(", flags = ", url) - url)).value().path());
  }
  EXPECT_EQ(paths.size(), occurrences(text, kFlagText));
  return paths;
}

platform::Object WatcherService::flag() {
  return platform::UserDefaults(kServiceName, configuration_ + "/Preferences").objectForKey("FileWatcherStatusKey");
}

bool WatcherService::eventuallyFlagged() {
  return eventually([&] { return flag() == platform::Object("1"); }, std::chrono::seconds(60));
}

void WatcherService::resetFlag() {
  platform::UserDefaults preferences(kServiceName, configuration_ + "/Preferences");
  preferences.removeObjectForKey("FileWatcherStatusKey");
  EXPECT_TRUE(preferences.synchronize());
}

std::size_t occurrences(const std::string& log, const std::string& text) {
  std::size_t count = 0;
  for (std::size_t position = log.find(text); position != std::string::npos; position = log.find(text, position + 1)) ++count;
  return count;
}

}  // namespace kestrine::test
