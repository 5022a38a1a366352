// Ways that nobody else can have laid: what is gone, what is refused, and that nothing is changed on the way.
#include "platform/foundation/base/TrustedPath.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/foundation/base/DescriptorIO.h"
#include "tests/support/TemporaryDirectory.h"

namespace platform {
namespace {

namespace fs = std::filesystem;
using kestrine::test::makeFolder;
using kestrine::test::TemporaryDirectory;
using kestrine::test::writeFile;
using testing::HasSubstr;

constexpr uid_t kStranger = 65534;
constexpr uid_t kAnotherStranger = 65533;

#define REQUIRE_ROOT() \
  if (geteuid() != 0) GTEST_SKIP() << "left out: what belongs to other users, because this is not root and can give nothing away"

void giveAway(const std::string& path, uid_t user = kStranger) { ASSERT_EQ(lchown(path.c_str(), user, user), 0) << path; }

mode_t modeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777U;
}

/// Why the folder is refused; empty when it is not.
std::string refusal(const std::string& path, const TrustedWay& way = {}) {
  const auto opened = openTrustedFolder(path, way);
  return opened ? "" : opened.error().reason;
}

std::string fileRefusal(const std::string& path) {
  const auto opened = openTrustedFile(path, O_RDONLY);
  return opened ? "" : opened.error().reason;
}

TEST(TrustedPath, IsGoneThroughOwnFoldersAndOwnLinks) {
  const TemporaryDirectory base;
  makeFolder(base / "real");
  makeFolder(base / "real/inner");
  fs::create_symlink("real", base / "relative");
  fs::create_symlink(base / "relative/inner/..", base / "absolute");
  writeFile(base / "real/inner/file", "text");
  fs::create_symlink("inner/file", base / "real/link");
  EXPECT_EQ(refusal(base / "real/./inner//"), "");
  EXPECT_EQ(refusal(base / "absolute/inner"), "");
  for (const char* name : {"real/inner/file", "absolute/link", "relative/inner/../link"}) {
    const auto file = openTrustedFile(base / name, O_RDONLY);
    ASSERT_TRUE(file) << name << ": " << file.error().reason;
    EXPECT_EQ(*readAll(file->fileDescriptor(), 100), "text");
  }
}

TEST(TrustedPath, SaysWhatTheSystemSays) {
  const TemporaryDirectory base;
  writeFile(base / "file", "");
  fs::create_symlink("round", base / "round");
  EXPECT_EQ(openTrustedFolder(base / "missing/inner").error().error, ENOENT);
  EXPECT_EQ(openTrustedFolder(base / "file/inner").error().error, ENOTDIR);
  EXPECT_EQ(openTrustedFolder(base / "file").error().error, ENOTDIR);
  EXPECT_EQ(openTrustedFolder(base / "round").error().error, ELOOP);
  EXPECT_EQ(openTrustedFile(base / "round", O_RDONLY).error().error, ELOOP);
  EXPECT_EQ(openTrustedFile(base / "missing", O_RDONLY).error().error, ENOENT);
  EXPECT_EQ(openTrustedFolder("relative").error().error, EINVAL);
  EXPECT_FALSE(openTrustedFolder(base / "missing").error().isDistrust);
}

TEST(TrustedPath, MakesWhatIsMissingAndNothingBehindARefusal) {
  const TemporaryDirectory base;
  EXPECT_EQ(refusal(base / "a/b/c", {.makeFolder = folderMaker(0700)}), "");
  EXPECT_EQ(modeOf(base / "a/b/c"), 0700U);
  ASSERT_EQ(chmod((base / "a/b").c_str(), 0777), 0);
  EXPECT_THAT(refusal(base / "a/b/new", {.makeFolder = folderMaker(0700)}), HasSubstr("everybody can write to it (mode 0777)"));
  EXPECT_FALSE(fs::exists(base / "a/b/new"));
  EXPECT_EQ(modeOf(base / "a/b"), 0777U);
}

TEST(TrustedPath, EndsInNoFolderThatOthersMayWriteTo) {
  const TemporaryDirectory base;
  makeFolder(base / "shared");
  makeFolder(base / "shared/own");
  ASSERT_EQ(chmod((base / "shared").c_str(), 0777), 0);
  EXPECT_THAT(refusal(base / "shared"), HasSubstr("everybody can write to it (mode 0777)"));
  EXPECT_THAT(refusal(base / "shared/own"), HasSubstr("everybody can write to it (mode 0777)"));
  // In a sticky one nobody replaces what is another's.
  ASSERT_EQ(chmod((base / "shared").c_str(), 01777), 0);
  EXPECT_EQ(refusal(base / "shared/own"), "");
  EXPECT_THAT(refusal(base / "shared"), HasSubstr("everybody can write to it (mode 1777)"));
  EXPECT_EQ(refusal(base / "shared", {.mayEndInShared = true}), "");
}

TEST(TrustedPath, LeavesFilesThatOthersMayWriteTo) {
  const TemporaryDirectory base;
  writeFile(base / "file", "text");
  ASSERT_EQ(chmod((base / "file").c_str(), 0666), 0);
  EXPECT_THAT(fileRefusal(base / "file"), HasSubstr("everybody can write to it (mode 0666)"));
  ASSERT_EQ(chmod((base / "file").c_str(), 0644), 0);
  EXPECT_EQ(fileRefusal(base / "file"), "");
}

TEST(TrustedPath, TakesNobodysGroupForNobodyElse) {
  REQUIRE_ROOT();
  const TemporaryDirectory base;
  makeFolder(base / "of a group");
  ASSERT_EQ(chown((base / "of a group").c_str(), 0, kStranger), 0);
  ASSERT_EQ(chmod((base / "of a group").c_str(), 0775), 0);
  EXPECT_THAT(refusal(base / "of a group"), HasSubstr("group 65534 can write to it (mode 0775)"));
}

TEST(TrustedPath, DoesNotGoThroughWhatIsAnothers) {
  REQUIRE_ROOT();
  const TemporaryDirectory base;
  makeFolder(base / "target");
  writeFile(base / "target/file", "text");
  makeFolder(base / "theirs");
  makeFolder(base / "theirs/inner");
  giveAway(base / "theirs");
  EXPECT_THAT(refusal(base / "theirs/inner"), HasSubstr("theirs' belongs to user 65534"));
  fs::create_symlink(base / "target", base / "link");
  giveAway(base / "link");
  EXPECT_THAT(refusal(base / "link"), HasSubstr("link' is a symbolic link that user 65534 made"));
  EXPECT_THAT(fileRefusal(base / "link/file"), HasSubstr("link' is a symbolic link that user 65534 made"));
  fs::create_symlink("file", base / "target/planted");
  giveAway(base / "target/planted");
  EXPECT_THAT(fileRefusal(base / "target/planted"), HasSubstr("planted' is a symbolic link that user 65534 made"));
  giveAway(base / "target/file");
  EXPECT_THAT(fileRefusal(base / "target/file"), HasSubstr("file' belongs to user 65534"));
}

TEST(TrustedPath, LetsRootWorkInTheFoldersOfOneUserAndBeLedNowhereElse) {
  REQUIRE_ROOT();
  const TemporaryDirectory base;
  for (const char* name : {"home", "home/inner", "home/others", "roots"}) makeFolder(base / name);
  giveAway(base / "home");
  giveAway(base / "home/inner");
  giveAway(base / "home/others", kAnotherStranger);
  fs::create_symlink("inner", base / "home/within");
  giveAway(base / "home/within");
  fs::create_symlink(base / "roots", base / "home/out");
  giveAway(base / "home/out");
  const TrustedWay way{.allowsHost = true};
  EXPECT_EQ(refusal(base / "home/inner", way), "");
  EXPECT_EQ(refusal(base / "home/within", way), "");
  EXPECT_THAT(refusal(base / "home/out", way), HasSubstr("roots' belongs to root, and user 65534 made the link to it"));
  EXPECT_THAT(refusal(base / "home/others", way), HasSubstr("others' belongs to user 65533"));
  EXPECT_THAT(refusal(base / "home/inner"), HasSubstr("home' belongs to user 65534")) << "only who asks for it";
}

TEST(TrustedPath, WaitsForNoOtherEndOfAPipe) {
  const TemporaryDirectory base;
  ASSERT_EQ(mkfifo((base / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(openTrustedFile(base / "pipe", O_WRONLY).error().error, ENXIO);
  EXPECT_TRUE(openTrustedFile(base / "pipe", O_RDONLY));
}

}  // namespace
}  // namespace platform
