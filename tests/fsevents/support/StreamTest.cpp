#include "tests/fsevents/support/StreamTest.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kestrine::test {

namespace {

// Written out because the C library's header may be older than the kernel.
constexpr unsigned kReportFid = 0x200;
constexpr unsigned kReportFolderName = 0xC00;
constexpr unsigned kReportTarget = 0x1000;
constexpr std::uint64_t kRename = 0x10000000;

std::string failed(const std::string& call) { return call + ": " + std::strerror(errno); }

std::string whyFanotifyIsMissing(const std::string& folder) {
  const int group = fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | kReportFid | kReportFolderName | kReportTarget, O_RDONLY);
  if (group < 0) return failed("fanotify_init");
  std::string why;
  if (fanotify_mark(group, FAN_MARK_ADD | FAN_MARK_ONLYDIR, FAN_CREATE | kRename | FAN_ONDIR, AT_FDCWD, folder.c_str()) != 0) {
    why = failed("fanotify_mark");
  }
  ::close(group);
  return why;
}

std::string whyInotifyIsMissing() {
  const int group = inotify_init1(IN_CLOEXEC);
  if (group < 0) return failed("inotify_init1");
  ::close(group);
  return {};
}

}  // namespace

std::string sourceName(Source source) { return source == Source::Fanotify ? "fanotify" : "inotify"; }

std::string markLimitOf(Source source) { return source == Source::Fanotify ? "max_fanotify_marks" : "max_inotify_watches"; }

std::string queueLimitOf(Source source) { return source == Source::Fanotify ? "max_fanotify_groups" : "max_inotify_instances"; }

std::string nameOfParameter(const testing::TestParamInfo<Source>& parameter) { return sourceName(parameter.param); }

std::string whyMissing(Source source) {
  const TemporaryDirectory folder;
  return source == Source::Fanotify ? whyFanotifyIsMissing(folder.path()) : whyInotifyIsMissing();
}

void StreamTest::SetUp() {
  if (const auto why = whyMissing(GetParam()); !why.empty()) {
    GTEST_SKIP() << "left out: streams over " << sourceName(GetParam()) << ", because the kernel refuses " << why;
  }
  root_ = base_ / "root";
  makeFolder(root_);
  makeFolder(base_ / "outside");
}

std::unique_ptr<WatchedStream> StreamTest::watch(StreamOptions options) {
  auto stream = std::make_unique<WatchedStream>(GetParam(), std::move(options));
  EXPECT_TRUE(stream->started()) << stream->stream().status().description();
  // A stream that has no folder yet has no source yet either.
  const auto status = stream->stream().status();
  const auto taken = status.objectForKey("source").stringValue();
  EXPECT_TRUE(taken == sourceName(GetParam()) || (taken.empty() && status.objectForKey("foldersMarked").intValue() == 0)) << taken;
  return stream;
}

testing::AssertionResult StreamTest::marksAreThoseOf(WatchedStream& stream, const std::vector<std::string>& roots) {
  std::string difference;
  const bool same = eventually([&] {
    difference = differenceOfMarks(kernelMarks(), roots);
    const auto folders = countFolders(roots);
    const auto told = stream.stream().status().objectForKey("foldersMarked").unsignedLongLongValue();
    if (told != folders) {
      difference += "status says foldersMarked = " + std::to_string(told) + ", there are " + std::to_string(folders) + " folders\n";
    }
    return difference.empty();
  });
  if (same) return testing::AssertionSuccess();
  return testing::AssertionFailure() << difference;
}

}  // namespace kestrine::test
