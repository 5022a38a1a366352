#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Services/Reachability/Reachability.h"
#include "Services/RestBaseURL.h"
#include "Services/RestResult.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/url/URL.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/support/Eventually.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/http/HTTPServer.h"

namespace kestrine::test {

/// Host and port of the base URL that this build talks to.
struct RestHost {
  std::string host = platform::URL::URLWithString(restBaseURL())->host();
  int port = 80;

  RestHost() {
    const std::string authority = restBaseURL().substr(7, restBaseURL().find('/', 7) - 7);
    const auto colon = authority.rfind(':');
    if (colon != std::string::npos && authority.back() != ']') port = std::stoi(authority.substr(colon + 1));
  }
  [[nodiscard]] bool isLoopback() const { return host == "localhost" || host == "127.0.0.1"; }
};

/// Has the base URL's port to itself among the tests of this machine.
class LockedPort {
 public:
  LockedPort() { flock(file_.fileDescriptor(), LOCK_EX); }

 private:
  static std::string path() { return "/tmp/kestrine-tests-port-" + std::to_string(RestHost().port) + "-" + std::to_string(getuid()); }
  const platform::FileHandle file_{open(path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)};
};

/// Runs `body` on the machine as it is, when it can reach the network and gives out the port.
inline void onThisMachine(const std::function<void()>& body, const std::string& whyNotElsewhere) {
  const LockedPort locked;
  try {
    if (!Reachability::isReachable()) throw std::runtime_error("the machine has no default route");
    const HTTPServer probe([](const ReceivedRequest&) { return Answer{}; }, "127.0.0.1", RestHost().port);
  } catch (const std::runtime_error& reason) {
    GTEST_SKIP() << "left out: requests, because " << reason.what() << ", and a network of the test's own is refused: " << whyNotElsewhere;
  }
  body();
}

/// Runs `body` where requests are sent, and go to the loopback: in a namespace whose machine has a default route (a cable to nowhere), or
/// where there are no namespaces on this machine, if that has one.
inline void inRestNetwork(const std::function<void()>& body) {
  if (!RestHost().isLoopback()) GTEST_SKIP() << "left out: requests, because this build's server is not on the loopback";
  const std::string refusal = refusalOfNetworkNamespaces();
  if (!refusal.empty()) return onThisMachine(body, refusal);
  inNetworkNamespace([&body] {
    connectToNetwork();
    ASSERT_TRUE(eventually([] { return Reachability::isReachable(); }));
    body();
  });
}

/// The product's server as a test plays it, on the base URL's host and port.
inline std::unique_ptr<HTTPServer> restServer(HTTPServer::Handler handler) {
  return std::make_unique<HTTPServer>(std::move(handler), "127.0.0.1", RestHost().port);
}
inline std::unique_ptr<HTTPServer> restServerThatAnswers(const Answer& answer) {
  return restServer([answer](const ReceivedRequest&) { return answer; });
}

/// What a finished block was told.
struct Ending {
  RestResult result;
  RestTaskStatus status;
  std::thread::id thread;
  bool onMainLoop;

  [[nodiscard]] const platform::Object& object() const { return std::get<platform::Object>(result); }
  [[nodiscard]] const platform::Error& error() const { return std::get<platform::Error>(result); }
};

/// A finished block that keeps what it was told; `endings` lives as long as the test.
inline RestFinishedHandler into(std::vector<Ending>& endings) {
  return [&endings](const RestResult& result, RestTaskStatus status) {
    endings.push_back({result, status, std::this_thread::get_id(), platform::RunLoop::main()->isCurrent()});
  };
}

/// Serves the main queue until `condition` is true.
inline bool served(const std::function<bool()>& condition, std::chrono::milliseconds limit = kPatience) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    platform::RunLoop::main()->runFor(0.01);
  }
  return true;
}
/// Serves it for a while, for what must not come.
inline void serveFor(double seconds) { platform::RunLoop::main()->runFor(seconds); }

inline platform::Object object(platform::Dictionary entries) { return {std::move(entries)}; }

}  // namespace kestrine::test
