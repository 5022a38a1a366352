// Every change that is made after the application reset the flag is followed by a raised flag, whenever that was.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>

#include "tests/app/Sandbox.h"
#include "tests/system/Lanes.h"

namespace kestrine::test {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// Less than half of the event queues that a user may have by default, whichever source the services use.
constexpr int kLanes = 40;

/// An application and its service: changes files without end, resets the flag at some moment, and sees whether it comes back.
class ResettingApplication {
 public:
  explicit ResettingApplication(int seed)
      : random_(static_cast<unsigned>(seed)), defaults_("Ostrabyte.FileWatcherXpcService", sandbox_.preferences()) {}

  /// Empty when all went well.
  std::string run(int resets) {
    const Outcome started = sandbox_.start();
    if (started.status != 0) return "no start: " + started.errorOutput;
    for (int i = 0; i < resets; ++i) {
      // One half of the resets fall anywhere in the latency, the other into the moment in which the service writes.
      if (i % 2 == 0) {
        changeFor(milliseconds(below(4000)));
      } else {
        changeUntilRaised();
      }
      reset();
      // The one change that must not be lost, and often more right behind it.
      for (int more = below(3); more >= 0; --more) change();
      if (!eventually([&] { return isRaised(); }, std::chrono::seconds(120))) {
        return "the flag was not raised after reset " + std::to_string(i) + ":\n" + sandbox_.run({"status"}).output;
      }
      done_ += 1;
    }
    return {};
  }

  [[nodiscard]] int done() const { return done_; }

 private:
  int below(int limit) { return std::uniform_int_distribution(0, limit - 1)(random_); }
  bool isRaised() { return defaults_.objectForKey("FileWatcherStatusKey") == platform::Object("1"); }

  void change() {
    ++number_;
    writeFile(sandbox_.watched() + "/file" + std::to_string(number_ % 200), std::to_string(number_));
  }

  void changeFor(milliseconds duration) {
    for (const auto end = Clock::now() + duration; Clock::now() < end;) {
      change();
      std::this_thread::sleep_for(milliseconds(1 + below(50)));
    }
  }

  void changeUntilRaised() {
    for (int i = 0; i < 100; ++i) change();
    eventually([&] { return isRaised(); }, std::chrono::seconds(120));
    std::this_thread::sleep_for(std::chrono::microseconds(below(5000)));
  }

  void reset() {
    defaults_.exchange("FileWatcherStatusKey", [](const platform::Object&) { return platform::Object("0"); });
  }

  std::mt19937 random_;
  Sandbox sandbox_;
  platform::UserDefaults defaults_;
  int number_ = 0;
  std::atomic<int> done_ = 0;
};

TEST(Application, MissesNoChangeHoweverItsResetsFall) {
  const int lanes = longOrShort(kLanes, 4);
  // Two of them notice a service that believes what it last saw of the flag (three times of three, in all lanes). The races between the two
  // ends of the file are UserDefaultsProcesses.LoseNoSignalHoweverFastItIsSetAndReset's, which has more than a thousand resets a second.
  const int resets = longOrShort(6, 3);
  std::atomic<int> done = 0;
  const auto complaints = runLanes(lanes, [&](int lane) {
    ResettingApplication application(lane);
    std::string complaint = application.run(resets);
    done += application.done();
    return complaint;
  });
  EXPECT_THAT(complaints, testing::IsEmpty());
  EXPECT_EQ(done, lanes * resets);
}

}  // namespace
}  // namespace kestrine::test
