// The service is killed while it writes the flag: the files always parse, and the next start watches again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <random>

#include "tests/app/Sandbox.h"
#include "tests/system/Lanes.h"

namespace kestrine::test {
namespace {

using platform::Object;
using std::chrono::seconds;

constexpr const char* kDomain = "Ostrabyte.FileWatcherXpcService";
constexpr const char* kKey = "FileWatcherStatusKey";

/// The number at the end of "watching '/a/Kestrine', by process 7".
pid_t processIn(const std::string& output) { return static_cast<pid_t>(std::stol(output.substr(output.rfind(' ') + 1))); }

/// What stands in the preferences folder beside the domains and the writers' own lock and temporary files, such as a file set aside as
/// corrupt.
std::string unexpectedFile(const std::string& folder) {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().string().find("corrupt") != std::string::npos) return entry.path();
  }
  return {};
}

class Victim {
 public:
  explicit Victim(int seed) : random_(static_cast<unsigned>(seed)) {}

  std::string run(int kills) {
    for (int i = 0; i < kills; ++i) {
      const Outcome started = sandbox_.start();
      if (started.status != 0) return "no start after " + std::to_string(i) + " kills: " + started.errorOutput;
      if (started.output.find("watching '") == std::string::npos) return "not killed: " + started.output;
      if (std::string complaint = killWhileItWrites(processIn(started.output)); !complaint.empty()) return complaint;
      done_ += 1;
    }
    return {};
  }

  [[nodiscard]] int done() const { return done_; }
  /// Resets that found the flag raised: proof that the service was writing.
  [[nodiscard]] int writesSeen() const { return writesSeen_; }

 private:
  std::string killWhileItWrites(pid_t service) {
    platform::UserDefaults defaults(kDomain, sandbox_.preferences());
    const auto reset = [](const Object& value) { return value == Object("1") ? Object("0") : Object(); };
    defaults.exchange(kKey, reset);
    // The service sets the flag once for each of these; resetting it makes each setting a write.
    for (int i = 0; i < 300; ++i) writeFile(sandbox_.watched() + "/file" + std::to_string(i), "text");
    if (!eventually([&] { return defaults.exchange(kKey, reset) == Object("1"); }, seconds(120))) return "the flag was never raised";
    const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(std::uniform_int_distribution(0, 20'000)(random_));
    while (std::chrono::steady_clock::now() < end) {
      if (defaults.exchange(kKey, reset) == Object("1")) ++writesSeen_;
    }
    signalProcess(service, SIGKILL);

    const Object domain = defaults.persistentDomainForName(kDomain);
    const Object value = domain.objectForKey(kKey);
    if (value != Object("1") && value != Object("0")) return "the file does not parse: " + domain.description();
    if (const std::string file = unexpectedFile(sandbox_.preferences()); !file.empty()) return "set aside: " + file;
    return {};
  }

  std::mt19937 random_;
  Sandbox sandbox_;
  int done_ = 0;
  int writesSeen_ = 0;
};

TEST(KilledService, LeavesFilesThatParseAndIsStartedAgain) {
  // What a kill leaves of a file UserDefaultsProcesses.KilledAtAnyMomentLeaveAWholeFile looks at a hundred times a second; here each single
  // kill shows whether the next start copes with what a real service leaves.
  const int lanes = longOrShort(8, 3);
  constexpr int kKills = 2;
  std::atomic<int> done = 0;
  std::atomic<int> writesSeen = 0;
  int rounds = 0;
  // On a busy machine it may take more kills until one falls among writes.
  for (; rounds < 10 && writesSeen == 0; ++rounds) {
    const auto complaints = runLanes(lanes, [&](int lane) {
      Victim victim(lane);
      std::string complaint = victim.run(kKills);
      done += victim.done();
      writesSeen += victim.writesSeen();
      return complaint;
    });
    ASSERT_THAT(complaints, testing::IsEmpty());
  }
  EXPECT_EQ(done, rounds * lanes * kKills);
  EXPECT_GT(writesSeen, 0);
}

}  // namespace
}  // namespace kestrine::test
