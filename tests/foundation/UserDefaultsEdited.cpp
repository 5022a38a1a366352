// Files that another program edits where they stand: readers leave them alone and keep what they know.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/preferences/PreferencesDomain.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/PreferencesLimitsFor.h"
#include "tests/foundation/UserDefaultsHelper.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::Dictionary;
using platform::Object;
using platform::UserDefaults;
using Kind = platform::PreferencesError::Kind;
using std::chrono::milliseconds;

std::string listWith(const std::string& value) { return "<plist><dict><key>key</key><string>" + value + "</string></dict></plist>"; }

TEST(UserDefaultsEdited, LoseNothingToReadersHoweverOftenTheyLook) {
  useMemoryForTemporaryFolders();
  const TemporaryDirectory folder;
  writeFile(folder / "edited.plist", listWith("0"));
  UserDefaults reader("edited", folder.path());
  ASSERT_EQ(reader.objectForKey("key"), Object("0"));
  const int rounds = longOrShort(300, 60);
  const auto helper = startHelper({.name = "editInPlace", .folder = folder.path(), .count = rounds});
  bool failed = false;
  while (helper->isRunning()) {
    EXPECT_FALSE(reader.objectForKey("key").isNil());
    // As the application does when something has happened to the file.
    UserDefaults("edited", folder.path())
        .exchange(
            "key", [](const Object&) { return Object(); }, &failed);
  }
  ASSERT_EQ(helper->wait(), 0) << helper->output() << helper->errorOutput();
  EXPECT_EQ(reader.objectForKey("key"), Object(std::to_string(rounds)));
  EXPECT_THAT(namesIn(folder.path()), testing::UnorderedElementsAre("edited.plist", "edited.plist.lock"));
}

TEST(UserDefaultsEdited, KeepTheLastGoodValuesInForceAndTellWhatIsWrong) {
  const LimitsInForce limits(kSettledAtOnce);
  const TemporaryDirectory folder;
  writeFile(folder / "edited.plist", listWith("good"));
  UserDefaults defaults("edited", folder.path());
  EXPECT_EQ(defaults.objectForKey("key"), Object("good"));
  EXPECT_FALSE(defaults.lastError());
  writeFile(folder / "edited.plist", "<plist><dict><key>key</key><str");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(defaults.objectForKey("key"), Object("good"));
  ASSERT_TRUE(defaults.lastError());
  EXPECT_EQ(defaults.lastError()->kind, Kind::Damaged);
  EXPECT_TRUE(defaults.synchronize()) << "nothing is to be written";
  writeFile(folder / "edited.plist", listWith("better"));
  EXPECT_EQ(defaults.objectForKey("key"), Object("better"));
  EXPECT_FALSE(defaults.lastError());
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>({"edited.plist"}));
}

TEST(UserDefaultsEdited, TellLargeFilesFromDamagedOnes) {
  const LimitsInForce limits(kSettledAtOnce);
  const TemporaryDirectory folder;
  writeFile(folder / "large.plist", listWith(std::string(17U << 20U, 'x')));
  UserDefaults defaults("large", folder.path());
  EXPECT_TRUE(defaults.objectForKey("key").isNil());
  ASSERT_TRUE(defaults.lastError());
  EXPECT_EQ(defaults.lastError()->kind, Kind::TooLarge);
  EXPECT_EQ(platform::readPreferencesDomain("large", folder.path()).error().kind, Kind::TooLarge);
}

TEST(UserDefaultsEdited, PutTheLastGoodValuesBackWithTheFirstChange) {
  const LimitsInForce limits(kSettledAtOnce);
  const TemporaryDirectory folder;
  writeFile(folder / "edited.plist", listWith("good"));
  UserDefaults defaults("edited", folder.path());
  ASSERT_EQ(defaults.objectForKey("key"), Object("good"));
  writeFile(folder / "edited.plist", "half a");
  defaults.setObject_forKey("new", "other");
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_FALSE(defaults.lastError());
  EXPECT_EQ(UserDefaults("edited", folder.path()).persistentDomainForName("edited"),
            Object(Dictionary{{"key", Object("good")}, {"other", Object("new")}}));
  EXPECT_EQ(readFile(folder / "edited.plist.corrupt"), "half a");
}

