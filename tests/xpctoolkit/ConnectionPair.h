#pragma once

#include <sys/socket.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/xpc/ServiceEnvironment.h"
#include "xpc/XPCConnection.h"

namespace kestrine::test {

/// Gathers what a connection's handlers are called with.
class HandlerLog {
 public:
  struct Message {
    platform::Object object;
    std::weak_ptr<XPCConnection> connection;
    bool onItsQueue = false;
  };
  struct Error {
    platform::xpc::ConnectionError object;
    std::string description;
    std::weak_ptr<XPCConnection> connection;
  };

  void installIn(XPCConnection& connection) const {
    connection.setEventHandler(eventHandler());
    connection.setErrorHandler(errorHandler());
  }
  [[nodiscard]] XPCConnection::EventHandler eventHandler() const {
    return [state = state_](const platform::Object& message, const std::shared_ptr<XPCConnection>& connection) {
      const auto queue = connection->dispatchQueue();
      const std::lock_guard lock(state->mutex);
      state->messages.push_back({message, connection, queue && queue->isCurrent()});
      state->changed.notify_all();
    };
  }
  [[nodiscard]] XPCConnection::ErrorHandler errorHandler() const {
    return [state = state_](const platform::xpc::ConnectionError& object, const std::string& description,
                            const std::shared_ptr<XPCConnection>& connection) {
      const std::lock_guard lock(state->mutex);
      state->errors.push_back({object, description, connection});
      state->changed.notify_all();
    };
  }

  [[nodiscard]] std::size_t messageCount() const { return countOf(&State::messages); }
  [[nodiscard]] std::size_t errorCount() const { return countOf(&State::errors); }
  /// The one with this index, waiting for it.
  [[nodiscard]] Message message(std::size_t index) const { return at(&State::messages, index, "no such message came"); }
  [[nodiscard]] Error error(std::size_t index) const { return at(&State::errors, index, "no such error came"); }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Message> messages;
    std::vector<Error> errors;
  };
  template <class T>
  [[nodiscard]] std::size_t countOf(std::vector<T> State::*list) const {
    const std::lock_guard lock(state_->mutex);
    return ((*state_).*list).size();
  }
  template <class T>
  [[nodiscard]] T at(std::vector<T> State::*list, std::size_t index, const char* complaint) const {
    std::unique_lock lock(state_->mutex);
    const auto& gathered = (*state_).*list;
    if (!state_->changed.wait_for(lock, kPatience, [&] { return gathered.size() > index; })) {
      throw std::runtime_error(complaint);
    }
    return gathered[index];
  }

  std::shared_ptr<State> state_ = std::make_shared<State>();
};

/// The two ends of a connection in this process: a plain one of the channel's, and one wrapped as an XPCConnection.
struct ConnectionPair {
  explicit ConnectionPair(bool withHandlers = true) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) throw std::runtime_error("no socket pair");
    plain = platform::xpc::Connection::createWithSocket(platform::FileHandle(ends[0]));
    plain->setEventHandler(events.handler());
    plain->resume();
    wrapped = XPCConnection::initWithConnection(platform::xpc::Connection::createWithSocket(platform::FileHandle(ends[1])));
    if (withHandlers) log.installIn(*wrapped);
  }
  ~ConnectionPair() { plain->cancel(); }
  ConnectionPair(const ConnectionPair&) = delete;
  ConnectionPair& operator=(const ConnectionPair&) = delete;

  /// Returns when everything that was given to the queue before has been done.
  void settle() const {
    wrapped->dispatchQueue()->sync([] {});
  }

  EventLog events;
  std::shared_ptr<platform::xpc::Connection> plain;
  HandlerLog log;
  std::shared_ptr<XPCConnection> wrapped;
};

}  // namespace kestrine::test
