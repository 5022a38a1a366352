#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/PreferencesLimitsFor.h"
#include "tests/foundation/UserDefaultsHelper.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::Dictionary;
using platform::Object;
using platform::UserDefaults;

TEST(UserDefaultsFailures, KeepACorruptFileAsideSayItAndCountItAsEmpty) {
  const LimitsInForce limits(kSettledAtOnce);
  const TemporaryDirectory folder;
  testing::internal::CaptureStderr();
  UserDefaults reader("domain", folder.path());
  writeFile(folder / "domain.plist", "no property list");
  EXPECT_TRUE(reader.objectForKey("key").isNil());
  EXPECT_EQ(readFile(folder / "domain.plist"), "no property list");
  UserDefaults writer("domain", folder.path());
  writer.setObject_forKey("value", "key");
  EXPECT_TRUE(writer.synchronize());
  EXPECT_EQ(readFile(folder / "domain.plist.corrupt"), "no property list");
  EXPECT_EQ(reader.objectForKey("key"), Object("value"));

  writeFile(folder / "domain.plist", "<plist><array/></plist>");
  EXPECT_EQ(reader.objectForKey("key"), Object("value"));
  UserDefaults newWriter("domain", folder.path());
  EXPECT_TRUE(newWriter.objectForKey("key").isNil());
  newWriter.setObject_forKey("new", "other");
  EXPECT_TRUE(newWriter.synchronize());
  EXPECT_EQ(readFile(folder / "domain.plist.corrupt.2"), "<plist><array/></plist>");
  EXPECT_EQ(readFile(folder / "domain.plist.corrupt"), "no property list");
  EXPECT_TRUE(reader.objectForKey("key").isNil());
  EXPECT_EQ(reader.objectForKey("other"), Object("new"));
  EXPECT_EQ(reader.persistentDomainNames(), std::vector<std::string>({"domain"}));
  platform::flushLog();
  EXPECT_EQ(occurrences(testing::internal::GetCapturedStderr(), "are no property list"), 2);
}

TEST(UserDefaultsFailures, KeepABoundedNumberOfCorruptFiles) {
  const LimitsInForce limits(kSettledAtOnce);
  const TemporaryDirectory folder;
  testing::internal::CaptureStderr();
  UserDefaults defaults("domain", folder.path());
  for (int i = 0; i < 110; ++i) {
    writeFile(folder / "domain.plist", "corrupt " + std::to_string(i));
    defaults.setObject_forKey(Object::numberWithLongLong(i), "key");
    EXPECT_TRUE(defaults.synchronize());
  }
  platform::flushLog();
  EXPECT_EQ(occurrences(testing::internal::GetCapturedStderr(), "are no property list"), 110);
  const auto files = std::distance(std::filesystem::directory_iterator(folder.path()), std::filesystem::directory_iterator());
  EXPECT_EQ(files, 102);  // 100 of them, the file and the lock file
  EXPECT_EQ(readFile(folder / "domain.plist.corrupt"), "corrupt 0");
  EXPECT_EQ(readFile(folder / "domain.plist.corrupt.100"), "corrupt 109");
}

TEST(UserDefaultsFailures, SurviveHostileFiles) {
  const LimitsInForce limits(kSettledAtOnce);
  const TemporaryDirectory folder;
  std::string deep = "<plist><dict><key>a</key>";
  for (int i = 0; i < 100000; ++i) deep += "<array>";
  using namespace std::string_literals;
  const std::string cycle = "bplist00\xD1\x01\x00\x51k\x08\x0B\0\0\0\0\0\0\x01\x01\0\0\0\0\0\0\0\x02\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x0D"s;
  const std::string hostile[] = {
      deep, cycle, std::string(20U << 20U, ' '),
      "",   "\0"s, "<plist><dict><key>a</key><string>" + std::string(20U << 20U, 'a') + "</string></dict></plist>"};
  int number = 1;
  for (const auto& each : hostile) {
    UserDefaults defaults("domain", folder.path());
    writeFile(folder / "domain.plist", each);
    EXPECT_TRUE(defaults.objectForKey("a").isNil());
    EXPECT_EQ(std::filesystem::file_size(folder / "domain.plist"), each.size());
    defaults.setObject_forKey("value", "a");
    EXPECT_TRUE(defaults.synchronize());
    EXPECT_EQ(std::filesystem::file_size(folder / ("domain.plist.corrupt" + (number == 1 ? "" : "." + std::to_string(number)))),
              each.size());
    ++number;
  }
}

