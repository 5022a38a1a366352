#include "platform/concurrency/loop/RunLoopItemCore.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrine::test {
namespace {

using platform::ItemSerial;
using platform::RunLoopItemCore;
using platform::RunLoopItemHost;

/// Holds one item, and writes down what it is asked.
class Host final : public RunLoopItemHost {
 public:
  virtual ~Host() = default;
  bool enroll(const std::shared_ptr<RunLoopItemCore>& item) override {
    asked += "enroll ";
    if (isFull) return false;
    held = item;
    return true;
  }
  std::shared_ptr<RunLoopItemCore> forget(ItemSerial /*item*/) override {
    asked += "forget ";
    return std::exchange(held, nullptr);
  }
  void queueSignal(ItemSerial /*item*/) override { asked += "signal "; }
  void arm(ItemSerial /*item*/, TimePoint /*first*/, std::chrono::nanoseconds /*interval*/) override { asked += "arm "; }
  int watch(ItemSerial /*item*/, int /*descriptor*/, unsigned /*events*/) override { return 0; }
  void rewatch(ItemSerial /*item*/, int /*descriptor*/, unsigned /*events*/) override {}
  void unwatch(int /*descriptor*/) override {}

  std::string asked;
  std::shared_ptr<RunLoopItemCore> held;
  bool isFull = false;
};

class Item final : public RunLoopItemCore {
 public:
  explicit Item(Callback callback, bool once = false) : RunLoopItemCore(std::move(callback)), once_(once) {}

  bool refusesToEnter = false;

 private:
  void entered(RunLoopItemHost& loop) override REQUIRES(mutex_) {
    if (refusesToEnter) throw std::runtime_error("as asked");
    loop.queueSignal(serial());
  }
  unsigned admit(unsigned ready) override REQUIRES(mutex_) { return ready & 3U; }
  [[nodiscard]] bool firesOnce() const override { return once_; }

  const bool once_;
};

TEST(RunLoopItemCore, HasANumberOfItsOwn) {
  const Item first(nullptr);
  const Item second(nullptr);
  EXPECT_NE(first.serial(), second.serial());
  EXPECT_NE(first.serial(), 0U);
}

TEST(RunLoopItemCore, IsEnrolledOnceAndForgottenOnce) {
  const auto host = std::make_shared<Host>();
  const auto item = std::make_shared<Item>(nullptr);
  item->scheduleOn(host, item);
  item->scheduleOn(host, item);
  EXPECT_EQ(host->asked, "enroll signal ");
  EXPECT_EQ(host->held, item);
  item->retireAndWait();
  item->retireAndWait();
  EXPECT_EQ(host->asked, "enroll signal forget ");
  EXPECT_EQ(item.use_count(), 1);
  item->scheduleOn(host, item);
  EXPECT_EQ(host->asked, "enroll signal forget ") << "an invalid item is not scheduled";
}

TEST(RunLoopItemCore, ThatItsLoopDoesNotTakeCanGoElsewhere) {
  const auto full = std::make_shared<Host>();
  full->isFull = true;
  const auto item = std::make_shared<Item>(nullptr);
  item->scheduleOn(full, item);
  const auto host = std::make_shared<Host>();
  item->scheduleOn(host, item);
  EXPECT_EQ(host->held, item);
  item->retireAndWait();
  EXPECT_EQ(full->asked, "enroll ");
}

TEST(RunLoopItemCore, ThatCannotEnterIsForgotten) {
  const auto host = std::make_shared<Host>();
  const auto item = std::make_shared<Item>(nullptr);
  item->refusesToEnter = true;
  EXPECT_THROW(item->scheduleOn(host, item), std::runtime_error);
  EXPECT_EQ(host->asked, "enroll forget ");
  EXPECT_EQ(item.use_count(), 1);
  EXPECT_TRUE(item->valid());
}

TEST(RunLoopItemCore, IsCalledForWhatItsKindWants) {
  unsigned told = 0;
  int calls = 0;
  const auto item = std::make_shared<Item>([&](unsigned ready) { told = ready, ++calls; });
  item->fire(7);
  EXPECT_EQ(told, 3U);
  item->fire(4);
  EXPECT_EQ(calls, 1) << "its kind has no use for a 4";
  item->retireAndWait();
  item->fire(1);
  EXPECT_EQ(calls, 1);
}

TEST(RunLoopItemCore, ThatFiresOnceIsForgottenBeforeItsCallback) {
  const auto host = std::make_shared<Host>();
  std::shared_ptr<Item> item;
  bool wasValid = true;
  const auto held = std::make_shared<int>(0);
  item = std::make_shared<Item>(
      [&, held](unsigned) {
        wasValid = item->valid();
        EXPECT_EQ(host->held, nullptr);
      },
      true);
  item->scheduleOn(host, item);
  item->fire(1);
  EXPECT_FALSE(wasValid);
  EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace kestrine::test
