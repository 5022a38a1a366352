#include "platform/xpc/service/ServiceStatus.h"

#include <poll.h>

#include <array>
#include <cerrno>
#include <utility>
#include <variant>

#include "platform/foundation/log/Log.h"
#include "platform/xpc/channel/Frame.h"
#include "platform/xpc/channel/SocketIO.h"
#include "platform/xpc/launch/ServiceLauncher.h"
#include "platform/xpc/value/ObjectConversion.h"

namespace platform::xpc {

namespace {

using Clock = std::chrono::steady_clock;
using Answer = std::variant<Object, WireError>;

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

std::variant<std::monostate, WireError> sendRequest(int socket, Clock::time_point deadline) {
  OutgoingFrame request = OutgoingFrame::make(FrameKind::StatusRequest);
  const std::array<const OutgoingFrame*, 1> pieces{&request};
  while (request.written < request.bytes.size()) {
    const auto result = transmit(socket, pieces, request.written == 0);
    if (const auto* error = std::get_if<WireError>(&result)) return *error;
    if (const auto* size = std::get_if<std::size_t>(&result)) {
      request.written += *size;
    } else if (!waitFor(socket, POLLOUT, deadline)) {
      return WireError{"it does not read"};
    }
  }
  return std::monostate{};
}

Answer readReply(int socket, Clock::time_point deadline) {
  FrameReader reader;
  std::vector<std::byte> buffer(std::size_t{64} << 10U);
  for (;;) {
    auto next = reader.next();
    if (const auto* error = std::get_if<WireError>(&next)) return *error;
    if (auto* frame = std::get_if<Frame>(&next)) {
      if (frame->kind != FrameKind::StatusReply) continue;
      const auto value = decode(frame->payload, std::move(frame->descriptors));
      if (const auto* error = std::get_if<WireError>(&value)) return *error;
      return objectWithValue(std::get<Value>(value));
    }
    if (!waitFor(socket, POLLIN, deadline)) return WireError{"it does not answer"};
    auto result = receive(socket, buffer);
    if (const auto* error = std::get_if<WireError>(&result)) return *error;
    auto* received = std::get_if<Received>(&result);
    if (received == nullptr) continue;
    if (received->bytes == 0) return WireError{"it closed the connection"};
    reader.feed(std::span<const std::byte>(buffer).first(received->bytes), std::move(received->descriptors));
  }
}

Answer ask(int socket, Clock::time_point deadline) {
  const auto sent = sendRequest(socket, deadline);
  if (const auto* error = std::get_if<WireError>(&sent)) return *error;
  return readReply(socket, deadline);
}

}  // namespace

std::optional<Object> serviceStatus(const std::string& name, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  if (!runningService(name).isAlive) return std::nullopt;
  const auto socket = connectToRunningService(name);
  Answer answer = WireError{};
  if (const auto* error = std::get_if<LaunchError>(&socket)) {
    answer = WireError{error->reason};
  } else {
    answer = ask(std::get<FileHandle>(socket).fileDescriptor(), deadline);
  }
  if (auto* status = std::get_if<Object>(&answer)) return std::move(*status);
  NSLog("xpc: the service " + name + " did not tell its status: " + std::get<WireError>(answer).reason);
  return std::nullopt;
}

}  // namespace platform::xpc
