// What a preferences file is besides its bytes: links stay links, and nobody is locked out of his own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>

#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/UserDefaultsHelper.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

namespace fs = std::filesystem;
using platform::Dictionary;
using platform::Object;
using platform::UserDefaults;

constexpr uid_t kSomebody = 65534;

struct stat attributesOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

bool write(const std::string& folder, const char* key = "key") {
  UserDefaults defaults("linked", folder);
  defaults.setObject_forKey("new", key);
  return defaults.synchronize();
}

Object domain(const std::string& folder) { return UserDefaults("linked", folder).persistentDomainForName("linked"); }

TEST(UserDefaultsLinks, StayLinksWhateverTheyLeadThrough) {
  struct Link {
    const char* name;
    std::vector<std::pair<std::string, std::string>> links;
  };
  const TemporaryDirectory base;
  const Link kLinks[] = {
      {"relative", {{"linked.plist", "../files/linked.plist"}}},
      {"absolute", {{"linked.plist", (base / "absolute/files/linked.plist")}}},
      {"chained", {{"linked.plist", "one"}, {"one", "../files/two"}, {"../files/two", "./linked.plist"}}},
      {"within", {{"linked.plist", "linked.plist.real"}, {"linked.plist.real", "../files/linked.plist"}}},
      {"through a folder", {{"linked.plist", "folder/linked.plist"}, {"folder", "../files"}}},
  };
  for (const auto& [name, links] : kLinks) {
    for (const bool isDangling : {false, true}) {
      const std::string root = base / name;
      fs::remove_all(root);
      const std::string folder = root + "/Preferences";
      fs::create_directories(folder);
      fs::create_directories(root + "/files");
      for (const auto& [from, to] : links) fs::create_symlink(to, folder + "/" + from);
      if (!isDangling) writeFile(root + "/files/linked.plist", "<plist><dict><key>old</key><string>old</string></dict></plist>");
      EXPECT_EQ(UserDefaults("linked", folder).persistentDomainNames().size(), isDangling ? 0U : 1U) << name;
      ASSERT_TRUE(write(folder)) << name;
      for (const auto& [from, to] : links) EXPECT_EQ(fs::read_symlink(folder + "/" + from), to) << name;
      EXPECT_FALSE(fs::is_symlink(root + "/files/linked.plist")) << name;
      EXPECT_NE(readFile(root + "/files/linked.plist").find("<string>new</string>"), std::string::npos) << name;
      EXPECT_EQ(domain(folder).count(), isDangling ? 1U : 2U) << name;
      // The same file again, its value changed, then removed: the links still stand.
      ASSERT_TRUE(write(folder, "another")) << name;
      ASSERT_TRUE(UserDefaults("linked", folder).removePersistentDomainForName("linked")) << name;
      EXPECT_TRUE(domain(folder).isNil()) << name;
      for (const auto& [from, to] : links) EXPECT_EQ(fs::read_symlink(folder + "/" + from), to) << name;
      EXPECT_EQ(std::distance(fs::directory_iterator(root + "/files"), fs::directory_iterator()), name == std::string("chained") ? 1 : 0);
    }
  }
}

TEST(UserDefaultsLinks, ThatLeadNowhereAreRefused) {
  const TemporaryDirectory folder;
  for (const char* target : {"missing/linked.plist", "linked.plist", "folder/", "folder/.."}) {
    fs::remove(folder / "linked.plist");
    makeFolder(folder / "folder");
    fs::create_symlink(target, folder / "linked.plist");
    EXPECT_FALSE(write(folder.path())) << target;
    EXPECT_EQ(fs::read_symlink(folder / "linked.plist"), target);
    fs::remove(folder / "folder");
  }
}

TEST(UserDefaultsLinks, KeepTheModeOfAnExistingFile) {
  const TemporaryDirectory folder;
  ASSERT_TRUE(write(folder.path()));
  for (const unsigned mode : {0644U, 0640U, 0600U, 0444U}) {
    ASSERT_EQ(chmod((folder / "linked.plist").c_str(), mode), 0);
    ASSERT_TRUE(write(folder.path(), ("of mode " + std::to_string(mode)).c_str()));
    EXPECT_EQ(attributesOf(folder / "linked.plist").st_mode & 07777U, mode);
  }
}

TEST(UserDefaultsLinks, KeepExtendedAttributes) {
  const TemporaryDirectory folder;
  ASSERT_TRUE(write(folder.path()));
  const std::string path = folder / "linked.plist";
  if (setxattr(path.c_str(), "user.origin", "elsewhere", 9, 0) != 0)
    GTEST_SKIP() << "left out: extended attributes of preferences, because this file system has none";
  ASSERT_EQ(setxattr(path.c_str(), "user.empty", "", 0, 0), 0);
  ASSERT_TRUE(write(folder.path(), "another"));
  char value[16] = {};
  EXPECT_EQ(getxattr(path.c_str(), "user.origin", value, sizeof value), 9);
  EXPECT_STREQ(value, "elsewhere");
  EXPECT_EQ(getxattr(path.c_str(), "user.empty", value, sizeof value), 0);
}

TEST(UserDefaultsOwners, StayThoseOfTheUserWhenRootWrites) {
  if (geteuid() != 0) GTEST_SKIP() << "left out: root writing in another user's folder, because this is not root";
  const TemporaryDirectory base;
  giveToUnprivileged(base.path(), 0755);
  // What root finds there, and what root makes.
  for (const char* name : {"found", "config/made"}) {
    const std::string folder = base / name;
    if (name == std::string("found")) {
      makeFolder(folder);
      writeFile(folder + "/domain.plist", "<plist><dict/></plist>");
      giveToUnprivileged(folder + "/domain.plist", 0600);
      giveToUnprivileged(folder, 0700);
    }
    UserDefaults defaults("domain", folder);
    defaults.setObject_forKey("of root", "root");
    ASSERT_TRUE(defaults.synchronize());
    for (const auto& each : {folder, folder + "/domain.plist", folder + "/domain.plist.lock"}) {
      EXPECT_EQ(attributesOf(each).st_uid, kSomebody) << each;
      EXPECT_EQ(attributesOf(each).st_gid, kSomebody) << each;
    }
    const auto outcome = runHelper({.name = "writeOneKey", .folder = folder, .unprivileged = true});
    EXPECT_EQ(outcome.output, "written: yes\n") << outcome.errorOutput;
    EXPECT_EQ(defaults.persistentDomainForName("domain"), Object(Dictionary{{"root", Object("of root")}, {"user", Object("of the user")}}));
  }
  EXPECT_EQ(attributesOf(base / "config").st_uid, kSomebody);
}

TEST(UserDefaultsOwners, CannotLeadRootToTheFilesOfOthers) {
  if (geteuid() != 0) GTEST_SKIP() << "left out: root following a user's link, because this is not root";
  const TemporaryDirectory base;
  const std::string folder = base / "users";
  makeFolder(folder);
  giveToUnprivileged(folder, 0700);
  writeFile(base / "important", "of root");
  fs::create_symlink("../important", folder + "/linked.plist");
  ASSERT_EQ(lchown((folder + "/linked.plist").c_str(), kSomebody, kSomebody), 0);
  EXPECT_FALSE(write(folder));
  EXPECT_EQ(readFile(base / "important"), "of root");
  EXPECT_FALSE(fs::exists(base / "important.corrupt"));
}

}  // namespace
}  // namespace kestrine::test
