// Clients of every kind at random, beside changes, stops and kills: no change without a flag, one service, one watch for each client that
// is there, and nothing that grows. KESTRINE_STRESS_SECONDS makes it longer (hours, for instance), KESTRINE_STRESS_SEED begins with the
// number that a failure has printed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>

#include "platform/xpc/launch/ServiceLauncher.h"
#include "tests/system/WatcherFixture.h"
#include "tests/xpc/RawSocket.h"

namespace kestrine::test {
namespace {

using Clock = std::chrono::steady_clock;
using Random = std::mt19937_64;

std::uint64_t numberFrom(const char* variable, std::uint64_t otherwise) {
  const char* value = std::getenv(variable);
  return value != nullptr ? std::strtoull(value, nullptr, 10) : otherwise;
}

class WatcherStress : public WatcherService, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    setBasePath(base());
    if (GetParam()[0] != '\0') setenv("KESTRINE_SYSTEM_VERSION", GetParam(), 1);
  }

  static std::string call() {
    return frame(kMessage, encodedDictionary({{"interface", "FileWatcherXpcServiceProtocol"}, {"selector", "callToFileWatcher"}}));
  }
  [[nodiscard]] std::string socket() const { return folder("run/xpc/") + kServiceName; }

  /// Something that a client does. What the service is told to end in the middle of may fail; nothing may hang.
  void act(Random& random) {
    switch (random() % 8) {
      case 0:
      case 1:
        expectKnown(runToEnd({KESTRINE_COMMAND, "start", "--timeout", "30"}), "start");
        return;
      case 2:
        expectKnown(runToEnd({KESTRINE_COMMAND, "status"}), "status");
        return;
      case 3:
        expectKnown(foreign("watch"), "a foreign client");
        return;
      case 4:
        expectKnown(foreign("status"), "a foreign status");
        return;
      case 5:
        return comeAndGo(random);
      case 6:
        return holdWhatThereIs(random);
      default:
        return sendRubbish(random);
    }
  }

  /// A change, which must raise a flag that was reset before it. Returns false when none came although a watch stood all the time.
  void changeAndTake(int number) {
    resetFlag();
    // Started anew by whoever wants it watched: an end in between is part of the game.
    const auto deadline = Clock::now() + kPatience;
    for (int attempt = 0; Clock::now() < deadline; ++attempt) {
      if (runToEnd({KESTRINE_COMMAND, "start", "--timeout", "30"}).status != 0) continue;
      const int ends = ends_;
      writeFile(in("change" + std::to_string(number)), std::to_string(attempt));
      // One that has begun may have been over before the change.
      const bool isEnding = begunEnds_ != ends;
      const bool isRaised = eventually([&] { return flag() == platform::Object("1") || ends_ != ends; }, std::chrono::seconds(60));
      if (flag() == platform::Object("1")) return;
      // A kill may take what was not told yet with it, an orderly end may not.
      EXPECT_TRUE(isRaised && (kills_ > 0 || isEnding)) << "change " << number << " was not told";
      if (!isRaised) return;
    }
    ADD_FAILURE() << "change " << number << " was not told";
  }

  void endService(Random& random) {
    ++begunEnds_;
    const bool isKill = random() % 3 == 0;
    if (const pid_t process = servicePid(); process > 0) {
      if (isKill) ++kills_;
      if (isKill) kill(process, SIGKILL);
    }
    if (!isKill) {
      EXPECT_EQ(runToEnd({KESTRINE_COMMAND, "stop"}).status, 0);
    }
    ++ends_;
  }

  struct Figures {
    std::ptrdiff_t descriptors = 0;
    std::ptrdiff_t threads = 0;
    std::size_t bytes = 0;
  };
  static Figures figures() {
    const std::string folder = "/proc/" + std::to_string(servicePid());
    const auto count = [](const std::string& path) {
      return std::distance(std::filesystem::directory_iterator(path), std::filesystem::directory_iterator());
    };
    std::istringstream text(readFile(folder + "/statm"));
    std::size_t pages = 0;
    text >> pages >> pages;
    return {count(folder + "/fd"), count(folder + "/task"), pages * 4096};
  }
  /// The processes that are a service with this test's folders.
  [[nodiscard]] int services() const {
    int count = 0;
    for (const auto& each : std::filesystem::directory_iterator("/proc")) {
      std::error_code error;
      const auto program = std::filesystem::read_symlink(each.path() / "exe", error);
      if (error || program != KESTRINE_SERVICE) continue;
      try {
        count += readFile(each.path() / "environ").find(folder_ / "run") != std::string::npos ? 1 : 0;
      } catch (const std::runtime_error&) {
        // It has just ended.
      }
    }
    return count;
  }
  static std::size_t standing() {
    const auto all = watches();
    return static_cast<std::size_t>(
        std::ranges::count_if(all, [](const auto& watch) { return watch.objectForKey("state").stringValue() == "standing"; }));
  }

