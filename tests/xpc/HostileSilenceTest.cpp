// A client that begins nothing, or does not end what it began, is closed after a while.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "platform/foundation/base/Mutex.h"
#include "platform/xpc/connection/Listener.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/xpc/RawSocket.h"
#include "tests/xpc/ServiceEnvironment.h"

namespace {

using namespace kestrine::test;
using platform::FileHandle;
using platform::xpc::Connection;
using platform::xpc::Event;
using platform::xpc::Listener;
using platform::xpc::ListenerLimits;
using platform::xpc::Value;

/// The commands that came from any client.
class Commands {
 public:
  Listener::ConnectionFunction connectionFunction() {
    return [commands = commands_](const std::shared_ptr<Connection>& connection) {
      connection->setEventHandler([commands](const Event& event) {
        if (std::holds_alternative<Value>(event)) commands->with([&](Texts& known) { known.push_back(commandOf(event)); });
      });
      connection->resume();
    };
  }
  /// Waits for it.
  [[nodiscard]] bool include(const std::string& command) const {
    return eventually([&] { return commands_->with([&](const Texts& known) { return std::ranges::count(known, command) == 1; }); });
  }

 private:
  using Texts = std::vector<std::string>;
  std::shared_ptr<platform::Guarded<Texts>> commands_ = std::make_shared<platform::Guarded<Texts>>();
};

TEST(HostileSilence, IsEndedByHalfAMinute) { EXPECT_EQ(ListenerLimits().stallSeconds, 30); }

TEST(HostileSilence, IsEndedAndAnIdlePeerIsNot) {
  const TemporaryDirectory folder;
  const std::string path = folder / "socket";
  Commands commands;
  const auto listener = Listener::create(listenAt(path), commands.connectionFunction(), {.stallSeconds = 0.2});
  // All that they send at first is there before anybody looks, so that none of them is late on a busy machine.
  const FileHandle honest = connectTo(path);
  ASSERT_TRUE(sendBytes(honest, commandFrame("first")));
  const FileHandle silent = connectTo(path);
  const FileHandle half = connectTo(path);
  ASSERT_TRUE(sendBytes(half, frame(kHello) + commandFrame("never finished").substr(0, 20)));
  listener->resume();
  EXPECT_TRUE(commands.include("first"));
  EXPECT_TRUE(isClosed(silent));
  EXPECT_TRUE(isClosed(half));
  // For as long again the honest one says nothing either.
  EXPECT_TRUE(isClosed(connectTo(path)));
  ASSERT_TRUE(sendBytes(honest, commandFrame("idle but welcome")));
  EXPECT_TRUE(commands.include("idle but welcome"));
}

}  // namespace
