#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "bench/ExchangeMessage.h"
#include "bench/Measure.h"
#include "platform/xpc/channel/Frame.h"
#include "platform/xpc/channel/OutgoingFrame.h"

namespace kestrine::bench {

namespace {

using namespace platform::xpc;
using platform::FileHandle;

void writeMessage(const FileHandle& socket, const Value& message) {
  auto encoded = encode(message);
  const auto frame = OutgoingFrame::make(FrameKind::Message, *std::move(encoded));
  for (std::size_t written = 0; written < frame.bytes.size();) {
    const ssize_t size = ::send(socket.fileDescriptor(), frame.bytes.data() + written, frame.bytes.size() - written, MSG_NOSIGNAL);
    if (size < 0) fail("send");
    written += static_cast<std::size_t>(size);
  }
}

/// Blocks until there is one; null at the end of the stream.
Value readMessage(const FileHandle& socket, FrameReader& reader) {
  static std::array<std::byte, 65536> buffer;
  for (;;) {
    auto next = reader.next();
    if (next.value()) return *decode((*next)->payload, {});
    const ssize_t size = recv(socket.fileDescriptor(), buffer.data(), buffer.size(), 0);
    if (size <= 0) return {};
    reader.feed(std::span(buffer).first(static_cast<std::size_t>(size)), {});
  }
}

[[noreturn]] void serve(const FileHandle& socket) {
  FrameReader reader;
  for (long taken = 1;; ++taken) {
    const Value message = readMessage(socket, reader);
    if (message.isNull()) _exit(0);
    if (message.find("wantsAnswer")->boolValue()) writeMessage(socket, exchangeMessage(taken, false));
  }
}

class SocketExchange : public Exchange {
 public:
  SocketExchange() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) fail("socketpair");
    FileHandle other(ends[1]);
    socket_ = FileHandle(ends[0]);
    if (!becomesSecondProcess()) return;
    socket_.closeFile();
    serve(other);
  }

  void send(long number) override { writeMessage(socket_, exchangeMessage(number, false)); }
  long ask(long number) override {
    writeMessage(socket_, exchangeMessage(number, true));
    return readMessage(socket_, reader_).find("number")->int64Value();
  }

 private:
  FileHandle socket_;
  FrameReader reader_;
};

}  // namespace

std::unique_ptr<Exchange> makeSocketExchange() { return std::make_unique<SocketExchange>(); }

}  // namespace kestrine::bench
