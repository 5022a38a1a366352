#include <fcntl.h>
#include <unistd.h>

#include "platform/foundation/base/FileHandle.h"
#include "tests/fsevents/support/StreamTest.h"

// The ways in which editors and other programs save a document. Each ends in an event on the document's own name.

namespace kestrine::test {
namespace {

class StreamSaves : public StreamTest {
 protected:
  // Saves three times over an existing document and once without one: every save is told under the document's name.
  void expectTold(const std::function<void(const std::string& document)>& save, bool needsDocument) {
    makeFolder(in("d"));
    const auto document = in("d/document.txt");
    writeFile(document, "first");
    const auto stream = watchRoot();
    for (int turn = 0; turn < 4; ++turn) {
      if (turn == 3) {
        if (needsDocument) break;
        removeItem(document);
        stream->flush();
        stream->clear();
      }
      save(document);
      stream->flush();
      EXPECT_NE(stream->flagsOf(document) & (kCreated | kModified | kRenamed), 0U) << turn << "\n" << stream->describe();
      const auto told = stream->eventsOf(document);
      ASSERT_FALSE(told.empty());
      EXPECT_NE(told.back().flags & kIsFile, 0U) << stream->describe();
      EXPECT_NE(told.back().flags & (kCreated | kModified | kRenamed), 0U) << stream->describe();
      EXPECT_EQ(stream->allFlags() & kMustScan, 0U);
      stream->clear();
    }
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  }
};
KESTRINE_PER_SOURCE(StreamSaves);

TEST_P(StreamSaves, InPlace) {
  expectTold([](const std::string& document) { writeFile(document, "new text"); }, false);
}

TEST_P(StreamSaves, ByAppending) {
  expectTold([](const std::string& document) { appendFile(document, "more"); }, false);
}

TEST_P(StreamSaves, ThroughATemporaryFileRenamedOverIt) {
  expectTold(
      [](const std::string& document) {
        writeFile(document + ".tmp", "new text");
        moveItem(document + ".tmp", document);
      },
      false);
}

TEST_P(StreamSaves, ThroughATemporaryFileOfAnotherFolder) {
  expectTold(
      [this](const std::string& document) {
        writeFile(outside("temporary"), "new text");
        moveItem(outside("temporary"), document);
      },
      false);
}

TEST_P(StreamSaves, WithABackupRenamedAway) {
  expectTold(
      [](const std::string& document) {
        moveItem(document, document + "~");
        writeFile(document, "new text");
      },
      true);
}

TEST_P(StreamSaves, WithABackupLinked) {
  expectTold(
      [](const std::string& document) {
        ::unlink((document + "~").c_str());
        makeHardLink(document, document + "~");
        writeFile(document + ".tmp", "new text");
        moveItem(document + ".tmp", document);
      },
      true);
}

TEST_P(StreamSaves, ByRemovingAndWritingAnew) {
  expectTold(
      [](const std::string& document) {
        removeItem(document);
        writeFile(document, "new text");
      },
      true);
}

TEST_P(StreamSaves, ByExchange) {
  expectTold(
      [](const std::string& document) {
        writeFile(document + ".new", "new text");
        exchangeItems(document, document + ".new");
        removeItem(document + ".new");
      },
      true);
}

TEST_P(StreamSaves, ThroughANamelessFileThatIsLinked) {
  const platform::FileHandle probe(::open(root_.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0644));
  if (!probe.isOpen()) GTEST_SKIP() << "left out: nameless files, because this file system has none";
  expectTold(
      [](const std::string& document) {
        const auto folder = document.substr(0, document.rfind('/'));
        const platform::FileHandle file(::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0644));
        ASSERT_TRUE(file.isOpen());
        ASSERT_EQ(::write(file.fileDescriptor(), "new", 3), 3);
        ::unlink(document.c_str());
        const auto source = "/proc/self/fd/" + std::to_string(file.fileDescriptor());
        ASSERT_EQ(::linkat(AT_FDCWD, source.c_str(), AT_FDCWD, document.c_str(), AT_SYMLINK_FOLLOW), 0);
      },
      false);
}

TEST_P(StreamSaves, NamelessFilesAreNotToldBeforeTheyHaveAName) {
  const auto stream = watchRoot();
  const platform::FileHandle file(::open(root_.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0644));
  if (!file.isOpen()) GTEST_SKIP() << "left out: nameless files, because this file system has none";
  ASSERT_EQ(::write(file.fileDescriptor(), "new", 3), 3);
  stream->flush();
  EXPECT_TRUE(stream->events().empty()) << stream->describe();
}

}  // namespace
}  // namespace kestrine::test
