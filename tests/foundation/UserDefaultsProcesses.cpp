// Two processes at one store: no signal is lost, and no kill leaves half a file.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <random>
#include <set>
#include <thread>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "tests/foundation/UserDefaultsHelper.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::Object;
using platform::UserDefaults;

/// Memory shared with the helper.
class Shared {
 public:
  explicit Shared(const std::string& path) {
    const platform::FileHandle file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(ftruncate(file.fileDescriptor(), sizeof(SharedRounds)), 0);
    rounds_ = static_cast<SharedRounds*>(mmap(nullptr, sizeof(SharedRounds), PROT_READ | PROT_WRITE, MAP_SHARED, file.fileDescriptor(), 0));
  }
  ~Shared() { munmap(rounds_, sizeof(SharedRounds)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  SharedRounds* operator->() const { return rounds_; }

 private:
  SharedRounds* rounds_;
};

/// The application's side: looks for the flag, resets it, and writes a key of its own meanwhile.
class Resetting {
 public:
  explicit Resetting(const std::string& folder) : folder_(folder), defaults_("flag", folder) {}

  /// Whether the flag was up; it is down then. Each second signal is looked for with the cheap look alone, the others with the exchange
  /// alone, so that neither makes up for what the other misses.
  bool reset() {
    const bool raised = (signals_ % 2 == 0 || isRaised(defaults_)) && exchange() == Object("1");
    if (raised) {
      ++signals_;
      looks_ = 0;
    } else if (++looks_ % 256 == 0) {
      UserDefaults newReader("flag", folder_);
      // Nobody else lowers it.
      const bool missed = isRaised(newReader) && !isRaised(defaults_);
      EXPECT_FALSE(missed) << "the cheap look does not see what is on disk";
    }
    return raised;
  }
  bool writeAnotherKey() {
    defaults_.setObject_forKey(Object::numberWithInt(signals_), "seen");
    return defaults_.synchronize();
  }
  [[nodiscard]] int signals() const { return signals_; }

 private:
  static bool isRaised(UserDefaults& defaults) { return defaults.objectForKey("FileWatcherStatusKey") == Object("1"); }
  Object exchange() {
    return defaults_.exchange("FileWatcherStatusKey", [](const Object& value) { return value == Object("1") ? Object("0") : Object(); });
  }

  const std::string folder_;
  UserDefaults defaults_;
  int signals_ = 0;
  int looks_ = 0;
};

/// Without sleeping, so that looks begin at any moment of what the other process does.
void waitUpTo(std::chrono::microseconds longest, std::minstd_rand& random) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(random() % longest.count());
  while (std::chrono::steady_clock::now() < end) {
  }
}

TEST(UserDefaultsProcesses, LoseNoSignalHoweverFastItIsSetAndReset) {
  useMemoryForTemporaryFolders();
  const TemporaryDirectory folder;
  const Shared shared(folder / "rounds");
  // Half as many notice a version that is not the one that was read ten times out of ten; 200 do a writer without the lock.
  const int rounds = longOrShort(25000, 2000);
  const auto helper = startHelper({.name = "raiseFlags", .folder = folder.path(), .count = rounds});
  Resetting application(folder.path());
  std::minstd_rand random(4711);
  auto lastProgress = std::chrono::steady_clock::now();
  for (int covered = 0; covered < rounds && !HasFailure();) {
    if (application.reset()) {
      // Whatever happened before the reset is what this signal told of.
      covered = std::atomic_ref(shared->events);
      std::atomic_ref(shared->covered) = covered;
      lastProgress = std::chrono::steady_clock::now();
      ASSERT_TRUE(application.writeAnotherKey());
      waitUpTo(std::chrono::microseconds(400), random);
    } else if (std::chrono::steady_clock::now() - lastProgress > std::chrono::seconds(60)) {
      FAIL() << "the signal of event " << std::atomic_ref(shared->events) << " was lost; covered " << covered << ": " << helper->output()
             << helper->errorOutput();
    } else {
      std::this_thread::yield();
    }
  }
  ASSERT_FALSE(HasFailure());
  EXPECT_EQ(helper->wait(), 0) << helper->output() << helper->errorOutput();
  EXPECT_GE(application.signals(), rounds);
  UserDefaults defaults("flag", folder.path());
  EXPECT_EQ(defaults.objectForKey("round").intValue(), rounds);
  EXPECT_EQ(defaults.objectForKey("seen").intValue(), application.signals());
}

TEST(UserDefaultsProcesses, KilledAtAnyMomentLeaveAWholeFile) {
  const TemporaryDirectory folder;
  // A file that has its name before its bytes is noticed ten times out of ten by so many, and six times by thirty.
  const int kills = longOrShort(200, 30);
  std::minstd_rand random(4711);
  std::set<long> lengths;
  // Where the disk is slow, few writers get as far as a second text in so short a time: they are given more, until some do.
  for (int kill = 0; kill < kills || (lengths.size() < 2 && kill < 20 * kills); ++kill) {
    const auto longest = static_cast<unsigned>(5000 * (1 + kill / kills));
    const auto helper = startHelper({.name = "writeForEver", .folder = folder.path(), .count = 60000});
    ASSERT_TRUE(helper->waitForOutput("writing")) << helper->errorOutput();
    std::this_thread::sleep_for(std::chrono::microseconds(random() % longest));
    helper->signal(SIGKILL);
    ASSERT_EQ(helper->wait(), 128 + SIGKILL);
    UserDefaults defaults("killed", folder.path());
    const Object values = defaults.persistentDomainForName("killed");
    ASSERT_EQ(values.count(), 2U);
    ASSERT_EQ(values.objectForKey("text").stringValue().size(), values.objectForKey("length").unsignedLongLongValue());
    lengths.insert(values.objectForKey("length").longLongValue());
  }
  EXPECT_GT(lengths.size(), 1U);
  UserDefaults defaults("killed", folder.path());
  defaults.setObject_forKey("last", "text");
  EXPECT_TRUE(defaults.synchronize());
  std::vector<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(folder.path())) left.push_back(entry.path().filename());
  EXPECT_THAT(left, testing::UnorderedElementsAre("killed.plist", "killed.plist.lock"));
}

TEST(UserDefaultsProcesses, ReadOnlyWholeFilesWhileAnotherWrites) {
  useMemoryForTemporaryFolders();
  const TemporaryDirectory folder;
  const auto helper = startHelper({.name = "writeForEver", .folder = folder.path(), .count = 2000});
  ASSERT_TRUE(helper->waitForOutput("writing")) << helper->errorOutput();
  UserDefaults defaults("killed", folder.path());
  std::set<long> lengths;
  // Half as many notice a file that is removed before the new one takes its place ten times out of ten.
  const int reads = longOrShort(400, 200);
  for (int i = 0; i < reads || lengths.size() < 3; ++i) {
    const Object values = defaults.persistentDomainForName("killed");
    ASSERT_EQ(values.count(), 2U) << "it was not there";
    ASSERT_EQ(values.objectForKey("text").stringValue().size(), values.objectForKey("length").unsignedLongLongValue());
    lengths.insert(values.objectForKey("length").longLongValue());
  }
  helper->signal(SIGKILL);
  EXPECT_EQ(helper->wait(), 128 + SIGKILL);
  EXPECT_FALSE(std::filesystem::exists(folder / "killed.plist.corrupt"));
}

}  // namespace
}  // namespace kestrine::test