TEST(UserDefaultsFailures, RefuseToWriteMoreThanCouldBeReadAgain) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  defaults.setObject_forKey("value", "key");
  ASSERT_TRUE(defaults.synchronize());
  defaults.setObject_forKey(std::string(platform::kPropertyListMaximumSize, 'x'), "large");
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_EQ(UserDefaults("domain", folder.path()).objectForKey("key"), Object("value"));
  defaults.removeObjectForKey("large");
  EXPECT_TRUE(defaults.synchronize());
}

TEST(UserDefaultsFailures, RefuseAFileThatIsNoFile) {
  const TemporaryDirectory folder;
  makeFolder(folder / "folder.plist");
  ASSERT_EQ(mkfifo((folder / "pipe.plist").c_str(), 0600), 0);
  for (const char* domain : {"folder", "pipe"}) {
    UserDefaults defaults(domain, folder.path());
    EXPECT_TRUE(defaults.objectForKey("key").isNil());
    defaults.setObject_forKey("value", "key");
    EXPECT_FALSE(defaults.synchronize()) << domain;
    EXPECT_EQ(defaults.objectForKey("key"), Object("value"));
  }
}

TEST(UserDefaultsFailures, KeepAChangeThatAReadOnlyFolderRefusesAndSayEachReasonOnce) {
  const TemporaryDirectory base;
  giveToUnprivileged(base.path(), 0755);
  const std::string folder = base / "Preferences";
  makeFolder(folder);
  UserDefaults("refused", folder).setPersistentDomain_forName(Dictionary{{"old", Object("old")}}, "refused");
  std::filesystem::remove(folder + "/refused.plist.lock");
  for (const auto& entry : std::filesystem::directory_iterator(folder)) giveToUnprivileged(entry.path(), 0600);
  giveToUnprivileged(folder, 0500);
  const auto outcome = runHelper({.name = "writeWithoutRights", .folder = folder, .unprivileged = true});
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
  EXPECT_EQ(outcome.output,
            "written: no\nwritten: no\nwritten: no\nremembered: new\nexchange failed: yes, read: old\ndomain set: no\n"
            "written with rights: yes\nwritten again: no\n");
  // Once before and once after the success, and once for the other domain.
  EXPECT_EQ(occurrences(outcome.errorOutput, "refused.plist cannot be written"), 2) << outcome.errorOutput;
  EXPECT_EQ(occurrences(outcome.errorOutput, "other.plist cannot be written"), 1) << outcome.errorOutput;
}

TEST(UserDefaultsFailures, SayWhyTheFolderCannotBeMade) {
  const TemporaryDirectory folder;
  giveToUnprivileged(folder.path(), 0500);
  const auto outcome = runHelper({.name = "writeBelowAClosedFolder", .folder = folder.path(), .unprivileged = true});
  EXPECT_EQ(outcome.output, "written: no\n");
  EXPECT_EQ(occurrences(outcome.errorOutput, "domain.plist cannot be written: making the folder: Permission denied"), 1)
      << outcome.errorOutput;
}

TEST(UserDefaultsFailures, SayOnceThatTheFolderCannotBeListed) {
  const TemporaryDirectory folder;
  writeFile(folder / "domain.plist", "<plist><dict/></plist>");
  giveToUnprivileged(folder.path(), 0300);
  const auto outcome = runHelper({.name = "listWithoutRights", .folder = folder.path(), .unprivileged = true});
  giveToUnprivileged(folder.path(), 0700);
  EXPECT_EQ(outcome.output, "domains: 0\ndomains: 0\n");
  EXPECT_EQ(occurrences(outcome.errorOutput, folder.path() + " cannot be read: opening the folder: Permission denied"), 1)
      << outcome.errorOutput;
}

