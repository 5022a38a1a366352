#include "platform/foundation/preferences/PreferencesDomain.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/PreferencesLimitsFor.h"
#include "tests/foundation/UserDefaultsHelper.h"
#include "tests/support/TemporaryDirectory.h"

namespace platform {
namespace {

using kestrine::test::giveToUnprivileged;
using kestrine::test::makeFolder;
using kestrine::test::readFile;
using kestrine::test::runHelper;
using kestrine::test::TemporaryDirectory;
using kestrine::test::writeFile;
using Kind = PreferencesError::Kind;

TEST(PreferencesDomain, HasItsFileInThePreferencesFolder) {
  const TemporaryDirectory base;
  setenv("XDG_CONFIG_HOME", base.path().c_str(), 1);
  EXPECT_EQ(preferencesFileName("Some.Domain"), "Some.Domain.plist");
  EXPECT_EQ(preferencesFilePath("Some.Domain"), base / "Preferences/Some.Domain.plist");
  EXPECT_EQ(preferencesFilePath("Some.Domain", "/folder"), "/folder/Some.Domain.plist");
}

TEST(PreferencesDomain, IsReadAsItStandsOnDisk) {
  const TemporaryDirectory folder;
  ASSERT_TRUE(UserDefaults("stored", folder.path()).setPersistentDomain_forName(Dictionary{{"key", "value"}}, "stored"));
  const auto values = readPreferencesDomain("stored", folder.path());
  ASSERT_TRUE(values);
  EXPECT_EQ(*values, Object(Dictionary{{"key", "value"}}));
}

TEST(PreferencesDomain, WithoutAFileOrAFolderIsNone) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "");
  for (const std::string& place : {folder.path(), folder / "missing", folder / "file"}) {
    const auto values = readPreferencesDomain("stored", place);
    ASSERT_FALSE(values) << place;
    EXPECT_EQ(values.error().kind, Kind::NoSuchDomain) << place;
  }
}

TEST(PreferencesDomain, OfADamagedFileSaysWhatIsWrongHoweverOftenItIsAsked) {
  const kestrine::test::LimitsInForce limits(kestrine::test::kSettledAtOnce);
  const TemporaryDirectory folder;
  writeFile(folder / "stored.plist", "<plist><array/></plist>");
  for (int i = 0; i < 3; ++i) {
    const auto values = readPreferencesDomain("stored", folder.path());
    ASSERT_FALSE(values);
    EXPECT_EQ(values.error().kind, Kind::Damaged);
    EXPECT_EQ(values.error().reason, "it holds no dictionary");
    EXPECT_EQ(readFile(folder / "stored.plist"), "<plist><array/></plist>");
  }
}

TEST(PreferencesDomain, ThatIsNoFileIsRefused) {
  const TemporaryDirectory folder;
  makeFolder(folder / "stored.plist");
  const auto values = readPreferencesDomain("stored", folder.path());
  ASSERT_FALSE(values);
  EXPECT_EQ(values.error().kind, Kind::Refused);
  EXPECT_EQ(values.error().reason, "Is a directory");
}

TEST(PreferencesDomain, SaysWhoMayNotReadItAndWhatIsDamaged) {
  const TemporaryDirectory folder;
  writeFile(folder / "closed.plist", "<plist><dict/></plist>");
  writeFile(folder / "damaged.plist", "<plist><array/></plist>");
  giveToUnprivileged(folder / "closed.plist", 0000);
  giveToUnprivileged(folder / "damaged.plist", 0400);
  giveToUnprivileged(folder.path(), 0500);
  const auto outcome = runHelper({.name = "readDomainsWithoutRights", .folder = folder.path(), .unprivileged = true});
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
  EXPECT_EQ(outcome.output, "closed: refused, Permission denied\ndamaged: damaged, it holds no dictionary\n") << outcome.errorOutput;
  EXPECT_EQ(outcome.errorOutput, "");
  giveToUnprivileged(folder.path(), 0700);
}

TEST(PreferencesDomain, HasAFileNameForItsName) {
  const TemporaryDirectory folder;
  using namespace std::string_literals;
  for (const std::string& name : {""s, "."s, ".."s, "a/b"s, "a\0b"s}) {
    EXPECT_FALSE(isPreferencesDomainName(name)) << name;
    EXPECT_THROW(static_cast<void>(readPreferencesDomain(name, folder.path())), Exception) << name;
  }
  EXPECT_TRUE(isPreferencesDomainName("..."));
}

}  // namespace
}  // namespace platform
