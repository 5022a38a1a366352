#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <semaphore>

#include "bench/ExchangeMessage.h"
#include "bench/Measure.h"
#include "platform/xpc/connection/Connection.h"
#include "platform/xpc/connection/Listener.h"

namespace kestrine::bench {

namespace {

using namespace platform::xpc;
using platform::FileHandle;

constexpr const char* kName = "Bench.Exchange";

FileHandle listenIn(const std::string& folder) {
  mkdir((folder + "/xpc").c_str(), 0700);
  const std::string path = folder + "/xpc/" + kName;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) fail("the folder's path is too long");
  std::memcpy(address.sun_path, path.c_str(), path.size());
  FileHandle listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (bind(listener.fileDescriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("bind");
  if (listen(listener.fileDescriptor(), 8) != 0) fail("listen");
  return listener;
}

[[noreturn]] void serve(FileHandle socket) {
  const auto listener = Listener::create(std::move(socket), [](const std::shared_ptr<Connection>& peer) {
    peer->setEventHandler([weak = std::weak_ptr(peer), taken = std::make_shared<long>(0)](const Event& event) {
      const auto* message = std::get_if<Value>(&event);
      if (message == nullptr) return;
      ++*taken;
      if (const auto connection = weak.lock(); connection && message->find("wantsAnswer")->boolValue())
        connection->send(exchangeMessage(*taken, false));
    });
    peer->resume();
  });
  listener->resume();
  for (;;) pause();
}

class ChannelExchange : public Exchange {
 public:
  explicit ChannelExchange(const std::string& folder) {
    setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
    FileHandle listener = listenIn(folder);
    if (becomesSecondProcess()) serve(std::move(listener));
  }

  void send(long number) override { connection().send(exchangeMessage(number, false)); }
  long ask(long number) override {
    left_ = 0;
    connection().send(exchangeMessage(number, true));
    answered_.acquire();
    return answer_;
  }
  // The handler that takes an answer asks again, as an application's would.
  long askMany(long count) override {
    left_ = count - 1;
    connection().send(exchangeMessage(0, true));
    answered_.acquire();
    return answer_;
  }

 private:
  Connection& connection() {
    if (connection_) return *connection_;
    connection_ = Connection::create(kName);
    connection_->setEventHandler([this](const Event& event) {
      const auto* message = std::get_if<Value>(&event);
      if (message == nullptr) fail(std::get<ConnectionError>(event).description.c_str());
      answer_ = message->find("number")->int64Value();
      if (left_-- > 0) return connection_->send(exchangeMessage(answer_, true));
      answered_.release();
    });
    connection_->resume();
    return *connection_;
  }

  std::shared_ptr<Connection> connection_;
  std::atomic<long> answer_{0};
  std::atomic<long> left_{0};
  std::binary_semaphore answered_{0};
};

}  // namespace

std::unique_ptr<Exchange> makeChannelExchange(const std::string& folder) { return std::make_unique<ChannelExchange>(folder); }

}  // namespace kestrine::bench
