#include "tests/fsevents/support/WorldTest.h"

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "tests/fsevents/support/MountNamespace.h"

namespace kestrine::test {
namespace {

void setLimit(const std::string& name, int value) {
  std::ofstream file("/proc/sys/user/" + name);
  if (!(file << value << std::flush)) throw std::runtime_error("the limit cannot be set: " + name);
}

}  // namespace

std::size_t WorldTest::told(const WatchedStream& stream, const std::string& path, FSEventStreamEventFlags flag) {
  const auto events = stream.eventsOf(path);
  return static_cast<std::size_t>(
      std::count_if(events.begin(), events.end(), [&](const FSEvent& event) { return (event.flags & flag) != 0; }));
}

testing::AssertionResult WorldTest::isWatched(WatchedStream& stream, const std::string& folder, const std::string& name) {
  const auto path = folder + "/" + name;
  writeFile(path, "text");
  stream.flush();
  if ((stream.flagsOf(path) & kCreated) != 0) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "not told of " << path << ": " << stream.describe() << stream.stream().status().description();
}

testing::AssertionResult WorldTest::isPolled(WatchedStream& stream, const std::string& folder, const std::string& name,
                                             const std::string& writer) {
  writeFile((writer.empty() ? folder : writer) + "/" + name, "text");
  const auto path = folder + "/" + name;
  // Made before the first look at its folder it is only seen to be written.
  const auto isTold = [&](const std::vector<FSEvent>& events) {
    return std::any_of(events.begin(), events.end(),
                       [&](const FSEvent& event) { return event.path == path && (event.flags & (kCreated | kModified)) != 0; });
  };
  if (stream.waitUntil(isTold)) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "not told of " << path << ": " << stream.describe() << stream.stream().status().description();
}

std::string WorldTest::tryToUnmount(const std::string& point, bool flushed) {
  std::string why;
  const auto unmounted = [&] {
    try {
      unmountAt(point);
      return true;
    } catch (const std::runtime_error& refusal) {
      why = refusal.what();
      return false;
    }
  };
  return (flushed ? unmounted() : eventually(unmounted)) ? "" : why;
}

testing::AssertionResult WorldTest::nothingIsLost(const WatchedStream& stream) {
  if ((stream.allFlags() & (kMustScan | kUserDropped | kKernelDropped)) == 0) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "a loss that was none: " << stream.describe();
}

std::vector<std::string> WorldTest::listed(WatchedStream& stream, const char* key) {
  std::vector<std::string> paths;
  const auto list = stream.stream().status().objectForKey(key);
  for (std::size_t i = 0; i < list.count(); ++i) {
    const auto entry = list.objectAtIndex(i);
    paths.push_back(entry.isString() ? entry.stringValue() : entry.objectForKey("path").stringValue());
  }
  return paths;
}

void WorldTest::limitMarks(int value) { setLimit(markLimitOf(GetParam()), value); }

void WorldTest::limitQueues(int value) { setLimit(queueLimitOf(GetParam()), value); }

void WorldTest::limitAllQueues(int value) {
  for (const Source source : {Source::Fanotify, Source::Inotify}) setLimit(queueLimitOf(source), value);
}

bool WorldTest::isMarked(const std::string& folder) {
  struct stat facts {};
  if (::stat(folder.c_str(), &facts) != 0) return false;
  const auto marks = kernelMarks();
  return std::find(marks.begin(), marks.end(), facts.st_ino) != marks.end();
}

}  // namespace kestrine::test
