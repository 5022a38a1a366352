// A client for the tests: asks the service of the given name for its process number and prints it, or what went wrong.

#include <cstdio>
#include <future>
#include <string>
#include <utility>

#include "platform/xpc/connection/Connection.h"

int main(int count, char** arguments) {
  using namespace platform::xpc;
  if (count != 2) return 2;
  std::promise<std::string> told;
  bool done = false;
  const auto connection = Connection::create(arguments[1]);
  connection->setEventHandler([&](const Event& event) {
    if (std::exchange(done, true)) return;
    const auto* error = std::get_if<ConnectionError>(&event);
    told.set_value(error != nullptr ? error->description : "pid " + std::to_string(std::get<Value>(event).find("pid")->int64Value()));
  });
  connection->resume();
  connection->send(Value::dictionary({{"command", Value::string("pid")}}));
  std::puts(told.get_future().get().c_str());
  return 0;
}