TEST(UserDefaultsFailures, SayNothingOfAFolderThatIsNotThere) {
  const TemporaryDirectory folder;
  testing::internal::CaptureStderr();
  EXPECT_TRUE(UserDefaults("domain", folder / "missing").persistentDomainNames().empty());
  platform::flushLog();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(UserDefaultsFailures, NeverReplaceAFileThatCannotBeRead) {
  const TemporaryDirectory folder;
  writeFile(folder / "unreadable.plist", "<plist><dict><key>key</key><string>secret</string></dict></plist>");
  giveToUnprivileged(folder / "unreadable.plist", 0000);
  giveToUnprivileged(folder.path(), 0755);
  const auto outcome = runHelper({.name = "readWithoutRights", .folder = folder.path(), .unprivileged = true});
  EXPECT_EQ(outcome.output, "read: (null)\nread: (null)\nread: (null)\nwritten: no\n");
  EXPECT_EQ(occurrences(outcome.errorOutput, "unreadable.plist cannot be read"), 1) << outcome.errorOutput;
  EXPECT_EQ(occurrences(outcome.errorOutput, "unreadable.plist cannot be written"), 1) << outcome.errorOutput;
  chmod((folder / "unreadable.plist").c_str(), 0600);
  EXPECT_NE(readFile(folder / "unreadable.plist").find("secret"), std::string::npos);
}

TEST(UserDefaultsFailures, SurviveAFullDisk) {
  const TemporaryDirectory folder;
  if (runToEnd({"unshare", "-Urm", "mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", folder.path()}).status != 0) {
    GTEST_SKIP() << "left out: a full disk, because this machine mounts no file system in a namespace of its own";
  }
  Process::Options options;
  options.environment = helperEnvironment({.name = "fillDisk", .folder = folder.path()});
  const auto outcome = runToEnd({"unshare", "-Urm", "sh", "-c", "mount -t tmpfs -o size=64k tmpfs \"$1\" && exec \"$2\"", "sh",
                                 folder.path(), helperCommand().front()},
                                options);
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
  EXPECT_EQ(outcome.output,
            "small written: yes\nlarge written: no\nlarge written: no\nlarge written: no\nstill there: small\nsmall written again: yes\n"
            "large written again: no\n");
  EXPECT_EQ(occurrences(outcome.errorOutput, "full.plist cannot be written"), 2) << outcome.errorOutput;
}

TEST(UserDefaultsFailures, SurviveTheSignalOfALimitOfFileSizesAndLeaveNothing) {
  const TemporaryDirectory folder;
  const auto outcome = runHelper({.name = "exceedLimitUnprepared", .folder = folder.path()});
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
  EXPECT_EQ(outcome.output, "written: no\nwriting the temporary file: File too large\n");
  for (const auto& entry : std::filesystem::directory_iterator(folder.path())) EXPECT_EQ(entry.path().filename(), "full.plist.lock");
}

TEST(UserDefaultsFailures, SurviveALimitOfFileSizesAndWriteLater) {
  const TemporaryDirectory folder;
  const auto outcome = runHelper({.name = "exceedLimit", .folder = folder.path()});
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
  EXPECT_EQ(outcome.output,
            "small written: yes\nlarge written: no\nlarge written: no\nlarge written: no\nstill there: small\nlarge written without limit: "
            "yes\n");
  EXPECT_EQ(occurrences(outcome.errorOutput, "full.plist cannot be written"), 1) << outcome.errorOutput;
  UserDefaults defaults("full", folder.path());
  EXPECT_EQ(defaults.objectForKey("key"), Object("small"));
  EXPECT_EQ(defaults.objectForKey("large").stringValue().size(), 200000U);
}

}  // namespace
}  // namespace kestrine::test
