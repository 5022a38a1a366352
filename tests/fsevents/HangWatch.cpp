#include "platform/fsevents/engine/HangWatch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/base/Mutex.h"
#include "tests/support/Eventually.h"

namespace kestrine::test {
namespace {

using platform::fsevents::HangWatch;
using platform::fsevents::TreePulse;
using testing::ElementsAre;
using testing::IsEmpty;

class HangWatchTest : public testing::Test {
 protected:
  static constexpr std::chrono::milliseconds kShort{50};
  /// Longer than a busy machine makes a thread wait.
  static constexpr std::chrono::milliseconds kLong{1000};

  /// What was told, in order: "hangs <path>" or "answers <path>".
  using Told = platform::Guarded<std::vector<std::string>>;
  std::shared_ptr<HangWatch::Watched> watched() { return watched(watch); }
  std::shared_ptr<HangWatch::Watched> watched(HangWatch& by) {
    auto made = std::make_shared<HangWatch::Watched>(
        pulse, [this](const std::string& path) { tell("hangs " + path); }, [this](const std::string& path) { tell("answers " + path); });
    by.add(made);
    return made;
  }
  void tell(const std::string& text) {
    told_.with([&](std::vector<std::string>& all) { all.push_back(text); });
  }
  std::vector<std::string> told() {
    return told_.with([](const std::vector<std::string>& all) { return all; });
  }

  Told told_;
  std::shared_ptr<TreePulse> pulse = std::make_shared<TreePulse>();
  HangWatch watch{kShort};
};

TEST_F(HangWatchTest, TellsOnceOfOneWhoDoesNotComeBackAndOfItsReturn) {
  const auto one = watched();
  {
    const HangWatch::Inside inside(watch, *one, "/path");
    ASSERT_TRUE(eventually([&] { return !told().empty(); }));
    std::this_thread::sleep_for(3 * kShort);
    EXPECT_THAT(told(), ElementsAre("hangs /path"));
  }
  EXPECT_THAT(told(), ElementsAre("hangs /path", "answers /path"));
}

TEST_F(HangWatchTest, TellsOfEachHangAnew) {
  const auto one = watched();
  for (const char* const path : {"/one", "/other"}) {
    const HangWatch::Inside inside(watch, *one, path);
    ASSERT_TRUE(eventually([&] { return !told().empty() && told().back() == std::string("hangs ") + path; }));
  }
  EXPECT_THAT(told(), ElementsAre("hangs /one", "answers /one", "hangs /other", "answers /other"));
}

TEST_F(HangWatchTest, LeavesAloneWhoGetsOn) {
  HangWatch patient(kLong);
  const auto one = watched(patient);
  const HangWatch::Inside inside(patient, *one, "/path");
  const auto end = std::chrono::steady_clock::now() + 2 * kLong;
  while (std::chrono::steady_clock::now() < end) {
    ++pulse->steps;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(HangWatchTest, LeavesAloneWhoIsNotInside) {
  HangWatch patient(kLong);
  const auto one = watched(patient);
  for (int i = 0; i < 100; ++i) {
    const HangWatch::Inside inside(patient, *one, "/path");
    const HangWatch::Inside nested(patient, *one, "/path/below");
  }
  std::this_thread::sleep_for(kLong + kShort);
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(HangWatchTest, NamesTheOuterOfTwoPlaces) {
  const auto one = watched();
  const HangWatch::Inside inside(watch, *one, "/outer");
  const HangWatch::Inside nested(watch, *one, "/outer/inner");
  ASSERT_TRUE(eventually([&] { return !told().empty(); }));
  EXPECT_THAT(told(), ElementsAre("hangs /outer"));
}

TEST_F(HangWatchTest, TellsNothingOfOneWhoWasRemovedOrAfterItsEnd) {
  const auto removed = watched();
  const auto left = watched();
  const HangWatch::Inside inside(watch, *removed, "/removed");
  watch.remove(removed);
  watch.stop();
  const HangWatch::Inside late(watch, *left, "/left");
  std::this_thread::sleep_for(4 * kShort);
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(HangWatchTest, IsAsPatientAsTheEnvironmentSays) {
  const struct {
    const char* text;
    int milliseconds;
  } cases[] = {{"1", 1000},    {"0.5", 500},   {"0.1", 100}, {"3600", 3'600'000}, {"", 5000},    {"0", 5000},
               {"0.09", 5000}, {"3601", 5000}, {"-1", 5000}, {"1s", 5000},        {"nan", 5000}, {"1e400", 5000}};
  for (const auto& [text, milliseconds] : cases) {
    setenv("KESTRINE_FSEVENTS_PATIENCE", text, 1);
    EXPECT_EQ(HangWatch::chosenPatience().count(), milliseconds) << '"' << text << '"';
  }
  unsetenv("KESTRINE_FSEVENTS_PATIENCE");
  EXPECT_EQ(HangWatch::chosenPatience().count(), 5000);
}

}  // namespace
}  // namespace kestrine::test
