// Power cuts as far as they can be played: a file system is cut off without writing its log, and mounted again.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/UserDefaultsModel.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {

namespace {

using platform::Object;
using platform::UserDefaults;

/// The same number for ext4 and xfs, and the same word for "without the log".
constexpr unsigned long kShutDown = _IOR('X', 125, std::uint32_t);
constexpr std::uint32_t kWithoutTheLog = 2;

/// What was acknowledged before a cut.
struct Acknowledged {
  std::atomic<long> begun = 0;
  std::atomic<long> written = 0;
  /// Domains are made and removed in turn: odd when the last acknowledged one stands, even when it is gone.
  std::atomic<long> domainBegun = 0;
  std::atomic<long> domain = 0;
  std::atomic<long> foldersMade = 0;
};

/// Until the store says that something is not durable.
void acknowledge(const std::string& folder, Acknowledged& known) {
  UserDefaults defaults("power", folder);
  while (true) {
    const long number = ++known.begun;
    defaults.setObject_forKey(Object::numberWithLongLong(number), "number");
    if (!defaults.synchronize()) return;
    known.written = number;
    if (number % 3 == 0) {
      const long domain = ++known.domainBegun;
      const bool isDone = domain % 2 == 0 ? defaults.removePersistentDomainForName("other")
                                          : defaults.setPersistentDomain_forName(
                                                platform::Dictionary{{"number", Object::numberWithLongLong(domain)}}, "other");
      if (!isDone) return;
      known.domain = domain;
    }
    if (number % 10 == 0) {
      UserDefaults elsewhere("new", folder + "/" + std::to_string(known.foldersMade + 1) + "/Preferences");
      elsewhere.setObject_forKey("value", "key");
      if (!elsewhere.synchronize()) return;
      ++known.foldersMade;
    }
  }
}

/// How many acknowledged things are not there.
int lossesIn(const std::string& folder, const Acknowledged& known) {
  UserDefaults reader("power", folder);
  int losses = 0;
  const auto expect = [&losses](bool holds, const std::string& what) {
    if (holds) return;
    ++losses;
    std::printf("lost: %s\n", what.c_str());
  };
  const long number = reader.objectForKey("number").longLongValue();
  expect(number >= known.written && number <= known.begun,
         "number " + std::to_string(number) + ", acknowledged " + std::to_string(known.written) + ", begun " + std::to_string(known.begun));
  if (known.domain == known.domainBegun) {
    const Object other = reader.persistentDomainForName("other");
    expect(known.domain % 2 == 0 ? other.isNil() : other.objectForKey("number").longLongValue() == known.domain,
           "other, acknowledged " + std::to_string(known.domain) + ": " + other.description());
  }
  for (long made = 1; made <= known.foldersMade; ++made) {
    expect(UserDefaults("new", folder + "/" + std::to_string(made) + "/Preferences").objectForKey("key") == Object("value"),
           "folder " + std::to_string(made));
  }
  return losses;
}

void run(const std::vector<std::string>& command) {
  const Outcome outcome = runToEnd(command);
  if (outcome.status != 0) throw std::runtime_error(command.front() + ": " + outcome.errorOutput);
}

long cutsToPlay() {
  const char* given = std::getenv("KESTRINE_STORE_POWER_CUTS");
  return given != nullptr ? std::atol(given) : longOrShort(8, 3);
}

class UserDefaultsPower : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(, UserDefaultsPower, testing::Values("ext4", "xfs"),
                         [](const auto& parameter) { return std::string(parameter.param); });

TEST_P(UserDefaultsPower, CutsLoseNothingThatWasAcknowledged) {
  const TemporaryDirectory folder;
  const std::string type = GetParam();
  if (geteuid() != 0 || access("/dev/loop-control", R_OK | W_OK) != 0)
    GTEST_SKIP() << "left out: power cuts of " << type << ", because the user has not the rights to mount a file";
  writeFile(folder / "image", "");
  std::filesystem::resize_file(folder / "image", std::uintmax_t{type == "ext4" ? 64U : 320U} << 20U);
  const auto made = runToEnd({"mkfs." + type, "-q", type == "ext4" ? "-F" : "-f", folder / "image"});
  if (made.status != 0) GTEST_SKIP() << "left out: power cuts of " << type << ", because it cannot be made here: " << made.errorOutput;
  makeFolder(folder / "mounted");
  if (const auto mounted = runToEnd({"unshare", "-m", "mount", "-o", "loop", folder / "image", folder / "mounted"}); mounted.status != 0)
    GTEST_SKIP() << "left out: power cuts of " << type << ", because it cannot be mounted here: " << mounted.errorOutput;
  Process::Options options;
  const long cuts = cutsToPlay();
  options.environment = helperEnvironment({.name = "cutThePower", .folder = folder.path(), .count = static_cast<int>(cuts)});
  const auto outcome =
      runToEnd({"unshare", "-m", helperCommand().front()}, options, std::chrono::minutes(5) + std::chrono::seconds(2) * cuts);
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
  std::printf("%s", outcome.output.c_str());
  EXPECT_NE(outcome.output.find(std::to_string(cuts) + " cuts, 0 losses"), std::string::npos) << outcome.output << outcome.errorOutput;
}

}  // namespace

void cutThePower(const HelperJob& job) {
  const std::string point = job.folder + "/mounted";
  std::minstd_rand random(4711);
  long acknowledged = 0;
  int losses = 0;
  for (int cut = 0; cut < job.count; ++cut) {
    run({"mount", "-o", "loop", job.folder + "/image", point});
    const std::string folder = point + "/round " + std::to_string(cut);
    makeFolder(folder);
    {
      const platform::FileHandle root(open(point.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      if (syncfs(root.fileDescriptor()) != 0) throw std::runtime_error("syncfs");
    }
    Acknowledged known;
    {
      std::thread writer([&] { acknowledge(folder, known); });
      // Not only in the first moments of a file system that has nothing to do.
      const long enough = 1 + static_cast<long>(random() % 40);
      eventually([&] { return known.written >= enough; });
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
      const platform::FileHandle root(open(point.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      std::uint32_t how = kWithoutTheLog;
      if (ioctl(root.fileDescriptor(), kShutDown, &how) != 0) throw std::runtime_error("the file system cannot be cut off");
      writer.join();
    }
    run({"umount", point});
    run({"mount", "-o", "loop", job.folder + "/image", point});
    losses += lossesIn(folder, known);
    acknowledged += known.written;
    std::filesystem::remove_all(folder);
    run({"umount", point});
  }
  std::printf("%d cuts, %d losses, %ld acknowledged values\n", job.count, losses, acknowledged);
  std::fflush(stdout);
}

}  // namespace kestrine::test
