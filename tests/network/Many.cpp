#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>

#include "tests/network/Fetch.h"
#include "tests/support/Eventually.h"
#include "tests/support/http/RawServer.h"

namespace kestrine::test {
namespace {

std::size_t entries(const char* folder) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) static_cast<void>(entry), ++count;
  return count;
}
std::size_t descriptors() { return entries("/proc/self/fd"); }
std::size_t threads() { return entries("/proc/self/task"); }

// The server is this process too, so its share is taken out: a fixed number of connections and threads, made before the count.
class Many : public testing::Test {
 protected:
  static void serve(RawConnection& connection) {
    while (!connection.readRequest().empty()) connection.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
  }
  RawServer server{serve};
};

TEST_F(Many, RequestsInOneSessionGrowNothing) {
  const auto session = makeSession();
  for (int i = 0; i < 20; ++i) ASSERT_EQ(fetch(*session, requestFor(server.url("/"))).text(), "ok");
  const auto descriptorsBefore = descriptors();
  const auto threadsBefore = threads();
  for (int i = longOrShort(1200, 300); i > 0; --i) ASSERT_EQ(fetch(*session, requestFor(server.url("/"), "POST", "body")).text(), "ok");
  EXPECT_LE(descriptors(), descriptorsBefore);
  // A thread of the pool more or less.
  EXPECT_LE(threads(), threadsBefore + 4);
  EXPECT_EQ(server.accepted(), 1);
}

TEST_F(Many, SessionsOfOneRequestEachAreGivenBack) {
  const auto once = [&] { ASSERT_EQ(fetch(server.url("/")).text(), "ok"); };
  for (int i = 0; i < 20; ++i) once();
  // Either side gives up a connection a little after its last byte.
  const auto settled = descriptors() + 16;
  const auto threadsBefore = threads();
  for (int i = longOrShort(1000, 150); i > 0; --i) once();
  EXPECT_TRUE(eventually([&] { return descriptors() <= settled; })) << descriptors() << " from " << settled;
  EXPECT_TRUE(eventually([&] { return threads() <= threadsBefore + 16; })) << threads() << " from " << threadsBefore;
}

TEST_F(Many, TasksAtOnceKeepToTheConnectionsAllowed) {
  platform::URLSessionConfiguration configuration;
  configuration.HTTPMaximumConnectionsPerHost = 2;
  const auto session = makeSession(configuration);
  const int count = longOrShort(500, 100);
  std::atomic<int> good = 0;
  for (int i = 0; i < count; ++i) {
    session
        ->dataTaskWithURL(address(server.url("/")),
                          [&](const auto& data, const auto&, const auto&) { good += data && data->text() == "ok" ? 1 : 0; })
        ->resume();
  }
  EXPECT_TRUE(eventually([&] { return good == count; }));
  EXPECT_LE(server.accepted(), 2);
  session->delegateQueue()->waitUntilAllOperationsAreFinished();
}

}  // namespace
}  // namespace kestrine::test
