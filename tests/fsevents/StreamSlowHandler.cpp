#include <atomic>

#include "tests/fsevents/support/StreamTest.h"

// A handler that takes its time must cost nothing but memory.

namespace kestrine::test {
namespace {

class StreamSlowHandler : public StreamTest {};
KESTRINE_PER_SOURCE(StreamSlowHandler);

TEST_P(StreamSlowHandler, LosesNothingSilently) {
  const int changes = longOrShort(50000, 5000);
  constexpr int kStormFolders = 50;
  for (int i = 0; i < kStormFolders; ++i) makeFolder(in(std::to_string(i)));
  std::promise<void> entered;
  std::promise<void> leave;
  std::atomic<bool> first = true;
  const auto stream = watch({.paths = {root_}, .onDelivery = [&, go = leave.get_future().share()](FSEventStream&) {
                               if (!first.exchange(false)) return;
                               entered.set_value();
                               go.wait();
                             }});
  touchFile(in("first"));
  entered.get_future().wait();
  for (int i = 0; i < changes; ++i) touchFile(in(std::to_string(i % kStormFolders)) + "/" + std::to_string(i));
  leave.set_value();
  stream->flush();
  const auto all = stream->allFlags();
  std::set<std::string> told;
  for (const auto& event : stream->events()) told.insert(event.path);
  const bool rescan = stream->covers(root_) && (all & kMustScan) != 0;
  if (rescan) {
    EXPECT_NE(all & (kUserDropped | kKernelDropped), 0U) << "a rescan must say who lost something";
    EXPECT_GT(stream->stream().status().objectForKey("losses").count(), 0U);
  }
  int missed = 0;
  for (int i = 0; i < changes; ++i) missed += told.contains(in(std::to_string(i % kStormFolders)) + "/" + std::to_string(i)) ? 0 : 1;
  EXPECT_TRUE(missed == 0 || rescan) << missed << " files of " << changes << " are not told";
}

TEST_P(StreamSlowHandler, SeesFoldersMadeMeanwhileAsWatched) {
  std::promise<void> entered;
  std::promise<void> leave;
  std::atomic<bool> first = true;
  const auto stream = watch({.paths = {root_}, .onDelivery = [&, go = leave.get_future().share()](FSEventStream&) {
                               if (!first.exchange(false)) return;
                               entered.set_value();
                               go.wait();
                             }});
  touchFile(in("first"));
  entered.get_future().wait();
  makeFolders(in("a/b/c"));
  // The marks are set while the handler is still inside.
  EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  writeFile(in("a/b/c/file"), "text");
  removeItem(in("a/b/c/file"));
  leave.set_value();
  stream->flush();
  EXPECT_EQ(stream->flagsOf(in("a/b/c/file")) & (kCreated | kRemoved), kCreated | kRemoved) << stream->describe();
}

}  // namespace
}  // namespace kestrine::test
