#include "platform/fsevents/tree/Unsettled.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kestrine::test {
namespace {

using platform::fsevents::Unsettled;
using platform::fsevents::UnsettledPlace;

std::vector<std::string> namesOf(std::vector<UnsettledPlace> places) {
  std::vector<std::string> names;
  for (auto& place : places) names.push_back(std::move(place.name));
  return names;
}

TEST(UnsettledTest, IsEmptyWhenEverythingHasBeenTaken) {
  Unsettled unsettled;
  EXPECT_TRUE(unsettled.empty());
  unsettled.add({.folder = {"key", ""}, .name = "a", .target = ""});
  EXPECT_FALSE(unsettled.empty());
  EXPECT_EQ(unsettled.take().size(), 1U);
  EXPECT_TRUE(unsettled.empty());
}

TEST(UnsettledTest, KeepsAPlaceOnceForEachTargetWithWhatEitherSays) {
  Unsettled unsettled;
  unsettled.add({.folder = {"key", ""}, .name = "a", .target = "t", .report = 0x100, .tries = 3});
  unsettled.add({.folder = {"key", ""}, .name = "a", .target = "t", .report = 0x800, .isUntold = true, .tries = 1});
  unsettled.add({.folder = {"key", ""}, .name = "a", .target = "u"});
  unsettled.add({.folder = {"other", ""}, .name = "a", .target = "t"});
  unsettled.add({.folder = {"", "/key"}, .name = "a", .target = "t"});
  EXPECT_EQ(unsettled.size(), 4U);
  const auto places = unsettled.take();
  const auto both = std::find_if(places.begin(), places.end(), [](const auto& place) { return place.report != 0; });
  ASSERT_NE(both, places.end());
  EXPECT_EQ(both->report, 0x900U);
  EXPECT_TRUE(both->isUntold);
  EXPECT_EQ(both->tries, 3);
}

TEST(UnsettledTest, HandsOverThePlacesOfOneTargetInSuccessionAndThoseOfNoneFirst) {
  Unsettled unsettled;
  for (const auto* name : {"1", "2", "3"}) {
    for (const auto* target : {"t", "", "u"}) unsettled.add({.folder = {"key", ""}, .name = name + std::string(target), .target = target});
  }
  EXPECT_THAT(namesOf(unsettled.take()), testing::ElementsAre("1", "2", "3", "1t", "2t", "3t", "1u", "2u", "3u"));
}

TEST(UnsettledTest, KnowsWhoseTargetItStillHas) {
  Unsettled unsettled;
  unsettled.add({.folder = {"key", ""}, .name = "a", .target = "target"});
  EXPECT_TRUE(unsettled.hasTarget("target", {}, ""));
  EXPECT_FALSE(unsettled.hasTarget("targe", {}, ""));
  EXPECT_FALSE(unsettled.hasTarget("targets", {}, ""));
  EXPECT_FALSE(unsettled.hasTarget("", {}, ""));
  EXPECT_FALSE(unsettled.hasTarget("target", {"key", ""}, "a"));
  EXPECT_TRUE(unsettled.hasTarget("target", {"key", ""}, "b"));
  EXPECT_TRUE(unsettled.hasTarget("target", {"other", ""}, "a"));
  unsettled.add({.folder = {"key", ""}, .name = "b", .target = "target"});
  EXPECT_TRUE(unsettled.hasTarget("target", {"key", ""}, "a"));
}

}  // namespace
}  // namespace kestrine::test
