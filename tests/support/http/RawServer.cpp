#include "tests/support/http/RawServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace kestrine::test {

namespace {

using platform::FileHandle;

struct Bound {
  FileHandle socket;
  int port = 0;
};

[[noreturn]] void fail(const char* what) { throw std::runtime_error(std::string(what) + ": " + std::strerror(errno)); }

Bound bindToLoopback() {
  Bound bound{FileHandle(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), 0};
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(bound.socket.fileDescriptor(), generic, size) != 0) fail("bind");
  if (getsockname(bound.socket.fileDescriptor(), generic, &size) != 0) fail("getsockname");
  bound.port = ntohs(address.sin_port);
  return bound;
}

std::string loopbackURL(int port, const std::string& path) { return "http://127.0.0.1:" + std::to_string(port) + path; }

std::size_t contentLength(const std::string& head) {
  const auto found = head.find("\r\nContent-Length: ");
  return found == std::string::npos ? 0 : std::stoul(head.substr(found + 18));
}

}  // namespace

RawConnection::RawConnection(FileHandle socket) : socket_(std::move(socket)) {}

bool RawConnection::receiveMore() {
  std::array<char, 65536> room;
  const auto count = recv(socket_.fileDescriptor(), room.data(), room.size(), 0);
  if (count <= 0) return false;
  gathered_.append(room.data(), static_cast<std::size_t>(count));
  return true;
}

std::string RawConnection::readHead() {
  std::size_t end = std::string::npos;
  while ((end = gathered_.find("\r\n\r\n")) == std::string::npos) {
    if (!receiveMore()) return std::exchange(gathered_, {});
  }
  auto head = gathered_.substr(0, end + 4);
  gathered_.erase(0, end + 4);
  return head;
}

std::string RawConnection::readRequest() {
  const auto head = readHead();
  const auto length = contentLength(head);
  while (gathered_.size() < length && receiveMore()) continue;
  const auto body = gathered_.substr(0, length);
  gathered_.erase(0, length);
  return head + body;
}

std::uint64_t RawConnection::readBody(std::uint64_t length) {
  std::uint64_t got = 0;
  while (got < length && (!gathered_.empty() || receiveMore())) got += std::exchange(gathered_, {}).size();
  return got;
}

bool RawConnection::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto count = ::send(socket_.fileDescriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

void RawConnection::waitForClose() {
  while (receiveMore()) gathered_.clear();
}

void RawConnection::reset() {
  const linger now{.l_onoff = 1, .l_linger = 0};
  setsockopt(socket_.fileDescriptor(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
  // Connecting a socket to nothing ends its connection at once; the descriptor stays, since the server's destructor may look at it.
  const sockaddr nothing{.sa_family = AF_UNSPEC, .sa_data = {}};
  EXPECT_EQ(connect(socket_.fileDescriptor(), &nothing, sizeof nothing), 0);
}

void RawConnection::endSending() { shutdown(socket_.fileDescriptor(), SHUT_WR); }

RawServer::RawServer(Script script) : script_(std::move(script)) {
  auto bound = bindToLoopback();
  listener_ = std::move(bound.socket);
  port_ = bound.port;
  if (listen(listener_.fileDescriptor(), 64) != 0) fail("listen");
  acceptor_ = std::thread([this] { acceptConnections(); });
}

RawServer::~RawServer() {
  ending_ = true;
  shutdown(listener_.fileDescriptor(), SHUT_RDWR);
  acceptor_.join();
  {
    const std::lock_guard lock(mutex_);
    for (auto& served : served_) shutdown(served.connection.descriptor(), SHUT_RDWR);
  }
  for (auto& served : served_) served.thread.join();
}

std::string RawServer::url(const std::string& path) const { return loopbackURL(port_, path); }

// A script that has returned ends its connection by a shutdown; the descriptor is closed when the next connection comes, or with the
// server, so that no other thread's shutdown can meet a number that was used again.
void RawServer::acceptConnections() {
  while (!ending_) {
    FileHandle socket(accept4(listener_.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket.isOpen()) continue;
    const std::lock_guard lock(mutex_);
    forgetEnded();
    auto& served = served_.emplace_back(std::move(socket));
    ++accepted_;
    served.thread = std::thread([this, &served] {
      script_(served.connection);
      shutdown(served.connection.descriptor(), SHUT_RDWR);
      served.ended = true;
    });
  }
}

void RawServer::forgetEnded() {
  served_.remove_if([](Served& served) {
    if (!served.ended) return false;
    served.thread.join();
    return true;
  });
}

RefusingPort::RefusingPort() {
  auto bound = bindToLoopback();
  socket_ = std::move(bound.socket);
  port_ = bound.port;
}

std::string RefusingPort::url(const std::string& path) const { return loopbackURL(port_, path); }

}  // namespace kestrine::test
