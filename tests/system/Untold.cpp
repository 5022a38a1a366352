// Nothing that a watch has seen is left untold: by a second call, by the end of the service, by a flag that cannot be written for a while.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>
#include <tuple>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/value/Dictionary.h"
#include "platform/xpc/service/ServiceStatusQuery.h"
#include "tests/system/WatcherFixture.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::HasSubstr;
using testing::Not;

struct HostingPath {
  const char* version;
  const char* name;
};
constexpr HostingPath kListener{"14.0.0", "Listener"};
constexpr HostingPath kMessages{"10.7.5", "Messages"};

/// By hosting path and by source.
class Untold : public WatcherService, public testing::WithParamInterface<std::tuple<HostingPath, const char*>> {
 protected:
  Untold() { setBasePath(base()); }
  void SetUp() override {
    const auto& [hosting, source] = GetParam();
    if (!useSource(source)) GTEST_SKIP() << "left out: " << source << ", because the kernel has it not";
    startService({}, {{"KESTRINE_SYSTEM_VERSION", hosting.version}, {"KESTRINE_FSEVENTS_SOURCE", source}});
  }

  [[nodiscard]] std::string flagFile() const { return folder("config/Preferences/Ostrabyte.FileWatcherXpcService.plist"); }
  /// Tells the service to end, which it does in order; how long it took.
  std::chrono::milliseconds endService() {
    const auto begin = std::chrono::steady_clock::now();
    service().signal(SIGTERM);
    EXPECT_EQ(service().wait(), 0);
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
  }
  /// The lock of the preferences with the flag, taken by somebody else than the service.
  [[nodiscard]] platform::FileHandle heldLock() const {
    std::filesystem::create_directories(folder("config/Preferences"));
    platform::FileHandle lock(open((flagFile() + ".lock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(flock(lock.fileDescriptor(), LOCK_EX), 0);
    return lock;
  }
  /// What the status says of a flag that cannot be raised; nil when it says nothing.
  static Object owedFlag() {
    const auto status = platform::xpc::queryServiceStatus(kServiceName, std::chrono::seconds(5));
    if (!status) return {};
    const Object section = status->objectForKey("owedFlag");
    return section.isArray() && section.count() > 0 ? section.arrayValue().front() : Object();
  }
  static bool eventuallyOwed(const std::string& reason) {
    return eventually([&] {
      const Object owed = owedFlag();
      return owed.isDictionary() && owed.objectForKey("since").kind() == Object::Kind::Date &&
             owed.objectForKey("reason").stringValue().find(reason) != std::string::npos;
    });
  }
  void limitService(__rlimit_resource resource, rlim_t soft) {
    rlimit limit{};
    ASSERT_EQ(prlimit(service().pid(), resource, nullptr, &limit), 0);
    limit.rlim_cur = soft == RLIM_INFINITY ? limit.rlim_max : soft;
    ASSERT_EQ(prlimit(service().pid(), resource, &limit, nullptr), 0);
  }
};

std::string nameOfRow(const testing::TestParamInfo<Untold::ParamType>& row) {
  return std::string(std::get<0>(row.param).name) + "_" + std::get<1>(row.param);
}

INSTANTIATE_TEST_SUITE_P(Everywhere, Untold,
                         testing::Combine(testing::Values(kListener, kMessages), testing::Values("fanotify", "inotify")), nameOfRow);

TEST_P(Untold, TheEndOfTheServiceTellsWhatWasSeenJustBefore) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  writeFile(in("file"), "text");
  endService();
  EXPECT_EQ(flag(), Object("1"));
  EXPECT_EQ(toldPaths(), std::vector<std::string>{in("file")});
}

TEST_P(Untold, TheEndOfTheServiceTellsWhatEachOfItsWatchesHasSeen) {
  Application first;
  first.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  makeFolder(folder("other"));
  makeFolder(folder("other/Kestrine"));
  setBasePath(folder("other"));
  Application second;
  second.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1, 2}));
  writeFile(in("file"), "text");
  writeFile(folder("other/Kestrine/file"), "text");
  endService();
  EXPECT_EQ(flag(), Object("1"));
  EXPECT_THAT(toldPaths(), testing::UnorderedElementsAre(in("file"), folder("other/Kestrine/file")));
}

