// A service for the tests, on the toolkit's level. XPC_TEST_NAME is its name, XPC_TEST_RECORD a file to which it appends a line for
// everything that happens to it. {"command": ...} is answered on the same connection.

#include <dirent.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/value/Dictionary.h"
#include "platform/xpc/service/ServiceProcess.h"
#include "platform/xpc/service/XPCMain.h"
#include "xpc/XPCConnection.h"

namespace {

using kestrine::XPCConnection;
using platform::Dictionary;
using platform::Object;
using platform::xpc::ConnectionError;
using ConnectionPointer = std::shared_ptr<XPCConnection>;

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

int countDescriptors() {
  int count = -1;  // the folder's own
  DIR* folder = opendir("/proc/self/fd");
  for (const dirent* entry = readdir(folder); entry != nullptr; entry = readdir(folder)) count += entry->d_name[0] != '.' ? 1 : 0;
  closedir(folder);
  return count;
}

// Not on the connection's queue, whose end the readers would wait for.
void tellWhoThePeerIs(const ConnectionPointer& connection) {
  platform::runOnPoolThread([connection] {
    const auto name = connection->connectionName();
    connection->sendMessage(Dictionary{{"name", name ? Object(*name) : Object("none")},
                                       {"euid", connection->connectionEUID()},
                                       {"egid", connection->connectionEGID()},
                                       {"pid", connection->connectionProcessID()},
                                       {"asid", connection->connectionAuditSessionID()}});
  });
}

void writeInto(const Object& handle) {
  static_cast<void>(!write(handle.fileHandleValue()->fileDescriptor(), "written by the service", 22));
}

void handleMessage(const Object& message, const ConnectionPointer& connection) {
  const std::string command = message.objectForKey("command").stringValue();
  record("command " + command);
  if (command == "pid") connection->sendMessage(Dictionary{{"pid", Object::numberWithLongLong(getpid())}});
  if (command == "echo") connection->sendMessage(message);
  if (command == "peer") tellWhoThePeerIs(connection);
  if (command == "die") raise(SIGKILL);
  if (command == "write") writeInto(message.objectForKey("handle"));
  if (command == "descriptors") connection->sendMessage(Dictionary{{"count", Object::numberWithLongLong(countDescriptors())}});
}

void handleError(const ConnectionError& error, const std::string& description, const ConnectionPointer& /*connection*/) {
  const char* kind = error.kind == ConnectionError::Kind::Invalid               ? "invalid"
                     : error.kind == ConnectionError::Kind::TerminationImminent ? "termination imminent"
                                                                                : "interrupted";
  record(kind);
  record("description " + description);
}

/// Kept, as the service's own runner does.
void acceptPeer(const std::shared_ptr<platform::xpc::Connection>& peer) {
  static auto& kept = *new std::vector<ConnectionPointer>;
  const auto connection = XPCConnection::initWithConnection(peer);
  connection->setEventHandler(handleMessage);
  connection->setErrorHandler(handleError);
  kept.push_back(connection);
  record("peer");
}

}  // namespace

int main() {
  platform::xpc::ServiceProcess::begin(environment("XPC_TEST_NAME"));
  record("started " + std::to_string(getpid()));
  platform::xpc_main(acceptPeer);
}
