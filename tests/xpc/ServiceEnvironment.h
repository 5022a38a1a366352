#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/base/Mutex.h"
#include "platform/xpc/connection/Connection.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {

/// A name for the test service.
inline constexpr const char* kTestService = "Test.Service";

/// Folders of its own for sockets, state and service descriptions, named by the environment while it lives; ends and reaps every service
/// that was started in them. Orphans of this process come to it (PR_SET_CHILD_SUBREAPER, prctl(2)), so none can be missed.
class ServiceEnvironment {
 public:
  ServiceEnvironment();
  ~ServiceEnvironment();
  ServiceEnvironment(const ServiceEnvironment&) = delete;
  ServiceEnvironment& operator=(const ServiceEnvironment&) = delete;

  /// Installs the test service under `name`, or a description that names another program.
  void install(const std::string& name, const std::string& program = XPC_TEST_SERVICE);
  /// Sets a variable until the end.
  void set(const std::string& variable, const std::string& value);

  [[nodiscard]] std::string socketFolder() const { return folder_ / "run/xpc"; }
  [[nodiscard]] std::string socketPath(const std::string& name) const { return socketFolder() + "/" + name; }
  [[nodiscard]] std::string logPath(const std::string& name) const { return folder_ / ("state/xpc/" + name + ".log"); }
  [[nodiscard]] std::string operator/(const std::string& name) const { return folder_ / name; }

  /// What the services recorded, line by line.
  [[nodiscard]] std::vector<std::string> record() const;
  [[nodiscard]] int countInRecord(const std::string& line) const;
  /// Waits until the record holds `line` so many times.
  [[nodiscard]] bool waitForRecord(const std::string& line, int times = 1) const;
  /// The process numbers of all services that ever started, in order.
  [[nodiscard]] std::vector<int> startedServices() const;

 private:
  TemporaryDirectory folder_;
  std::map<std::string, std::optional<std::string>> former_;
};

/// Gathers a connection's events. Threads: any.
class EventLog {
 public:
  EventLog() : state_(std::make_shared<State>()) {}
  [[nodiscard]] platform::xpc::Connection::EventHandler handler() const;
  /// The event with this index, waiting for it; nullopt when it does not come.
  [[nodiscard]] std::optional<platform::xpc::Event> at(std::size_t index) const;
  [[nodiscard]] std::size_t count() const;

 private:
  struct State {
    platform::Mutex mutex;
    platform::Condition changed;
    std::vector<platform::xpc::Event> events GUARDED_BY(mutex);
  };
  std::shared_ptr<State> state_;
};

/// The kind of error that the event is; nullopt for a message or nothing.
std::optional<platform::xpc::ConnectionError::Kind> errorKind(const std::optional<platform::xpc::Event>& event);
std::string errorText(const std::optional<platform::xpc::Event>& event);
/// The message; throws when it is none.
platform::xpc::Value messageOf(const std::optional<platform::xpc::Event>& event);

/// What the message holds under `key`; throws when that is another kind or nothing.
std::string textUnder(const std::optional<platform::xpc::Event>& event, const std::string& key);
std::int64_t numberUnder(const std::optional<platform::xpc::Event>& event, const std::string& key);
inline std::string commandOf(const std::optional<platform::xpc::Event>& event) { return textUnder(event, "command"); }

/// {"command": command}
platform::xpc::Value command(const std::string& command);

/// A resumed connection with its events.
struct Client {
  explicit Client(const std::string& service);
  /// Sends the command and waits for the next event.
  std::optional<platform::xpc::Event> ask(const platform::xpc::Value& message);
  std::optional<platform::xpc::Event> ask(const std::string& text) { return ask(command(text)); }

  EventLog events;
  std::shared_ptr<platform::xpc::Connection> connection;
  std::size_t seen = 0;
};

inline bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
/// The audit session of this process, as the kernel writes it.
std::uint32_t ownAuditSession();
/// Open descriptors of this process.
int countOwnDescriptors();
bool processExists(int pid);

}  // namespace kestrine::test
