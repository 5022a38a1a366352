// A client that calls the server all day long holds no more in the evening than in the morning.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Services/RestInterface.h"
#include "tests/services/ProductServer.h"
#include "tests/support/Process.h"

namespace kestrine::test {
namespace {

// A process of its own, so that only the client's share is counted. Says "serving" when it listens.
constexpr const char* kServer = R"(
import http.server, sys
class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    def do_POST(self):
        self.rfile.read(int(self.headers["Content-Length"]))
        self.send_response(200)
        self.send_header("Content-Length", "21")
        self.end_headers()
        self.wfile.write(b'{"ReturnStatus": "1"}')
    def log_message(self, *arguments):
        pass
class Server(http.server.ThreadingHTTPServer):
    request_queue_size = 128
    daemon_threads = True
server = Server(("127.0.0.1", int(sys.argv[1])), Handler)
print("serving", flush=True)
server.serve_forever()
)";

struct Holdings {
  std::size_t descriptors = entries("/proc/self/fd");
  std::size_t threads = entries("/proc/self/task");
  std::size_t residentPages = pages();

 private:
  static std::size_t entries(const char* folder) {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
  }
  static std::size_t pages() {
    std::ifstream file("/proc/self/statm");
    std::size_t all = 0;
    std::size_t resident = 0;
    file >> all >> resident;
    return resident;
  }
};

/// Calls LogError so many times, some at once, and returns how many were answered with a record.
int call(int count) {
  constexpr int kAtOnce = 20;
  struct Counts {
    int ended = 0;
    int good = 0;
  };
  const auto counts = std::make_shared<Counts>();
  LogErrorQuery query;
  query.errorClass = "Many";
  const LogOfCall log;
  int started = 0;
  const auto callMore = [&] {
    for (; started < count && started - counts->ended < kAtOnce; ++started) {
      RestInterface::asyncLogError_withCompiletionHandler(
          query, [counts](const RestAnswer<LogErrorResponseData>& answer, RestTaskStatus status) {
            ++counts->ended;
            if (status == RestStatusSuccess && answer.result && answer.result->returnStatus == platform::Object("1")) ++counts->good;
          });
    }
    return counts->ended == count;
  };
  EXPECT_TRUE(served(callMore, std::chrono::seconds(200))) << counts->ended;
  return counts->good;
}

TEST(RestCallsMany, InOneProcessGrowNothing) {
  inRestNetwork([] {
    Process server({"/usr/bin/env", "python3", "-c", kServer, std::to_string(RestHost().port)});
    ASSERT_TRUE(server.waitForOutput("serving")) << server.errorOutput();
    const int warm = longOrShort(1000, 200);
    ASSERT_EQ(call(warm), warm);
    const Holdings before;
    const int count = longOrShort(10000, 400);
    EXPECT_EQ(call(count), count);
    // Either side gives up a connection a little after its last byte, and a thread of the pool more or less may be parked.
    EXPECT_TRUE(eventually([&] { return Holdings().descriptors <= before.descriptors + 16; })) << Holdings().descriptors;
    EXPECT_TRUE(eventually([&] { return Holdings().threads <= before.threads + 4; })) << Holdings().threads;
#ifndef KESTRINE_SANITIZED
    // A sanitizer keeps what was freed. A kilobyte a call would show as ten megabytes.
    constexpr std::size_t kPages = 1024;
    EXPECT_LE(Holdings().residentPages, before.residentPages + kPages);
#endif
  });
}

}  // namespace
}  // namespace kestrine::test
