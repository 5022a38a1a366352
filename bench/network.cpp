// bench_network upload [MIB]      anonymous memory while a file of that size (2048 unless said) is sent, above idle
// bench_network download [MIB]    the same for a reply of that size, to a file
// bench_network data [MIB]        the same for a reply that a data task gathers
// The file is sparse and the server a second process on 127.0.0.1. Prints one line of JSON; exit code 1 when it took more than the 64 MiB
// that are allowed, or failed.
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>

#include "bench/Measure.h"
#include "bench/TemporaryFolder.h"
#include "platform/network/session/URLSession.h"

namespace {

using namespace kestrine::bench;
using namespace platform;

constexpr std::uint64_t kMiB = 1U << 20U;
constexpr std::uint64_t kAllowed = 64 * kMiB;

/// Takes any body and answers a GET with `size` zero bytes. A process of its own, so that its memory is not counted.
class Server {
 public:
  explicit Server(std::uint64_t size) : size_(size), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener_, generic, length) != 0 || listen(listener_, 4) != 0 || getsockname(listener_, generic, &length) != 0) fail("listen");
    port_ = ntohs(address.sin_port);
    child_ = fork();
    if (child_ < 0) fail("fork");
    if (child_ > 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) serve(accept(listener_, nullptr, nullptr));
  }
  ~Server() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
    close(listener_);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  [[nodiscard]] URL url() const { return *URL::URLWithString("http://127.0.0.1:" + std::to_string(port_) + "/"); }

 private:
  void serve(int connection) const {
    static std::array<char, kMiB> room;
    std::string head;
    std::size_t end = std::string::npos;
    while ((end = head.find("\r\n\r\n")) == std::string::npos) {
      const auto got = read(connection, room.data(), room.size());
      if (got <= 0) break;
      head.append(room.data(), static_cast<std::size_t>(got));
    }
    if (head.starts_with("GET")) {
      answer(connection, size_);
    } else if (const auto field = head.find("Content-Length: "); field != std::string::npos) {
      std::uint64_t left = std::stoull(head.substr(field + 16)) - (head.size() - end - 4);
      for (ssize_t got = 1; left > 0 && got > 0; left -= static_cast<std::uint64_t>(got)) got = read(connection, room.data(), room.size());
      answer(connection, 0);
    }
    close(connection);
  }
  static void answer(int connection, std::uint64_t size) {
    const auto head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n";
    if (send(connection, head.data(), head.size(), MSG_NOSIGNAL) < 0) return;
    static const std::array<char, kMiB> zeros{};
    while (size > 0) {
      const auto sent = send(connection, zeros.data(), std::min<std::uint64_t>(zeros.size(), size), MSG_NOSIGNAL);
      if (sent <= 0) return;
      size -= static_cast<std::uint64_t>(sent);
    }
  }

  const std::uint64_t size_;
  const int listener_;
  int port_ = 0;
  pid_t child_ = -1;
};

/// Resident memory that is no file's (proc(5), RssAnon), in bytes.
std::uint64_t anonymousBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("RssAnon:")) return std::stoull(line.substr(8)) * 1024;
  }
  fail("RssAnon");
}

/// The most that was seen while it lives, looking every few milliseconds.
class Peak {
 public:
  Peak()
      : watcher_([this] {
          while (!over_) {
            most_ = std::max(most_.load(), anonymousBytes());
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
          }
        }) {}
  ~Peak() { end(); }
  Peak(const Peak&) = delete;
  Peak& operator=(const Peak&) = delete;
  std::uint64_t end() {
    over_ = true;
    if (watcher_.joinable()) watcher_.join();
    return most_;
  }

 private:
  std::atomic<bool> over_ = false;
  std::atomic<std::uint64_t> most_ = 0;
  std::thread watcher_;
};

/// Runs one task to its end; ends the process when it fails.
template <class Make>
void run(Make make) {
  std::promise<std::uint64_t> ended;
  make([&ended](std::uint64_t length, const std::optional<Error>& error) {
    if (error) {
      std::fprintf(stderr, "%s\n", error->description().c_str());
      std::exit(1);
    }
    ended.set_value(length);
  })->resume();
  ended.get_future().wait();
}

void transfer(const std::string& what, const Server& server, const std::string& file) {
  const auto session = URLSession::sessionWithConfiguration({}, nullptr, OperationQueue::create());
  URLRequest request(server.url());
  run([&](auto done) {
    const auto told = [done](const std::optional<Bytes>& data, const auto&, const auto& error) { done(data ? data->length() : 0, error); };
    if (what == "data") return session->dataTaskWithRequest(request, told);
    if (what == "download") {
      return session->downloadTaskWithRequest(request, [done](const std::optional<URL>& location, const auto&, const auto& error) {
        done(location ? std::filesystem::file_size(location->path()) : 0, error);
      });
    }
    request.setHTTPMethod("POST");
    return session->uploadTaskWithRequest_fromFile(request, URL::fileURLWithPath(file), told);
  });
}

int measure(const std::string& what, std::uint64_t size) {
  const TemporaryFolder folder;
  const auto file = folder.path() + "/sparse";
  std::ofstream(file).close();
  std::filesystem::resize_file(file, size);
  const Server server(size);
  {
    // What the first use of everything costs is not the size's doing.
    const auto small = folder.path() + "/small";
    std::ofstream(small) << "small";
    const auto session = URLSession::sessionWithConfiguration({}, nullptr, OperationQueue::create());
    URLRequest request(server.url());
    request.setHTTPMethod("POST");
    run([&](auto done) {
      return session->uploadTaskWithRequest_fromFile(request, URL::fileURLWithPath(small),
                                                     [done](const auto&, const auto&, const auto& error) { done(0, error); });
    });
  }
  const auto idle = anonymousBytes();
  const double begun = now();
  Peak peak;
  transfer(what, server, file);
  const auto most = peak.end();
  const auto above = most > idle ? most - idle : 0;
  std::printf("{\"seconds\": %.3f, \"bytes\": %llu, \"anonymousAboveIdle\": %llu}\n", now() - begun, static_cast<unsigned long long>(size),
              static_cast<unsigned long long>(above));
  return above <= kAllowed ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  if (what != "upload" && what != "download" && what != "data") {
    std::fprintf(stderr, "usage: bench_network upload|download|data [MIB]\n");
    return 64;
  }
  return measure(what, (argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 2048) * kMiB);
}
