#include "tests/xpc/ServiceEnvironment.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "platform/concurrency/queue/ThreadPool.h"
#include "tests/support/Eventually.h"

namespace kestrine::test {

namespace {

using platform::xpc::ConnectionError;
using platform::xpc::Event;
using platform::xpc::Value;

constexpr std::chrono::milliseconds kLimit = kPatience;

}  // namespace

ServiceEnvironment::ServiceEnvironment() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  for (const char* folder : {"run", "state", "data", "home"}) makeFolder(folder_ / folder);
  set("XDG_RUNTIME_DIR", folder_ / "run");
  set("XDG_STATE_HOME", folder_ / "state");
  set("XDG_DATA_HOME", folder_ / "data");
  set("XDG_CONFIG_HOME", folder_ / "config");
  set("XDG_DATA_DIRS", folder_ / "shared");
  set("HOME", folder_ / "home");
  set("XPC_TEST_RECORD", folder_ / "record");
  set("XPC_TEST_NAME", "");
  // A service's standard error is nowhere, and what a sanitizer finds in it must not be lost.
  for (const std::string variable : {"TSAN_OPTIONS", "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
    const char* options = std::getenv(variable.c_str());
    set(variable, (options != nullptr ? std::string(options) + ":" : "") + "log_path=" + (folder_ / "sanitizer"));
  }
}

ServiceEnvironment::~ServiceEnvironment() {
  for (const int pid : startedServices()) {
    // Only a child of this process can be reaped here; a number that was reused belongs to somebody else and is left alone.
    if (waitpid(pid, nullptr, WNOHANG) != 0) continue;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  for (const auto& file : std::filesystem::directory_iterator(folder_.path())) {
    if (file.path().filename().string().starts_with("sanitizer")) ADD_FAILURE() << readFile(file.path().string());
  }
  // An attempt to connect that nobody waits for any more may still be reading the environment.
  const auto& pool = platform::ThreadPool::shared();
  eventually([&pool] { return pool.parked() == pool.threads(); }, std::chrono::seconds(2));
  for (const auto& [variable, value] : former_) {
    if (value) {
      setenv(variable.c_str(), value->c_str(), 1);
    } else {
      unsetenv(variable.c_str());
    }
  }
}

void ServiceEnvironment::set(const std::string& variable, const std::string& value) {
  const char* former = std::getenv(variable.c_str());
  former_.try_emplace(variable, former != nullptr ? std::optional<std::string>(former) : std::nullopt);
  setenv(variable.c_str(), value.c_str(), 1);
}

void ServiceEnvironment::install(const std::string& name, const std::string& program) {
  makeFolder(folder_ / "data/xpc-services");
  writeFile(folder_ / ("data/xpc-services/" + name + ".plist"),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>Program</key><string>" + program +
                "</string></dict></plist>\n");
  set("XPC_TEST_NAME", name);
}

std::vector<std::string> ServiceEnvironment::record() const {
  std::vector<std::string> lines;
  if (access((folder_ / "record").c_str(), R_OK) != 0) return lines;
  std::istringstream text(readFile(folder_ / "record"));
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

int ServiceEnvironment::countInRecord(const std::string& line) const {
  const auto lines = record();
  return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

bool ServiceEnvironment::waitForRecord(const std::string& line, int times) const {
  return eventually([&] { return countInRecord(line) >= times; }, kLimit);
}

std::vector<int> ServiceEnvironment::startedServices() const {
  std::vector<int> pids;
  for (const std::string& line : record()) {
    if (line.starts_with("started ")) pids.push_back(std::stoi(line.substr(8)));
  }
  return pids;
}

platform::xpc::Connection::EventHandler EventLog::handler() const {
  return [state = state_](const Event& event) {
    const platform::MutexLock lock(state->mutex);
    state->events.push_back(event);
    state->changed.notifyAll();
  };
}

std::optional<Event> EventLog::at(std::size_t index) const {
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  platform::MutexLock lock(state_->mutex);
  while (state_->events.size() <= index) {
    if (!state_->changed.waitUntil(lock, deadline)) break;
  }
  if (state_->events.size() <= index) return std::nullopt;
  return state_->events[index];
}

std::size_t EventLog::count() const {
  const platform::MutexLock lock(state_->mutex);
  return state_->events.size();
}

std::optional<ConnectionError::Kind> errorKind(const std::optional<Event>& event) {
  const auto* error = event ? std::get_if<ConnectionError>(&*event) : nullptr;
  return error != nullptr ? std::optional(error->kind) : std::nullopt;
}

std::string errorText(const std::optional<Event>& event) {
  const auto* error = event ? std::get_if<ConnectionError>(&*event) : nullptr;
  return error != nullptr ? error->description : "no error";
}

Value messageOf(const std::optional<Event>& event) {
  if (!event) throw std::runtime_error("there was no event");
  if (const auto* error = std::get_if<ConnectionError>(&*event)) throw std::runtime_error("an error came: " + error->description);
  return std::get<Value>(*event);
}

std::string textUnder(const std::optional<Event>& event, const std::string& key) { return messageOf(event).find(key)->stringValue(); }
std::int64_t numberUnder(const std::optional<Event>& event, const std::string& key) { return messageOf(event).find(key)->int64Value(); }

Value command(const std::string& command) { return Value::dictionary({{"command", Value::string(command)}}); }

Client::Client(const std::string& service) : connection(platform::xpc::Connection::create(service)) {
  connection->setEventHandler(events.handler());
  connection->resume();
}

std::optional<Event> Client::ask(const Value& message) {
  connection->send(message);
  return events.at(seen++);
}

std::uint32_t ownAuditSession() {
  std::uint32_t session = 0;
  std::ifstream("/proc/self/sessionid") >> session;
  return session;
}

int countOwnDescriptors() {
  int count = -1;  // the folder's own
  DIR* folder = opendir("/proc/self/fd");
  for (const dirent* entry = readdir(folder); entry != nullptr; entry = readdir(folder)) count += entry->d_name[0] != '.' ? 1 : 0;
  closedir(folder);
  return count;
}

bool processExists(int pid) { return kill(pid, 0) == 0; }

}  // namespace kestrine::test
