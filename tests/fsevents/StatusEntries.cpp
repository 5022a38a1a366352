#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/foundation/value/Dictionary.h"
#include "platform/fsevents/status/StreamStatus.h"

// What a stream's status holds, as those below the stream put it there.

namespace kestrine::test {
namespace {

using platform::Dictionary;
using platform::Object;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> entryTexts(const platform::fsevents::StreamStatus& status, const char* list,
                                    std::initializer_list<const char*> keys) {
  Dictionary entries;
  status.describe(entries);
  std::vector<std::string> texts;
  for (const Object& entry : entries[list].arrayValue()) {
    std::string text;
    for (const char* key : keys) text += (text.empty() ? "" : " ") + entry.objectForKey(key).description();
    texts.push_back(text);
  }
  return texts;
}

TEST(StatusEntries, HoldEachPolledRegionUntilItIsLeft) {
  platform::fsevents::StreamStatus status;
  status.setRegion("/a", 10, std::chrono::milliseconds(1000), "a limit");
  status.setRegion("", 20, std::chrono::milliseconds(2500), "others write too");
  status.setRegion("/a", 11, std::chrono::milliseconds(1500), "a limit");
  EXPECT_THAT(entryTexts(status, "regions", {"path", "folders", "interval", "reason"}),
              ElementsAre("/ 20 2.5 others write too", "/a 11 1.5 a limit"));
  status.removeRegion("/a");
  status.removeRegion("/b");
  status.removeRegion("");
  EXPECT_THAT(entryTexts(status, "regions", {"path"}), IsEmpty());
}

TEST(StatusEntries, HoldWhatServesEachTree) {
  platform::fsevents::StreamStatus status;
  EXPECT_EQ(status.sources(), "");
  status.setSource("/a", "inotify");
  status.setSource("", "fanotify");
  status.setSource("/a/mnt", "inotify");
  EXPECT_EQ(status.sources(), "fanotify+inotify");
  EXPECT_THAT(entryTexts(status, "trees", {"path", "source"}), ElementsAre("/ fanotify", "/a inotify", "/a/mnt inotify"));
  status.removeSource("");
  status.setSource("/a", "polling");
  EXPECT_THAT(entryTexts(status, "trees", {"path", "source"}), ElementsAre("/a polling", "/a/mnt inotify"));
  EXPECT_EQ(status.sources(), "inotify+polling");
}

}  // namespace
}  // namespace kestrine::test
