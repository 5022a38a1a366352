#include "platform/foundation/preferences/UserDefaults.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "platform/foundation/base/ApplicationIdentifier.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/preferences/PreferencesFolder.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/UserDefaultsHelper.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Object;
using platform::UserDefaults;

struct Status {
  ino_t inode;
  unsigned permissions;
};
Status statusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return {status.st_ino, status.st_mode & 07777U};
}

TEST(UserDefaults, RemembersAValueUntilItIsSynchronized) {
  const TemporaryDirectory folder;
  UserDefaults writer("domain", folder.path());
  UserDefaults reader("domain", folder.path());
  EXPECT_TRUE(writer.objectForKey("key").isNil());
  writer.setObject_forKey("value", "key");
  EXPECT_EQ(writer.objectForKey("key"), Object("value"));
  EXPECT_TRUE(reader.objectForKey("key").isNil());
  EXPECT_TRUE(writer.synchronize());
  EXPECT_EQ(reader.objectForKey("key"), Object("value"));
}

TEST(UserDefaults, KeepsEachDomainInOneXMLFileAndLeavesNothingElse) {
  const TemporaryDirectory folder;
  UserDefaults defaults("Some.Domain", folder.path());
  defaults.setObject_forKey("1", "FileWatcherStatusKey");
  ASSERT_TRUE(defaults.synchronize());
  const auto text = readFile(folder / "Some.Domain.plist");
  EXPECT_EQ(text,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n\t<key>FileWatcherStatusKey</key>\n"
            "\t<string>1</string>\n</dict>\n</plist>\n");
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>({"Some.Domain.plist", "Some.Domain.plist.lock"}));
}

TEST(UserDefaults, MakesMissingFoldersAndFilesForTheirOwnerOnly) {
  const TemporaryDirectory base;
  const std::string folder = base / "a/b/Preferences";
  UserDefaults defaults("domain", folder);
  EXPECT_TRUE(defaults.objectForKey("key").isNil());
  EXPECT_FALSE(std::filesystem::exists(base / "a"));
  defaults.setObject_forKey("value", "key");
  EXPECT_TRUE(defaults.synchronize());
  for (const char* each : {"a", "a/b", "a/b/Preferences"}) EXPECT_EQ(statusOf(base / each).permissions, 0700U) << each;
  EXPECT_EQ(statusOf(folder + "/domain.plist").permissions, 0600U);
  EXPECT_EQ(statusOf(folder + "/domain.plist.lock").permissions, 0600U);
}

TEST(UserDefaults, GivesEveryKindOfValueBackToAnotherReader) {
  const TemporaryDirectory folder;
  const Dictionary values = {
      {"yes", Object::numberWithBool(true)},
      {"integer", Object::numberWithLongLong(-7)},
      {"large", Object::numberWithUnsignedLongLong(18446744073709551615ULL)},
      {"real", Object::numberWithDouble(0.1)},
      {"date", Object(platform::Date{1795250280})},
      {"data", Object(platform::Data{std::byte{0}, std::byte{255}})},
      {"text", Object("<\xC3\xBC>\r\n")},
      {"array", Object(Array{Object("a"), Object(Array())})},
      {"dictionary", Object(Dictionary{{"k", Object::numberWithBool(false)}})},
  };
  UserDefaults writer("domain", folder.path());
  for (const auto& [key, value] : values) writer.setObject_forKey(value, key);
  ASSERT_TRUE(writer.synchronize());
  UserDefaults reader("domain", folder.path());
  for (const auto& [key, value] : values) EXPECT_EQ(reader.objectForKey(key), value) << key;
  EXPECT_EQ(reader.persistentDomainForName("domain"), Object(values));
}

TEST(UserDefaults, HoldsAValueInTheFormInWhichItWillBeReadBack) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  defaults.setObject_forKey(Object::numberWithInt(7), "int");
  defaults.setObject_forKey(platform::Date{5.5}, "date");
  EXPECT_EQ(defaults.objectForKey("int"), Object::numberWithLongLong(7));
  EXPECT_EQ(defaults.objectForKey("date"), Object(platform::Date{5}));
  ASSERT_TRUE(defaults.synchronize());
  EXPECT_EQ(defaults.objectForKey("int"), Object::numberWithLongLong(7));
}

TEST(UserDefaults, RemovesAKey) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  for (const char* key : {"a", "b", "c"}) defaults.setObject_forKey("value", key);
  ASSERT_TRUE(defaults.synchronize());
  defaults.removeObjectForKey("a");
  defaults.setObject_forKey(nullptr, "b");
  EXPECT_TRUE(defaults.objectForKey("a").isNil());
  ASSERT_TRUE(defaults.synchronize());
  EXPECT_EQ(defaults.persistentDomainForName("domain"), Object(Dictionary{{"c", Object("value")}}));
}

TEST(UserDefaults, RefusesValuesAndKeysThatCannotBeStored) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  defaults.setObject_forKey("old", "key");
  const auto refused = [](const auto& call) {
    try {
      call();
      ADD_FAILURE() << "taken";
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
    }
  };
  const Object bad[] = {Object::null(), platform::UUID::random(), Array{Object()}, Dictionary{{"k", Object::null()}}, Object("\x01")};
  for (const auto& value : bad) {
    refused([&] { defaults.setObject_forKey(value, "key"); });
    refused([&] { defaults.setPersistentDomain_forName(Dictionary{{"key", value}}, "other"); });
    refused([&] { defaults.exchange("key", [&](const Object&) { return value; }); });
  }
  refused([&] { defaults.setObject_forKey("value", "\xFF"); });
  refused([&] { defaults.setPersistentDomain_forName(Array(), "other"); });
  refused([&] { defaults.setPersistentDomain_forName(nullptr, "other"); });
  EXPECT_EQ(defaults.objectForKey("key"), Object("old"));
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(defaults.persistentDomainNames(), std::vector<std::string>({"domain"}));
}

