#pragma once

#include <functional>
#include <string>
#include <variant>

#include "platform/xpc/value/Value.h"

namespace platform::xpc {

/// What can happen to a connection.
struct ConnectionError {
  enum class Kind {
    /// The service at the other end ended. The connection is still good: the next message starts the service again. Client's end only.
    Interrupted,
    /// The connection is over and this is its last event: the service is unknown or cannot be started, the client went away, or it was
    /// cancelled.
    Invalid,
    /// This process was told to end and does so as soon as the handlers have returned (within a few seconds). Service's end only.
    TerminationImminent,
  };
  Kind kind = Kind::Invalid;
  /// For people: what happened and, where something can be done about it, what.
  std::string description;
  friend bool operator==(const ConnectionError&, const ConnectionError&) = default;
};

/// What an event handler receives: a message (always a dictionary) or an error.
using Event = std::variant<Value, ConnectionError>;

using EventHandler = std::function<void(const Event&)>;

}  // namespace platform::xpc