TEST_P(Untold, TheEndOfASessionTellsWhatWasSeenJustBefore) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  writeFile(in("file"), "text");
  // As a session's processes are ended: the one right behind the other.
  service().signal(SIGTERM);
  service().signal(SIGHUP);
  EXPECT_EQ(service().wait(), 0);
  EXPECT_EQ(flag(), Object("1"));
}

TEST_P(Untold, TheEndOfTheServiceInventsNothing) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  endService();
  EXPECT_TRUE(flag().isNil());
  EXPECT_THAT(log(), Not(HasSubstr("the flag could not be raised")));
}

TEST_P(Untold, TheEndOfTheServiceWaitsForTheLockOfThePreferences) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  platform::FileHandle lock = heldLock();
  writeFile(in("file"), "text");
  service().signal(SIGTERM);
  ASSERT_TRUE(service().waitForErrorOutput("the service was told to end"));
  lock.closeFile();
  EXPECT_EQ(service().wait(), 0);
  EXPECT_EQ(flag(), Object("1"));
}

TEST_P(Untold, TheEndOfTheServiceSaysWhatCouldNotBeDone) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  const platform::FileHandle lock = heldLock();
  writeFile(in("file"), "text");
  endService();
  EXPECT_THAT(log(), HasSubstr("the flag could not be raised before the end, though something changed: "));
}

TEST_P(Untold, AFlagThatCouldNotBeWrittenIsRaisedWhenThereIsRoomAgain) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  limitService(RLIMIT_FSIZE, 0);
  writeFile(in("file"), "text");
  ASSERT_TRUE(eventuallyOwed("writing the temporary file: File too large"));
  EXPECT_TRUE(flag().isNil());
  limitService(RLIMIT_FSIZE, RLIM_INFINITY);
  EXPECT_TRUE(eventuallyFlagged());
  EXPECT_TRUE(eventually([] { return owedFlag().isNil(); }));
  EXPECT_EQ(occurrences(log(), "[Block] URLWatcher: "), 1U) << "by itself, and not with the next change";
}

TEST_P(Untold, AFlagThatCouldNotBeWrittenIsRaisedWhenThereAreDescriptorsAgain) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  limitService(RLIMIT_NOFILE, 3);
  writeFile(in("file"), "text");
  ASSERT_TRUE(service().waitForErrorOutput("cannot be written: opening the folder: Too many open files"));
  EXPECT_TRUE(flag().isNil());
  limitService(RLIMIT_NOFILE, RLIM_INFINITY);
  EXPECT_TRUE(eventuallyFlagged());
  EXPECT_TRUE(eventually([] { return owedFlag().isNil(); }));
}

TEST_P(Untold, AFlagThatCouldNotBeWrittenIsRaisedWhenItsFolderCanBeWrittenAgain) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  // Nothing can be put in place of a folder, by root neither.
  std::filesystem::create_directories(flagFile());
  writeFile(in("file"), "text");
  ASSERT_TRUE(eventuallyOwed(""));
  std::filesystem::remove(flagFile());
  EXPECT_TRUE(eventuallyFlagged());
  EXPECT_TRUE(eventually([] { return owedFlag().isNil(); }));
}

