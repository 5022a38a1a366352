#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "bench/Exchange.h"
#include "bench/Measure.h"

namespace kestrine::bench {

namespace {

constexpr const char* kPath = "/bench";
constexpr const char* kBusInterface = "bench.Exchange";

void check(int result, const char* what) {
  if (result >= 0) return;
  errno = -result;
  fail(what);
}

void append(sd_bus_message* message, long number, bool wantsAnswer) {
  check(sd_bus_message_append(message, "a{sv}", 4, "interface", "s", kInterface, "selector", "s", kSelector, "number", "x",
                              static_cast<std::int64_t>(number), "wantsAnswer", "b", static_cast<int>(wantsAnswer)),
        "append");
}

struct Content {
  std::int64_t number = 0;
  int wantsAnswer = 0;
};

/// Reads every entry, as the channel's decoder does.
Content content(sd_bus_message* message) {
  const char *keys[4], *interface, *selector;
  Content read;
  check(sd_bus_message_read(message, "a{sv}", 4, &keys[0], "s", &interface, &keys[1], "s", &selector, &keys[2], "x", &read.number, &keys[3],
                            "b", &read.wantsAnswer),
        "read");
  return read;
}

int take(sd_bus_message* message, void* taken, sd_bus_error* /*error*/) {
  if (sd_bus_message_is_method_call(message, kBusInterface, "Tell") <= 0) return 0;
  const long number = ++*static_cast<long*>(taken);
  if (content(message).wantsAnswer == 0) return 1;
  sd_bus_message* answer = nullptr;
  check(sd_bus_message_new_method_return(message, &answer), "answer");
  append(answer, number, false);
  check(sd_bus_send(nullptr, answer, nullptr), "send the answer");
  sd_bus_message_unref(answer);
  return 1;
}

sd_bus* start(int socket, bool server) {
  sd_bus* bus = nullptr;
  check(sd_bus_new(&bus), "sd_bus_new");
  check(sd_bus_set_fd(bus, socket, socket), "sd_bus_set_fd");
  if (server) {
    sd_id128_t identifier;
    check(sd_id128_randomize(&identifier), "an identifier");
    check(sd_bus_set_server(bus, 1, identifier), "sd_bus_set_server");
  }
  check(sd_bus_start(bus), "sd_bus_start");
  return bus;
}

[[noreturn]] void serve(int socket) {
  sd_bus* bus = start(socket, true);
  long taken = 0;
  check(sd_bus_add_filter(bus, nullptr, take, &taken), "sd_bus_add_filter");
  for (;;) {
    const int result = sd_bus_process(bus, nullptr);
    if (result < 0) _exit(0);
    if (result == 0 && sd_bus_wait(bus, UINT64_MAX) < 0) _exit(0);
  }
}

class BusExchange : public Exchange {
 public:
  BusExchange() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) fail("socketpair");
    if (becomesSecondProcess()) {
      close(ends[0]);
      serve(ends[1]);
    }
    close(ends[1]);
    socket_ = ends[0];
  }
  ~BusExchange() override { sd_bus_close_unref(bus_); }

  void send(long number) override {
    sd_bus_message* message = make(number, false);
    check(sd_bus_message_set_expect_reply(message, 0), "no reply");
    check(sd_bus_send(bus_, message, nullptr), "send");
    sd_bus_message_unref(message);
    // Waits while the socket is full, as a blocking write does; returns at once otherwise.
    check(sd_bus_flush(bus_), "flush");
  }
  long ask(long number) override {
    sd_bus_message* message = make(number, true);
    sd_bus_message* answer = nullptr;
    check(sd_bus_call(bus_, message, 0, nullptr, &answer), "call");
    sd_bus_message_unref(message);
    const long taken = static_cast<long>(content(answer).number);
    sd_bus_message_unref(answer);
    return taken;
  }

 private:
  sd_bus_message* make(long number, bool wantsAnswer) {
    if (bus_ == nullptr) bus_ = start(socket_, false);
    sd_bus_message* message = nullptr;
    check(sd_bus_message_new_method_call(bus_, &message, nullptr, kPath, kBusInterface, "Tell"), "new message");
    append(message, number, wantsAnswer);
    return message;
  }

  int socket_ = -1;
  sd_bus* bus_ = nullptr;
};

}  // namespace

std::unique_ptr<Exchange> makeBusExchange() { return std::make_unique<BusExchange>(); }

}  // namespace kestrine::bench
