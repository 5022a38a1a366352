#include "platform/xpc/service/ServiceStatusQuery.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>

#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/base/Result.h"
#include "platform/foundation/log/Log.h"
#include "platform/xpc/channel/Frame.h"
#include "platform/xpc/channel/OutgoingFrame.h"
#include "platform/xpc/channel/SocketIO.h"
#include "platform/xpc/launch/ServiceLauncher.h"
#include "platform/xpc/value/ObjectConversion.h"

namespace platform::xpc {

namespace {

using Clock = std::chrono::steady_clock;
using Answer = Result<Object, WireError>;

bool waitFor(int socket, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd wanted{.fd = socket, .events = events, .revents = 0};
    const int ready = left > 0 ? poll(&wanted, 1, static_cast<int>(std::min<std::int64_t>(left, 60'000))) : 0;
    if (ready > 0) return true;
    if (ready == 0 && Clock::now() >= deadline) return false;
    if (ready < 0 && errno != EINTR) return false;
  }
}

std::optional<WireError> sendRequest(int socket, Clock::time_point deadline) {
  OutgoingFrame request = OutgoingFrame::make(FrameKind::StatusRequest);
  const std::array<const OutgoingFrame*, 1> pieces{&request};
  while (request.written < request.bytes.size()) {
    const auto size = sendSome(socket, pieces, request.written == 0);
    if (!size) return size.error();
    if (*size) {
      request.written += **size;
    } else if (!waitFor(socket, POLLOUT, deadline)) {
      return WireError{"it does not read"};
    }
  }
  return std::nullopt;
}

Answer readReply(int socket, Clock::time_point deadline) {
  FrameReader reader;
  std::vector<std::byte> buffer(std::size_t{64} << 10U);
  for (;;) {
    auto next = reader.next();
    if (!next) return next.error();
    if (auto& frame = *next) {
      if (frame->kind != FrameKind::StatusReply) continue;
      const auto value = decode(frame->payload, std::move(frame->descriptors));
      if (!value) return value.error();
      return objectWithValue(*value);
    }
    if (!waitFor(socket, POLLIN, deadline)) return WireError{"it does not answer"};
    auto result = receiveSome(socket, buffer);
    if (!result) return result.error();
    if (!*result) continue;
    Received& received = **result;
    if (received.bytes == 0) return WireError{"it closed the connection"};
    if (received.credentials && !isBelieved(*received.credentials)) return WireError{"it is neither this user's nor root's"};
    reader.feed(std::span<const std::byte>(buffer).first(received.bytes), std::move(received.descriptors));
  }
}

Answer ask(int socket, Clock::time_point deadline) {
  if (auto error = sendRequest(socket, deadline)) return std::move(*error);
  return readReply(socket, deadline);
}

/// Whether this is how things are when nobody is the service, and so nothing to be told of.
bool meansNotRunning(LaunchError::Kind kind) {
  using Kind = LaunchError::Kind;
  return kind == Kind::NotRunning || kind == Kind::NoFolder || kind == Kind::IllegalName;
}

}  // namespace

std::optional<Object> queryServiceStatus(const std::string& name, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  const auto socket = connectToRunningService(name, timeout);
  if (!socket && meansNotRunning(socket.error().kind)) return std::nullopt;
  auto answer = socket ? ask(socket->fileDescriptor(), deadline) : Answer(WireError{socket.error().reason});
  // Who waits for a service asks again and again.
  static auto& said = *new Guarded<std::string>;
  const std::string why = answer ? std::string() : answer.error().reason;
  const bool isNew = said.with([&why](std::string& last) { return std::exchange(last, why) != why; });
  if (answer) return std::move(*answer);
  if (isNew) NSLog("xpc: the service " + name + " did not tell its status: " + why);
  return std::nullopt;
}

}  // namespace platform::xpc
