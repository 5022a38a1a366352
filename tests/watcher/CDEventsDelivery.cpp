#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/watcher/FedEvents.h"

namespace kestrine::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CDEventsDelivery : public FedEventsTest {};

TEST_F(CDEventsDelivery, InWatchedFoldersOnlyModeKeepsTheFolderAndLeavesOutWhatIsInIt) {
  FedEvents events({"/w/a"}, {.watchedFoldersOnly = true});
  events.feed({"/w/a/", "/w/a/b", "/w/aa", "/w"});
  EXPECT_THAT(events.paths(), ElementsAre("/w/a"));
}

TEST_F(CDEventsDelivery, LeavesOutWhatBeginsWithAnExcludedPath) {
  FedEvents events({"/u"}, {.excluded = {{"/u/Downloads"}}});
  events.feed({"/u/Downloads", "/u/Downloads/x", "/u/Downloads2/x", "/u/Docs/x"});
  EXPECT_THAT(events.paths(), ElementsAre("/u/Docs/x"));
}

TEST_F(CDEventsDelivery, InWatchedFoldersOnlyModeForgetsTheExcludeList) {
  FedEvents events({"/w/a"}, {.watchedFoldersOnly = true, .excluded = {{"/w/a"}}});
  events.feed({"/w/a"});
  EXPECT_THAT(events.paths(), ElementsAre("/w/a"));
}

TEST_F(CDEventsDelivery, RemembersTheLastEventOfABatchOfWhichTheMiddleOneIsExcluded) {
  FedEvents events({"/u"}, {.excluded = {{"/u/Downloads"}}});
  events.feed({"/u/1", "/u/Downloads/2", "/u/3"});
  EXPECT_THAT(events.paths(), ElementsAre("/u/1", "/u/3"));
  EXPECT_EQ(events->lastEvent(), events.received.back());
}

TEST_F(CDEventsDelivery, SetsTheLastEventOncePerBatchAndNotForABatchThatIsLeftOut) {
  FedEvents events({"/u"}, {.excluded = {{"/u/Downloads"}}});
  std::vector<std::shared_ptr<const CDEvent>> seenInside;
  events.onEvent = [&](CDEvents& stream) { seenInside.push_back(stream.lastEvent()); };
  events.feed({"/u/1", "/u/2"});
  const auto last = events.received.back();
  EXPECT_THAT(seenInside, ElementsAre(nullptr, nullptr)) << "set before the batch was through";
  events.feed({"/u/Downloads/3"});
  EXPECT_EQ(events->lastEvent(), last);
  events.feed({});
  EXPECT_EQ(events->lastEvent(), last);
}

TEST_F(CDEventsDelivery, PassesIdentifierAndFlagsOnAndStampsTheTimeOfProcessing) {
  FedEvents events({"/w"}, {});
  const auto before = platform::Date::now();
  CDEventsCallback(*events, std::vector<platform::FSEvent>{{"/w/x", 0x10100, 0xFFFFFFFFFFFFFFFE}, {"/w/y", 0x80000000, 5}});
  const auto after = platform::Date::now();
  ASSERT_EQ(events.received.size(), 2U);
  EXPECT_EQ(events.received[0]->identifier(), 0xFFFFFFFFFFFFFFFEU);
  EXPECT_EQ(events.received[0]->flags(), 0x10100U);
  EXPECT_EQ(events.received[1]->identifier(), 5U);
  EXPECT_EQ(events.received[1]->flags(), 0x80000000U);
  EXPECT_GE(*events.received[0]->date(), before);
  EXPECT_GE(*events.received[1]->date(), *events.received[0]->date());
  EXPECT_LE(*events.received[1]->date(), after);
}

TEST_F(CDEventsDelivery, NormalizesPathsAndMakesFileURLsOfThem) {
  FedEvents events({"/w"}, {});
  events.feed({"/w/a/", "/w//b", "/w/./c", "/w/x/../d", "/w/e f", "/w/\xC3\xA9", "/w/100%", "/w/g#h?i"});
  EXPECT_THAT(events.paths(), ElementsAre("/w/a", "/w/b", "/w/c", "/w/d", "/w/e f", "/w/\xC3\xA9", "/w/100%", "/w/g#h?i"));
  for (const auto& event : events.received) EXPECT_TRUE(event->URL()->isFileURL()) << event->URL()->absoluteString();
  EXPECT_EQ(events.received[4]->URL()->absoluteString(), "file:///w/e%20f");
}

TEST_F(CDEventsDelivery, KeepsNamesThatAreNoUTF8) {
  FedEvents events({"/w"}, {});
  events.feed({"/w/\xFF\xFE"});
  EXPECT_THAT(events.paths(), ElementsAre("/w/\xFF\xFE"));
}

TEST_F(CDEventsDelivery, ReadsTheListsAnewForEachBatchAndNotWithinOne) {
  FedEvents events({"/u"}, {});
  events.onEvent = [](CDEvents& stream) { stream.setExcludedURLs(listOfPath("/u/x")); };
  events.feed({"/u/x1", "/u/x2"});
  EXPECT_THAT(events.paths(), ElementsAre("/u/x1", "/u/x2"));
  events.feed({"/u/x3", "/u/y"});
  EXPECT_THAT(events.paths(), ElementsAre("/u/x1", "/u/x2", "/u/y"));
}

TEST_F(CDEventsDelivery, ReadsTheWatchedListAnewForEachBatch) {
  FedEvents events({"/w/a"}, {.watchedFoldersOnly = true});
  events->setWatchedURLs(listOfPath("/w/b"));
  events.feed({"/w/a", "/w/b"});
  EXPECT_THAT(events.paths(), ElementsAre("/w/b"));
}

TEST_F(CDEventsDelivery, ReadsTheModeAnewForEachEvent) {
  FedEvents events({"/w/a"}, {});
  events.onEvent = [](CDEvents& stream) { stream.setIgnoreEventsFromSubDirectories(true); };
  events.feed({"/w/a/1", "/w/a/2", "/w/a"});
  EXPECT_THAT(events.paths(), ElementsAre("/w/a/1", "/w/a"));
}

TEST_F(CDEventsDelivery, HandsEventsOverInTheirOrderOneAfterAnother) {
  FedEvents events({"/w"}, {});
  events.feed({"/w/c", "/w/a", "/w/b", "/w/a"});
  EXPECT_THAT(events.paths(), ElementsAre("/w/c", "/w/a", "/w/b", "/w/a"));
}

TEST_F(CDEventsDelivery, DescribesItsWatchedList) {
  const FedEvents one({"/x/Kestrine"}, {});
  EXPECT_EQ(one->description(), fmt::format("<CDEvents: {} {{ watchedURLs = (\n    \"/x/Kestrine\"\n) }}>", fmt::ptr(&*one)));
  const FedEvents two({"/x/a", "/x/b"}, {});
  EXPECT_EQ(two->description(), fmt::format("<CDEvents: {} {{ watchedURLs = (\n    \"/x/a\",\n    \"/x/b\"\n) }}>", fmt::ptr(&*two)));
}

TEST_F(CDEventsDelivery, LeavesTheRestOfABatchWhenItsHandlerDestroysTheStream) {
  FedEvents events({"/w"}, {});
  events.onEvent = [&events](CDEvents&) { events.destroy(); };
  events.feed({"/w/1", "/w/2"});
  EXPECT_THAT(events.paths(), ElementsAre("/w/1"));
}

}  // namespace
}  // namespace kestrine::test
