#include "tests/fsevents/support/StreamTest.h"

// What a stream says about itself.

namespace kestrine::test {
namespace {

class StreamStatus : public StreamTest {};
KESTRINE_PER_SOURCE(StreamStatus);

TEST_P(StreamStatus, NamesItsPathsSourceAndState) {
  const auto stream = watch({.paths = {root_, outside("missing")}});
  const auto status = stream->stream().status();
  ASSERT_EQ(status.objectForKey("paths").count(), 2U);
  EXPECT_EQ(status.objectForKey("paths").objectAtIndex(0).stringValue(), root_);
  EXPECT_EQ(status.objectForKey("paths").objectAtIndex(1).stringValue(), outside("missing"));
  EXPECT_EQ(status.objectForKey("source").stringValue(), sourceName(GetParam()));
  EXPECT_EQ(status.objectForKey("state").stringValue(), "started");
  for (const auto* list : {"losses", "unreadable", "polled"}) {
    EXPECT_TRUE(status.objectForKey(list).isArray()) << list;
    EXPECT_EQ(status.objectForKey(list).count(), 0U) << list;
  }
  EXPECT_EQ(status.objectForKey("error").stringValue(), "");
}

TEST_P(StreamStatus, CountsFoldersEventsAndDeliveries) {
  makeFolders(in("a/b"));
  makeFolders(in("c"));
  const auto stream = watchRoot();
  const auto number = [&](const char* key) { return stream->stream().status().objectForKey(key).unsignedLongLongValue(); };
  EXPECT_EQ(number("foldersMarked"), 4U);
  EXPECT_EQ(number("eventsDelivered"), 0U);
  EXPECT_EQ(number("deliveries"), 0U);
  for (int i = 0; i < 10; ++i) writeFile(in("a/b/" + std::to_string(i)), "text");
  stream->flush();
  EXPECT_EQ(number("eventsDelivered"), stream->events().size());
  EXPECT_EQ(number("deliveries"), stream->deliveries());
  EXPECT_GE(stream->events().size(), 10U);
  makeFolders(in("d/e"));
  stream->flush();
  EXPECT_EQ(number("foldersMarked"), 6U);
  removeTree(in("a"));
  stream->flush();
  EXPECT_EQ(number("foldersMarked"), 4U);
}

TEST_P(StreamStatus, DescriptionNamesThePaths) {
  const auto stream = watch({.paths = {root_, outside("missing")}});
  const auto text = stream->stream().copyDescription();
  EXPECT_NE(text.find(root_), std::string::npos) << text;
  EXPECT_NE(text.find(outside("missing")), std::string::npos) << text;
  EXPECT_THAT(stream->stream().pathsBeingWatched(), testing::ElementsAre(root_, outside("missing")));
}

TEST_P(StreamStatus, DescriptionNamesTheLatestIdentifier) {
  const auto stream = watchRoot();
  writeFile(in("file"), "text");
  stream->flush();
  const auto latest = stream->stream().getLatestEventId();
  ASSERT_FALSE(stream->events().empty());
  EXPECT_EQ(latest, stream->events().back().id);
  EXPECT_NE(stream->stream().copyDescription().find(std::to_string(latest)), std::string::npos) << stream->stream().copyDescription();
}

}  // namespace
}  // namespace kestrine::test
