#include "platform/foundation/process/StatusRegistry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "platform/foundation/value/Dictionary.h"

namespace platform {
namespace {

using Registration = StatusRegistry::Registration;

std::function<Object()> saying(const char* text) {
  return [text] { return Object(text); };
}

TEST(StatusRegistry, IsEmptyAtFirst) { EXPECT_EQ(StatusRegistry().snapshot(), Object(Dictionary{})); }

TEST(StatusRegistry, ListsEachSectionInTheOrderOfAddition) {
  StatusRegistry registry;
  const Registration a = registry.add("watches", saying("first"));
  const Registration b = registry.add("clients", saying("other"));
  const Registration c = registry.add("watches", saying("second"));
  EXPECT_EQ(registry.snapshot(), Object(Dictionary{{"clients", Array{"other"}}, {"watches", Array{"first", "second"}}}));
}

TEST(StatusRegistry, AsksAnewForEachSnapshot) {
  StatusRegistry registry;
  int asked = 0;
  const Registration registration = registry.add("s", [&] { return Object::numberWithInt(++asked); });
  static_cast<void>(registry.snapshot());
  EXPECT_EQ(registry.snapshot(), Object(Dictionary{{"s", Array{Object::numberWithInt(2)}}}));
}

TEST(StatusRegistry, ForgetsARegistrationThatIsGone) {
  StatusRegistry registry;
  {
    const Registration registration = registry.add("s", saying("x"));
    EXPECT_EQ(registry.snapshot().count(), 1U);
  }
  EXPECT_EQ(registry.snapshot().count(), 0U);
}

TEST(StatusRegistry, MovesARegistrationWithItsMeaning) {
  StatusRegistry registry;
  Registration a = registry.add("s", saying("a"));
  Registration b = std::move(a);
  EXPECT_EQ(registry.snapshot(), Object(Dictionary{{"s", Array{"a"}}}));
  b = registry.add("s", saying("b"));
  EXPECT_EQ(registry.snapshot(), Object(Dictionary{{"s", Array{"b"}}}));
  b = Registration();
  EXPECT_EQ(registry.snapshot().count(), 0U);
}

TEST(StatusRegistry, ShowsWhyAPartCouldNotBeDescribed) {
  StatusRegistry registry;
  const Registration bad = registry.add("s", []() -> Object { throw std::runtime_error("because"); });
  const Registration worse = registry.add("s", []() -> Object { throw 5; });
  const Registration good = registry.add("s", saying("fine"));
  const Dictionary ofBad{{"error", "because"}};
  const Dictionary ofWorse{{"error", "an exception of an unknown type"}};
  EXPECT_EQ(registry.snapshot(), Object(Dictionary{{"s", Array{ofBad, ofWorse, "fine"}}}));
}

TEST(StatusRegistry, WaitsForARunningFunctionBeforeARegistrationIsGone) {
  StatusRegistry registry;
  std::atomic<bool> entered = false;
  std::atomic<bool> mayLeave = false;
  std::atomic<bool> left = false;
  auto registration = std::make_unique<Registration>(registry.add("s", [&] {
    entered = true;
    while (!mayLeave) std::this_thread::yield();
    left = true;
    return Object();
  }));
  std::thread asker([&] { static_cast<void>(registry.snapshot()); });
  while (!entered) std::this_thread::yield();
  std::atomic<bool> leftBeforeRemovalReturned = false;
  std::thread remover([&] {
    registration.reset();
    leftBeforeRemovalReturned = left.load();
  });
  mayLeave = true;
  remover.join();
  asker.join();
  EXPECT_TRUE(leftBeforeRemovalReturned);
}

TEST(StatusRegistry, NeverRunsAFunctionAfterItsRegistrationIsGone) {
  StatusRegistry registry;
  std::atomic<bool> stop = false;
  std::thread asker([&] {
    while (!stop) static_cast<void>(registry.snapshot());
  });
  for (int i = 0; i < 500; ++i) {
    // Touched after the registration, a stale call would be seen by the sanitizers.
    auto value = std::make_unique<int>(i);
    const Registration registration = registry.add("s", [&value] { return Object::numberWithInt(*value); });
  }
  stop = true;
  asker.join();
}

TEST(StatusRegistry, ReleasesTheFunctionWithTheRegistration) {
  StatusRegistry registry;
  const auto held = std::make_shared<int>(1);
  Registration registration = registry.add("s", [held] { return Object(); });
  EXPECT_EQ(held.use_count(), 2);
  registration = Registration();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(StatusRegistry, HasOneSharedRegistry) { EXPECT_EQ(&StatusRegistry::shared(), &StatusRegistry::shared()); }

}  // namespace
}  // namespace platform
