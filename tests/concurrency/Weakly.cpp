#include "platform/concurrency/loop/Weakly.h"

#include <gtest/gtest.h>

#include <string>

namespace platform {
namespace {

struct Base : std::enable_shared_from_this<Base> {};

class Core : public Base {
 public:
  [[nodiscard]] std::function<void(int, std::string)> callback() { return weakly(this, &Core::told); }
  [[nodiscard]] std::function<void(std::unique_ptr<int>)> taking() { return weakly(this, &Core::take); }
  [[nodiscard]] std::function<void(unsigned)> ignoring() {
    return weakly(this, [](Core& core, unsigned) { core.heard += "!"; });
  }
  std::string heard;
  std::unique_ptr<int> taken;

 private:
  void told(int number, const std::string& text) { heard += std::to_string(number) + text; }
  void take(std::unique_ptr<int> value) { taken = std::move(value); }
};

TEST(Weakly, CallsAMemberOfWhatIsStillThere) {
  const auto core = std::make_shared<Core>();
  core->callback()(7, "seven");
  core->ignoring()(1);
  EXPECT_EQ(core->heard, "7seven!");
  core->taking()(std::make_unique<int>(3));
  ASSERT_TRUE(core->taken);
  EXPECT_EQ(*core->taken, 3);
}

TEST(Weakly, HoldsNothingAndDoesNothingWhenItHasGone) {
  auto core = std::make_shared<Core>();
  const std::weak_ptr<Core> seen = core;
  const auto callback = core->callback();
  core.reset();
  EXPECT_TRUE(seen.expired());
  callback(7, "seven");
}

TEST(Weakly, HoldsTheObjectForTheLengthOfACall) {
  auto core = std::make_shared<Core>();
  const std::weak_ptr<Core> seen = core;
  const auto callback = weakly(core.get(), [&](Core&) {
    core.reset();
    EXPECT_FALSE(seen.expired());
  });
  callback();
  EXPECT_TRUE(seen.expired());
}

}  // namespace
}  // namespace platform