TEST(UserDefaults, RefusesIllegalDomainNames) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  using namespace std::string_view_literals;
  for (const auto name : {""sv, "."sv, ".."sv, "a/b"sv, "/"sv, "../x"sv, "a\0b"sv}) {
    EXPECT_THROW(UserDefaults(std::string(name), folder.path()), platform::Exception) << name;
    EXPECT_THROW(defaults.setPersistentDomain_forName(Dictionary(), name), platform::Exception) << name;
    EXPECT_THROW(defaults.removePersistentDomainForName(name), platform::Exception) << name;
    EXPECT_TRUE(defaults.persistentDomainForName(name).isNil()) << name;
  }
  EXPECT_TRUE(namesIn(folder.path()).empty());
}

TEST(UserDefaults, ReadsReplacesListsAndRemovesOtherDomains) {
  const TemporaryDirectory folder;
  UserDefaults defaults("own", folder.path());
  EXPECT_TRUE(defaults.persistentDomainNames().empty());
  EXPECT_TRUE(defaults.persistentDomainForName("Ostrabyte.Kestrine").isNil());
  EXPECT_TRUE(defaults.setPersistentDomain_forName(Dictionary{{"a", Object("1")}, {"b", Object("2")}}, "Ostrabyte.Kestrine"));
  EXPECT_TRUE(defaults.setPersistentDomain_forName(Dictionary{{"kestrinePathKey", Object("/base")}}, "Ostrabyte.Kestrine"));
  EXPECT_EQ(defaults.persistentDomainForName("Ostrabyte.Kestrine"), Object(Dictionary{{"kestrinePathKey", Object("/base")}}));
  EXPECT_TRUE(defaults.setPersistentDomain_forName(Dictionary(), ".Hidden"));
  EXPECT_EQ(defaults.persistentDomainForName(".Hidden"), Object(Dictionary()));
  writeFile(folder / "no domain.txt", "text");
  writeFile(folder / "a.plist.123.tmp", "left over");
  EXPECT_EQ(defaults.persistentDomainNames(), std::vector<std::string>({".Hidden", "Ostrabyte.Kestrine"}));
  EXPECT_TRUE(defaults.removePersistentDomainForName("Ostrabyte.Kestrine"));
  EXPECT_TRUE(defaults.removePersistentDomainForName("Ostrabyte.Kestrine"));
  EXPECT_TRUE(defaults.persistentDomainForName("Ostrabyte.Kestrine").isNil());
  EXPECT_EQ(defaults.persistentDomainNames(), std::vector<std::string>({".Hidden"}));
}

TEST(UserDefaults, AreInTheConfigurationFolder) {
  const TemporaryDirectory base;
  setenv("HOME", base.path().c_str(), 1);
  unsetenv("XDG_CONFIG_HOME");
  EXPECT_EQ(platform::preferencesFolder(), base / ".config/Preferences");
  for (const char* ignored : {"", "relative/folder"}) {
    setenv("XDG_CONFIG_HOME", ignored, 1);
    EXPECT_EQ(platform::preferencesFolder(), base / ".config/Preferences") << ignored;
  }
  setenv("XDG_CONFIG_HOME", (base / "elsewhere").c_str(), 1);
  EXPECT_EQ(platform::preferencesFolder(), base / "elsewhere/Preferences");
  EXPECT_FALSE(std::filesystem::exists(base / "elsewhere"));
}

TEST(UserDefaults, OfTheProcessAreTheDomainOfItsApplicationIdentifier) {
  const TemporaryDirectory base;
  setenv("XDG_CONFIG_HOME", base.path().c_str(), 1);
  platform::setApplicationIdentifier("Test.Application");
  auto& defaults = UserDefaults::standardUserDefaults();
  defaults.setObject_forKey("value", "key");
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_TRUE(std::filesystem::exists(base / "Preferences/Test.Application.plist"));
  EXPECT_EQ(&defaults, &UserDefaults::standardUserDefaults());
}

TEST(UserDefaults, ReadsABinaryFileAndWritesItBackAsXML) {
  const TemporaryDirectory folder;
  using namespace std::string_literals;
  // {"k": "v", "l": true}
  writeFile(folder / "domain.plist",
            "bplist00\xD2\x01\x02\x03\x04\x51k\x51l\x51v\x09\x08\x0D\x0F\x11\x13\0\0\0\0\0\0\x01\x01\0\0\0\0\0\0\0\x05\0\0\0\0\0\0\0\0"
            "\0\0\0\0\0\0\0\x14"s);
  UserDefaults defaults("domain", folder.path());
  EXPECT_EQ(defaults.objectForKey("k"), Object("v"));
  defaults.setObject_forKey("w", "k");
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(readFile(folder / "domain.plist").substr(0, 5), "<?xml");
  EXPECT_EQ(defaults.persistentDomainForName("domain"), Object(Dictionary{{"k", Object("w")}, {"l", Object::numberWithBool(true)}}));
}

}  // namespace
}  // namespace kestrine::test