 private:
  static Outcome foreign(const std::string& action) {
    return runToEnd({"/usr/bin/env", "python3", KESTRINE_SOURCE_DIR "/tests/system/protocol_client.py", action});
  }
  static void expectKnown(const Outcome& outcome, const char* what) {
    EXPECT_TRUE(outcome.status >= 0 && outcome.status < 128) << what << " ended with " << outcome.status << ": " << outcome.errorOutput;
  }
  void comeAndGo(Random& random) const {
    for (int i = 0; i < 10; ++i) {
      try {
        const auto client = connectTo(socket());
        if (sendBytes(client, call()) && random() % 2 == 0) readFrame(client);
      } catch (const std::runtime_error&) {
        return;  // nobody listens at the moment
      }
    }
  }
  void holdWhatThereIs(Random& random) const {
    std::vector<platform::FileHandle> held;
    const auto handles = nullDescriptors(64);
    std::vector<int> descriptors;
    descriptors.reserve(handles.size());
    for (const auto& each : handles) descriptors.push_back(each.fileDescriptor());
    try {
      for (std::uint64_t i = random() % 150; i > 0; --i) {
        held.push_back(connectTo(socket()));
        if (i % 20 == 0) sendBytes(held.back(), frame(kMessage, std::string(100, '\0'), 64).substr(0, 50), descriptors);
      }
    } catch (const std::runtime_error&) {
    }
    runToEnd({KESTRINE_COMMAND, "status"});
  }
  void sendRubbish(Random& random) const {
    std::string bytes(random() % 4096, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    try {
      sendBytes(connectTo(socket()), bytes);
    } catch (const std::runtime_error&) {
    }
  }

  std::atomic<int> begunEnds_ = 0;
  std::atomic<int> ends_ = 0;
  std::atomic<int> kills_ = 0;
};

TEST_P(WatcherStress, LosesNoChangeAndKeepsNothing) {
  const auto seconds = std::chrono::seconds(numberFrom("KESTRINE_STRESS_SECONDS", static_cast<std::uint64_t>(longOrShort(20, 10))));
  const std::uint64_t seed = numberFrom("KESTRINE_STRESS_SEED", std::random_device()());
  SCOPED_TRACE("KESTRINE_STRESS_SEED=" + std::to_string(seed));
  ASSERT_EQ(runToEnd({KESTRINE_COMMAND, "start"}).status, 0);
  const Figures before = figures();
  const auto deadline = Clock::now() + seconds;
  std::vector<std::thread> clients;
  constexpr unsigned kClients = 3;
  for (unsigned i = 0; i < kClients; ++i) {
    clients.emplace_back([this, deadline, random = Random(seed + i)]() mutable {
      while (Clock::now() < deadline) act(random);
    });
  }
  std::thread ends([this, deadline, random = Random(seed + kClients)]() mutable {
    // Long enough in between for a change to be told.
    while (Clock::now() + std::chrono::seconds(8) < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(4000 + random() % 8000));
      endService(random);
    }
  });
  for (int number = 0; Clock::now() < deadline; ++number) changeAndTake(number);
  for (std::thread& client : clients) client.join();
  ends.join();

  ASSERT_EQ(runToEnd({KESTRINE_COMMAND, "start"}).status, 0);
  EXPECT_TRUE(eventually([] { return standing() == 1; })) << standing();
  EXPECT_TRUE(eventually([this] { return services() == 1; })) << services();
  changeAndTake(-1);
  // Up to four threads are parked for the next time.
  constexpr int kParked = 4;
  EXPECT_TRUE(eventually([&] { return figures().descriptors <= before.descriptors + 2; }))
      << figures().descriptors << " and before " << before.descriptors;
  EXPECT_TRUE(eventually([&] { return figures().threads <= before.threads + kParked; }))
      << figures().threads << " and before " << before.threads;
#ifndef KESTRINE_SANITIZED
  constexpr std::size_t kGrowth = std::size_t{16} << 20U;
  EXPECT_TRUE(eventually([&] { return figures().bytes < before.bytes + kGrowth; }, std::chrono::seconds(20)))
      << figures().bytes << " and before " << before.bytes;
#endif
}

INSTANTIATE_TEST_SUITE_P(Each, WatcherStress, testing::Values("", "10.7.5"),
                         [](const auto& each) { return std::string(each.param[0] == '\0' ? "Listening" : "ByMessages"); });

}  // namespace
}  // namespace kestrine::test
