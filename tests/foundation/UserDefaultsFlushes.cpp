// "True" says that file and folder are on disk.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/FlushControl.h"
#include "tests/foundation/PreferencesLimitsFor.h"
#include "tests/foundation/UserDefaultsHelper.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::Dictionary;
using platform::Object;
using platform::UserDefaults;
using Kind = platform::PreferencesError::Kind;

class UserDefaultsFlushes : public testing::Test {
 protected:
  UserDefaultsFlushes() { FlushControl::reset(); }
  ~UserDefaultsFlushes() override { FlushControl::reset(); }

  static void expectNotFlushed(UserDefaults& defaults) {
    ASSERT_TRUE(defaults.lastError());
    EXPECT_EQ(defaults.lastError()->kind, Kind::NotFlushed);
  }

  const TemporaryDirectory folder_;
};

TEST_F(UserDefaultsFlushes, AreOneOfTheFileAndOneOfTheFolderForAChange) {
  UserDefaults defaults("domain", folder_.path());
  for (int i = 0; i < 5; ++i) {
    FlushControl::reset();
    defaults.setObject_forKey(Object::numberWithLongLong(i), "key");
    ASSERT_TRUE(defaults.synchronize());
    EXPECT_EQ(FlushControl::files, 1);
    EXPECT_EQ(FlushControl::folders, 1);
    // It is there already, for the first look at the file and for later ones.
    for (int again = 0; again < 3; ++again) {
      defaults.setObject_forKey(Object::numberWithLongLong(i), "key");
      ASSERT_TRUE(defaults.synchronize());
    }
    EXPECT_EQ(FlushControl::files, 1);
    EXPECT_EQ(FlushControl::folders, 1);
  }
}

TEST_F(UserDefaultsFlushes, OfTheFolderThatFailAreToldAndTriedAgain) {
  UserDefaults defaults("domain", folder_.path());
  defaults.setObject_forKey("value", "key");
  FlushControl::foldersToFail = 2;
  EXPECT_FALSE(defaults.synchronize());
  expectNotFlushed(defaults);
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_EQ(defaults.objectForKey("key"), Object("value"));
  FlushControl::folders = 0;
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(FlushControl::folders, 1);
  EXPECT_FALSE(defaults.lastError());
}

TEST_F(UserDefaultsFlushes, OfARemovedDomainThatFailAreToldAndTriedAgain) {
  UserDefaults defaults("domain", folder_.path());
  ASSERT_TRUE(defaults.setPersistentDomain_forName(Dictionary{{"key", Object("value")}}, "other"));
  FlushControl::foldersToFail = 2;
  EXPECT_FALSE(defaults.removePersistentDomainForName("other"));
  expectNotFlushed(defaults);
  EXPECT_FALSE(defaults.removePersistentDomainForName("other"));
  FlushControl::folders = 0;
  EXPECT_TRUE(defaults.removePersistentDomainForName("other"));
  EXPECT_EQ(FlushControl::folders, 1);
}

TEST_F(UserDefaultsFlushes, OfADomainThatIsThereAlreadyAreTriedAgain) {
  UserDefaults defaults("domain", folder_.path());
  const Object values = Dictionary{{"key", Object("value")}};
  FlushControl::foldersToFail = 1;
  EXPECT_FALSE(defaults.setPersistentDomain_forName(values, "other"));
  FlushControl::folders = 0;
  EXPECT_TRUE(defaults.setPersistentDomain_forName(values, "other"));
  EXPECT_EQ(FlushControl::folders, 1);
}

TEST_F(UserDefaultsFlushes, AreOwedForAnExchangeToo) {
  UserDefaults defaults("domain", folder_.path());
  FlushControl::foldersToFail = 1;
  bool failed = false;
  defaults.exchange(
      "key", [](const Object&) { return Object("value"); }, &failed);
  EXPECT_TRUE(failed);
  defaults.exchange("key", [](const Object&) { return Object(); });
  FlushControl::folders = 0;
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(FlushControl::folders, 1);
}

TEST_F(UserDefaultsFlushes, AreMadeForWhatAnotherHasWritten) {
  // As another program writes it, which flushes nothing.
  writeFile(folder_ / "domain.plist", "<plist><dict><key>key</key><string>value</string></dict></plist>");
  UserDefaults defaults("domain", folder_.path());
  defaults.setObject_forKey("value", "key");
  ASSERT_TRUE(defaults.synchronize());
  EXPECT_EQ(FlushControl::files, 1);
  EXPECT_EQ(FlushControl::folders, 1);
  EXPECT_EQ(readFile(folder_ / "domain.plist"), "<plist><dict><key>key</key><string>value</string></dict></plist>");
}

TEST_F(UserDefaultsFlushes, OfTheCopyOfADamagedFileComeBeforeItIsReplaced) {
  const LimitsInForce limits(kSettledAtOnce);
  writeFile(folder_ / "domain.plist", "no property list");
  UserDefaults defaults("domain", folder_.path());
  defaults.setObject_forKey("value", "key");
  FlushControl::foldersToFail = 1;
  EXPECT_FALSE(defaults.synchronize());
  expectNotFlushed(defaults);
  EXPECT_EQ(readFile(folder_ / "domain.plist"), "no property list");
  FlushControl::reset();
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(FlushControl::files, 2);
  EXPECT_EQ(FlushControl::folders, 2);
  EXPECT_EQ(defaults.objectForKey("key"), Object("value"));
}

TEST_F(UserDefaultsFlushes, OfNewFoldersAreMadeInThoseAbove) {
  UserDefaults defaults("domain", folder_ / "a/b/Preferences");
  defaults.setObject_forKey("value", "key");
  ASSERT_TRUE(defaults.synchronize());
  // The one that was there, "a" and "b" for what was made in them, and the last for the file.
  EXPECT_EQ(FlushControl::folders, 4);
  EXPECT_EQ(FlushControl::files, 1);
}

TEST_F(UserDefaultsFlushes, OfNewFoldersThatFailAreToldAndTriedAgain) {
  UserDefaults defaults("domain", folder_ / "a/Preferences");
  defaults.setObject_forKey("value", "key");
  FlushControl::foldersToFail = 1;
  EXPECT_FALSE(defaults.synchronize());
  expectNotFlushed(defaults);
  FlushControl::folders = 0;
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(FlushControl::folders, 3);
}

}  // namespace
}  // namespace kestrine::test
