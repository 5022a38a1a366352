// A service for the tests. XPC_TEST_NAME is its name, XPC_TEST_RECORD a file to which it appends a line for everything that happens to it.
// XPC_TEST_FORMER_MILLISECONDS is how long it waits for a former process of that name.
// With XPC_TEST_OBJECTS set it serves calls, else messages: {"command": ...} is answered on the same connection.

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/log/Log.h"
#include "platform/xpc/connection/Connection.h"
#include "platform/xpc/connection/XPCConnection.h"
#include "platform/xpc/service/ServiceProcess.h"
#include "platform/xpc/service/XPCListener.h"

namespace {

using platform::xpc::Connection;
using platform::xpc::ConnectionError;
using platform::xpc::Event;
using platform::xpc::Value;

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

void record(const std::string& line) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  std::ofstream file(environment("XPC_TEST_RECORD"), std::ios::app);
  file << line + "\n";
}

std::string fileText(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string linkTarget(const std::string& path) {
  std::string target(4096, '\0');
  const ssize_t size = readlink(path.c_str(), target.data(), target.size());
  target.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return target;
}

/// What the process looks like from outside: one line of "key=value" each.
std::string describeSelf() {
  std::ostringstream text;
  text << "cwd=" << linkTarget("/proc/self/cwd") << "\nsession=" << (getsid(0) == getpid() ? "own" : "foreign") << '\n';
  for (int descriptor = 0; descriptor < 3; ++descriptor) {
    text << descriptor << "=" << linkTarget("/proc/self/fd/" + std::to_string(descriptor)) << '\n';
  }
  for (const char* name : {"LISTEN_FDS", "LISTEN_PID", "XPC_LOG_FILE", "XPC_TEST_NAME"}) text << name << "=" << environment(name) << '\n';
  return text.str() + fileText("/proc/self/status");
}

/// The files that are open at the start, before anything here opened one.
std::string openFiles() {
  std::ostringstream text;
  DIR* folder = opendir("/proc/self/fd");
  for (const dirent* entry = readdir(folder); entry != nullptr; entry = readdir(folder)) {
    const std::string name = entry->d_name;
    if (name[0] == '.' || std::stoi(name) == dirfd(folder)) continue;
    text << name << "=" << linkTarget("/proc/self/fd/" + name) << '\n';
  }
  closedir(folder);
  return text.str();
}

int countDescriptors() {
  int count = -1;  // the folder's own
  DIR* folder = opendir("/proc/self/fd");
  for (const dirent* entry = readdir(folder); entry != nullptr; entry = readdir(folder)) count += entry->d_name[0] != '.' ? 1 : 0;
  closedir(folder);
  return count;
}

std::string filesAtStart;

Value answer(const Value& message, const Connection& connection) {
  const Value* named = message.find("command");
  const std::string command = named != nullptr ? named->stringValue() : "";
  if (command == "echo") return message;
  if (command == "pid") return Value::dictionary({{"pid", Value::int64(getpid())}});
  if (command == "describe") return Value::dictionary({{"text", Value::string(describeSelf())}, {"files", Value::string(filesAtStart)}});
  if (command == "descriptors") return Value::dictionary({{"count", Value::int64(countDescriptors())}});
  if (command == "peer") {
    return Value::dictionary({{"pid", Value::int64(connection.pid())},
                              {"euid", Value::int64(connection.euid())},
                              {"egid", Value::int64(connection.egid())},
                              {"asid", Value::int64(connection.asid())}});
  }
  if (command == "die") raise(SIGKILL);
  if (command == "throw") throw std::runtime_error("as asked");
  if (command == "throw on main loop") {
    // Whatever it is: not all that is thrown is a std::exception.
    platform::RunLoop::main()->perform([] { throw 42; });  // NOLINT(hicpp-exception-baseclass)
  }
  if (command == "log") platform::NSLog("a line for the log");
  return Value::dictionary({});
}

void acceptPeer(const std::shared_ptr<Connection>& connection) {
  record("peer");
  if (const std::string refuse = environment("XPC_TEST_REFUSE"); !refuse.empty()) return connection->cancel();
  connection->setEventHandler([weak = std::weak_ptr(connection)](const Event& event) {
    const auto peer = weak.lock();
    if (const auto* error = std::get_if<ConnectionError>(&event)) {
      static const std::map<ConnectionError::Kind, std::string> kNames{
          {ConnectionError::Kind::Interrupted, "interrupted"},
          {ConnectionError::Kind::Invalid, "invalid"},
          {ConnectionError::Kind::TerminationImminent, "termination imminent"}};
      return record(kNames.at(error->kind));
    }
    if (peer) peer->send(answer(std::get<Value>(event), *peer));
  });
  connection->resume();
}

struct Operations {
  virtual ~Operations() = default;
  virtual void note() = 0;
  virtual void watch() = 0;
  virtual void fail() = 0;
};

class Recorder : public Operations {
 public:
  ~Recorder() override { record("destroyed"); }
  void note() override { record("note"); }
  void watch() override {
    record("watch");
    anchor_ = platform::RunLoopSource::create([] {});
    platform::RunLoop::current()->add(anchor_);
    platform::RunLoop::current()->run();
  }
  void fail() override { throw std::runtime_error("as asked"); }

 private:
  std::shared_ptr<platform::RunLoopSource> anchor_;
};

struct Delegate : platform::XPCListenerDelegate {
  bool listener_shouldAcceptNewConnection(platform::XPCListener&, const std::shared_ptr<platform::XPCConnection>& connection) override {
    record("peer");
    if (!environment("XPC_TEST_REFUSE").empty()) return false;
    connection->setExportedInterface(platform::XPCInterface::interfaceWithProtocol<Operations>(
        "Operations", {{"note", &Operations::note}, {"watch", &Operations::watch}, {"fail", &Operations::fail}}));
    connection->setExportedObject<Operations>(std::make_shared<Recorder>());
    connection->setInvalidationHandler([] { record("invalid"); });
    connection->resume();
    return true;
  }
};

}  // namespace

int main() {
  filesAtStart = openFiles();
  if (const std::string limit = environment("XPC_TEST_FORMER_MILLISECONDS"); limit.empty()) {
    platform::xpc::ServiceProcess::begin(environment("XPC_TEST_NAME"));
  } else {
    platform::xpc::ServiceProcess::begin(environment("XPC_TEST_NAME"), std::chrono::milliseconds(std::stoi(limit)));
  }
  record("started " + std::to_string(getpid()));
  if (environment("XPC_TEST_OBJECTS").empty()) platform::xpc::ServiceProcess::serve(acceptPeer);
  const auto delegate = std::make_shared<Delegate>();
  platform::XPCListener::serviceListener().setDelegate(delegate);
  platform::XPCListener::serviceListener().resume();
  return 0;
}