/// Whether somebody holds the domain's lock.
bool isLocked(const std::string& path) {
  const platform::FileHandle lock(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return lock.isOpen() && flock(lock.fileDescriptor(), LOCK_EX | LOCK_NB) != 0;
}

TEST(UserDefaultsEdited, AreWaitedForByAWriterThatFindsThemHalfWritten) {
  // Longer than this test can take: what is half written never counts as settled.
  const LimitsInForce limits({.lock = kPatience, .settled = kPatience});
  const TemporaryDirectory folder;
  writeFile(folder / "edited.plist", "<plist><dict><key>key</key><string>ed");
  std::thread writer([&] {
    UserDefaults defaults("edited", folder.path());
    defaults.setObject_forKey("written", "other");
    EXPECT_TRUE(defaults.synchronize());
  });
  EXPECT_TRUE(eventually([&] { return isLocked(folder / "edited.plist.lock"); }));
  appendFile(folder / "edited.plist", "ited</string></dict></plist>");
  writer.join();
  EXPECT_EQ(UserDefaults("edited", folder.path()).persistentDomainForName("edited"),
            Object(Dictionary{{"key", Object("edited")}, {"other", Object("written")}}));
  EXPECT_FALSE(std::filesystem::exists(folder / "edited.plist.corrupt"));
}

TEST(UserDefaultsEdited, AreNotReplacedWhileSomebodyGoesOnWritingThem) {
  const LimitsInForce limits({.lock = milliseconds(300), .settled = kPatience});
  const TemporaryDirectory folder;
  writeFile(folder / "edited.plist", "<plist><dict><key>key</key><string>ed");
  UserDefaults defaults("edited", folder.path());
  defaults.setObject_forKey("written", "other");
  EXPECT_FALSE(defaults.synchronize());
  ASSERT_TRUE(defaults.lastError());
  EXPECT_EQ(defaults.lastError()->kind, Kind::Damaged);
  EXPECT_EQ(readFile(folder / "edited.plist"), "<plist><dict><key>key</key><string>ed");
  EXPECT_FALSE(std::filesystem::exists(folder / "edited.plist.corrupt"));
  writeFile(folder / "edited.plist", listWith("edited"));
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(defaults.persistentDomainForName("edited"), Object(Dictionary{{"key", Object("edited")}, {"other", Object("written")}}));
}

/// Writes as many bytes as there were and puts the file's time of modification back.
void editWithoutATrace(const std::string& path, const std::string& text) {
  struct stat before {};
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  ASSERT_EQ(static_cast<std::size_t>(before.st_size), text.size());
  const platform::FileHandle file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(pwrite(file.fileDescriptor(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  const timespec times[] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(futimens(file.fileDescriptor(), times), 0);
}

TEST(UserDefaultsEdited, AreSeenThoughSizeAndTimeOfModificationAreAsBefore) {
  const TemporaryDirectory folder;
  UserDefaults defaults("edited", folder.path());
  defaults.setObject_forKey("0000", "key");
  ASSERT_TRUE(defaults.synchronize());
  std::string text = readFile(folder / "edited.plist");
  // Within one tick of the kernel's clock after its reading, and long after.
  for (int round = 1; round < 200; ++round) {
    const std::string number = std::to_string(1000 + round);
    text.replace(text.find("<string>") + 8, 4, number);
    editWithoutATrace(folder / "edited.plist", text);
    ASSERT_EQ(defaults.objectForKey("key"), Object(number));
    if (round % 50 != 0) continue;
    std::this_thread::sleep_for(milliseconds(25));
    ASSERT_EQ(defaults.objectForKey("key"), Object(number));
  }
}

}  // namespace
}  // namespace kestrine::test