TEST_P(Untold, AFlagThatCouldNotBeWrittenIsRaisedWhenItsFolderIsReadOnlyNoLonger) {
  if (geteuid() == 0) GTEST_SKIP() << "left out: a folder that is read-only, because root writes everywhere";
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  const std::filesystem::path preferences = folder("config/Preferences");
  std::filesystem::permissions(preferences, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
  writeFile(in("file"), "text");
  ASSERT_TRUE(eventuallyOwed("Permission denied"));
  std::filesystem::permissions(preferences, std::filesystem::perms::owner_all);
  EXPECT_TRUE(eventuallyFlagged());
  EXPECT_TRUE(eventually([] { return owedFlag().isNil(); }));
}

TEST_P(Untold, AFlagThatIsOwedIsRaisedAtTheEndIfItCanBeByThen) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  limitService(RLIMIT_FSIZE, 0);
  writeFile(in("file"), "text");
  ASSERT_TRUE(eventuallyOwed("File too large"));
  limitService(RLIMIT_FSIZE, RLIM_INFINITY);
  endService();
  EXPECT_EQ(flag(), Object("1"));
}

/// Where a connection has a watch of its own that its next call replaces.
class UntoldByReplacement : public Untold {
 protected:
  static bool standsNow(std::int64_t number) {
    return std::ranges::any_of(watches(), [number](const Object& watch) {
      return watch.objectForKey("number").longLongValue() == number && watch.objectForKey("state") == Object("standing");
    });
  }
};

INSTANTIATE_TEST_SUITE_P(WithAListener, UntoldByReplacement,
                         testing::Combine(testing::Values(kListener), testing::Values("fanotify", "inotify")), nameOfRow);

TEST_P(UntoldByReplacement, ASecondCallTellsWhatTheFirstWatchHasSeen) {
  Application application;
  application.callToFileWatcher();
  for (std::int64_t number = 1; number <= 6; ++number) {
    ASSERT_TRUE(eventuallyStanding({number}));
    resetFlag();
    writeFile(in("file" + std::to_string(number)), "text");
    application.callToFileWatcher();
    ASSERT_TRUE(eventuallyFlagged()) << number;
  }
}

TEST_P(UntoldByReplacement, AChangeRightBehindTheCallIsTold) {
  Application application;
  application.callToFileWatcher();
  makeFolder(folder("other"));
  makeFolder(folder("other/Kestrine"));
  for (std::int64_t number = 1; number <= 6; ++number) {
    ASSERT_TRUE(eventuallyStanding({number}));
    resetFlag();
    application.callToFileWatcher();
    writeFile(in("file" + std::to_string(number)), "text");
    ASSERT_TRUE(eventuallyFlagged()) << number;
  }
}

TEST_P(UntoldByReplacement, WhatChangesMeanwhileIsToldByOneOfTheTwo) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  std::vector<std::string> made;
  for (std::int64_t number = 2; number <= 9; ++number) {
    application.callToFileWatcher();
    // Each of a few hundred names stands for a moment of the change from one watch to the other.
    while (!standsNow(number)) {
      for (int i = 0; i < 4; ++i) {
        made.push_back(in(std::to_string(number) + "-" + std::to_string(made.size())));
        writeFile(made.back(), "text");
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
    }
  }
  // The log is still being written, so nothing else is taken from it.
  const auto everything = [&] {
    const std::string text = log();
    return std::ranges::all_of(made, [&text](const std::string& path) { return text.find(path + ", flags = ") != std::string::npos; });
  };
  EXPECT_TRUE(eventually(everything)) << made.size() << " files were made";
}

TEST_P(UntoldByReplacement, AWatchOfAnotherFolderLetsTheFormerTellFirst) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  makeFolder(folder("other"));
  makeFolder(folder("other/Kestrine"));
  setBasePath(folder("other"));
  writeFile(in("file"), "text");
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({2}));
  EXPECT_TRUE(eventuallyTold(1));
  EXPECT_EQ(toldPaths(), std::vector<std::string>{in("file")});
  EXPECT_EQ(flag(), Object("1"));
}

TEST_P(UntoldByReplacement, AReplacementThatFailsLetsTheFormerTellFirst) {
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  setBasePath("/no such/base");
  writeFile(in("file"), "text");
  application.callToFileWatcher();
  EXPECT_TRUE(eventuallyFlagged());
}

}  // namespace
}  // namespace kestrine::test
