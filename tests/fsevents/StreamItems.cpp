#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "platform/foundation/base/FileHandle.h"
#include "tests/fsevents/support/StreamTest.h"

// What is told of single items: the flag of the operation and the kind of the item.

namespace kestrine::test {
namespace {

class StreamItems : public StreamTest {
 protected:
  // Makes a change while the stream watches and returns all flags told of `name`.
  FSEventStreamEventFlags after(const std::string& name, const std::function<void()>& change) {
    stream_ = watchRoot();
    change();
    stream_->flush();
    return stream_->flagsOf(in(name));
  }
  std::unique_ptr<WatchedStream> stream_;
};
KESTRINE_PER_SOURCE(StreamItems);

TEST_P(StreamItems, TellACreatedFile) {
  const auto flags = after("a", [&] { writeFile(in("a"), "text"); });
  EXPECT_EQ(flags & (kCreated | kRemoved | kRenamed | kKinds), kCreated | kIsFile) << stream_->describe();
}

TEST_P(StreamItems, TellAnEmptyFile) {
  const auto flags = after("a", [&] { touchFile(in("a")); });
  EXPECT_EQ(flags & (kCreated | kRemoved | kRenamed | kKinds), kCreated | kIsFile) << stream_->describe();
}

TEST_P(StreamItems, TellAModifiedFile) {
  writeFile(in("a"), "text");
  const auto flags = after("a", [&] { appendFile(in("a"), "more"); });
  EXPECT_EQ(flags & (kModified | kCreated | kRemoved | kRenamed | kKinds), kModified | kIsFile) << stream_->describe();
}

TEST_P(StreamItems, TellATruncatedFile) {
  writeFile(in("a"), "text");
  const auto flags = after("a", [&] { ASSERT_EQ(::truncate(in("a").c_str(), 1), 0); });
  EXPECT_EQ(flags & (kModified | kCreated | kKinds), kModified | kIsFile) << stream_->describe();
}

TEST_P(StreamItems, TellWritesWhileTheFileStaysOpen) {
  const platform::FileHandle file(::open(in("a").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  const auto flags = after("a", [&] { ASSERT_EQ(::write(file.fileDescriptor(), "x", 1), 1); });
  EXPECT_EQ(flags & (kModified | kCreated), kModified) << stream_->describe();
}

TEST_P(StreamItems, TellARemovedFile) {
  writeFile(in("a"), "text");
  const auto flags = after("a", [&] { removeItem(in("a")); });
  EXPECT_EQ(flags & (kCreated | kRemoved | kRenamed | kIsFolder), kRemoved) << stream_->describe();
}

TEST_P(StreamItems, TellBothNamesOfARenamedFile) {
  writeFile(in("a"), "text");
  const auto flags = after("a", [&] { moveItem(in("a"), in("b")); });
  EXPECT_EQ(flags & (kCreated | kRenamed | kIsFolder), kRenamed) << stream_->describe();
  EXPECT_EQ(stream_->flagsOf(in("b")) & (kCreated | kRemoved | kRenamed | kKinds), kRenamed | kIsFile) << stream_->describe();
}

TEST_P(StreamItems, TellTheNameThatARenameReplaces) {
  writeFile(in("a"), "new");
  writeFile(in("b"), "old");
  const auto flags = after("b", [&] { moveItem(in("a"), in("b")); });
  EXPECT_EQ(flags & (kRenamed | kKinds), kRenamed | kIsFile) << stream_->describe();
}

TEST_P(StreamItems, TellAChangedModeAsMetadata) {
  writeFile(in("a"), "text");
  const auto flags = after("a", [&] { setMode(in("a"), 0600); });
  EXPECT_EQ(flags & (kMetadata | kCreated | kModified | kKinds), kMetadata | kIsFile) << stream_->describe();
}

TEST_P(StreamItems, TellChangedTimesAsMetadata) {
  writeFile(in("a"), "text");
  const timespec times[2] = {{1, 0}, {1, 0}};
  const auto flags = after("a", [&] { ASSERT_EQ(::utimensat(AT_FDCWD, in("a").c_str(), times, 0), 0); });
  EXPECT_EQ(flags & (kMetadata | kCreated | kModified), kMetadata) << stream_->describe();
}

TEST_P(StreamItems, TellAnExtendedAttributeAsMetadata) {
  writeFile(in("a"), "text");
  if (::setxattr(in("a").c_str(), "user.probe", "1", 1, 0) != 0)
    GTEST_SKIP() << "left out: extended attributes, because this file system has none";
  const auto flags = after("a", [&] { ASSERT_EQ(::setxattr(in("a").c_str(), "user.note", "x", 1, 0), 0); });
  EXPECT_NE(flags & kMetadata, 0U) << stream_->describe();
}

TEST_P(StreamItems, TellAHardLinkAsCreated) {
  writeFile(in("a"), "text");
  const auto flags = after("b", [&] { makeHardLink(in("a"), in("b")); });
  EXPECT_EQ(flags & (kCreated | kKinds), kCreated | kIsFile) << stream_->describe();
}

TEST_P(StreamItems, TellTheNameThatAHardLinkedFileIsWrittenThrough) {
  writeFile(in("a"), "text");
  makeHardLink(in("a"), in("b"));
  const auto flags = after("b", [&] { appendFile(in("b"), "more"); });
  EXPECT_EQ(flags & (kModified | kKinds), kModified | kIsFile) << stream_->describe();
}

TEST_P(StreamItems, TellASymbolicLinkAsALink) {
  writeFile(in("a"), "text");
  makeFolder(in("d"));
  stream_ = watchRoot();
  makeLink("a", in("toFile"));
  makeLink("d", in("toFolder"));
  makeLink("nothing", in("toNothing"));
  stream_->flush();
  for (const auto* name : {"toFile", "toFolder", "toNothing"}) {
    EXPECT_EQ(stream_->flagsOf(in(name)) & (kCreated | kKinds), kCreated | kIsLink) << name << "\n" << stream_->describe();
  }
}

TEST_P(StreamItems, TellARemovedSymbolicLink) {
  makeLink("nothing", in("a"));
  const auto flags = after("a", [&] { removeItem(in("a")); });
  EXPECT_EQ(flags & (kRemoved | kIsFolder), kRemoved) << stream_->describe();
}

TEST_P(StreamItems, TellACreatedFolder) {
  const auto flags = after("d", [&] { makeFolder(in("d")); });
  EXPECT_EQ(flags & (kCreated | kRemoved | kRenamed | kKinds), kCreated | kIsFolder) << stream_->describe();
}

TEST_P(StreamItems, TellARemovedFolder) {
  makeFolder(in("d"));
  const auto flags = after("d", [&] { removeItem(in("d")); });
  EXPECT_EQ(flags & (kCreated | kRemoved | kRenamed | kKinds), kRemoved | kIsFolder) << stream_->describe();
}

TEST_P(StreamItems, TellBothNamesOfARenamedFolder) {
  makeFolder(in("d"));
  const auto flags = after("d", [&] { moveItem(in("d"), in("e")); });
  EXPECT_EQ(flags & (kCreated | kRenamed | kKinds), kRenamed | kIsFolder) << stream_->describe();
  EXPECT_EQ(stream_->flagsOf(in("e")) & (kCreated | kRemoved | kRenamed | kKinds), kRenamed | kIsFolder) << stream_->describe();
}

TEST_P(StreamItems, TellAFoldersChangedMode) {
  makeFolder(in("d"));
  const auto flags = after("d", [&] { setMode(in("d"), 0700); });
  EXPECT_EQ(flags & (kMetadata | kCreated | kKinds), kMetadata | kIsFolder) << stream_->describe();
}

TEST_P(StreamItems, TellEveryItemOfARemovedTree) {
  makeFolders(in("d/e"));
  writeFile(in("d/e/f"), "text");
  after("d", [&] { removeTree(in("d")); });
  for (const auto* name : {"d", "d/e", "d/e/f"})
    EXPECT_NE(stream_->flagsOf(in(name)) & kRemoved, 0U) << name << "\n" << stream_->describe();
}

TEST_P(StreamItems, TellAnItemThatCameAndWentWithinAWindow) {
  const auto flags = after("a", [&] {
    writeFile(in("a"), "text");
    removeItem(in("a"));
  });
  EXPECT_EQ(flags & (kCreated | kRemoved), kCreated | kRemoved) << stream_->describe();
}

TEST_P(StreamItems, TellAFolderThatCameAndWentWithinAWindow) {
  const auto flags = after("d", [&] {
    makeFolder(in("d"));
    removeItem(in("d"));
  });
  EXPECT_EQ(flags & (kCreated | kRemoved), kCreated | kRemoved) << stream_->describe();
}

TEST_P(StreamItems, TellAFileMadeAnewUnderItsName) {
  writeFile(in("a"), "old");
  const auto flags = after("a", [&] {
    removeItem(in("a"));
    writeFile(in("a"), "new");
  });
  EXPECT_EQ(flags & (kCreated | kRemoved), kCreated | kRemoved) << stream_->describe();
}

TEST_P(StreamItems, TellItemsThatAreNeitherFilesNorFolders) {
  const auto flags = after("pipe", [&] { ASSERT_EQ(::mkfifo(in("pipe").c_str(), 0600), 0); });
  EXPECT_EQ(flags & (kCreated | kIsFolder | kIsLink), kCreated) << stream_->describe();
}

TEST_P(StreamItems, AreNotToldWhenTheyAreOnlyRead) {
  makeFolder(in("d"));
  writeFile(in("d/a"), "text");
  after("d/a", [&] {
    EXPECT_EQ(readFile(in("d/a")), "text");
    EXPECT_EQ(countFolders({root_}), 2U);
  });
  EXPECT_TRUE(stream_->events().empty()) << stream_->describe();
}

TEST_P(StreamItems, AreNotToldBesideTheWatchedFolder) {
  after("a", [&] {
    writeFile(outside("a"), "text");
    writeFile(base_ / "a", "text");
    writeFile(base_ / "root2", "text");
  });
  EXPECT_TRUE(stream_->events().empty()) << stream_->describe();
}

TEST_P(StreamItems, ChangeAloneIsTold) {
  makeFolders(in("d/e"));
  after("d/e/a", [&] { writeFile(in("d/e/a"), "text"); });
  for (const auto& event : stream_->events()) EXPECT_EQ(event.path, in("d/e/a")) << stream_->describe();
  EXPECT_FALSE(stream_->events().empty());
}

}  // namespace
}  // namespace kestrine::test
