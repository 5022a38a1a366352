#include <climits>

#include "tests/fsevents/support/StreamTest.h"

// Names are bytes, and paths have no length.

namespace kestrine::test {
namespace {

class StreamNames : public StreamTest {
 protected:
  static std::vector<std::string> oddNames() {
    std::string every;
    for (int byte = 1; byte < 256; ++byte) {
      if (byte != '/') every += static_cast<char>(byte);
    }
    return {"two words",
            "line\nend",
            "tab\tand\rreturn",
            "\xFF",
            "\xC3\x28 not UTF-8",
            "\xED\xA0\x80 a surrogate",
            "e\xCC\x81 decomposed",
            "\xC3\xA9 composed",
            "percent %41 %",
            "back\\slash",
            "-rf",
            "...",
            " ",
            "#1234",
            std::string(255, 'n'),
            std::string(255, '\xFF'),
            every.substr(0, 200)};
  }
  // Forty levels of two hundred bytes: about twice what one system call may be given.
  static std::vector<std::string> deepNames() {
    constexpr std::size_t kNameLength = 200;
    std::vector<std::string> names;
    for (char level = 0; level < 40; ++level) names.emplace_back(kNameLength, static_cast<char>('0' + level));
    return names;
  }
  static std::string joined(const std::string& top, const std::vector<std::string>& names) {
    std::string path = top;
    for (const auto& name : names) path += "/" + name;
    return path;
  }
};
KESTRINE_PER_SOURCE(StreamNames);

TEST_P(StreamNames, OfAnyBytesAreReportedAsTheyAre) {
  const auto stream = watchRoot();
  for (const auto& name : oddNames()) {
    stream->clear();
    writeFile(in(name), "text");
    removeItem(in(name));
    makeFolder(in(name));
    writeFile(in(name) + "/" + name, "text");
    stream->flush();
    EXPECT_NE(stream->flagsOf(in(name)) & kCreated, 0U) << testing::PrintToString(name) << stream->describe();
    EXPECT_NE(stream->flagsOf(in(name) + "/" + name) & kCreated, 0U) << testing::PrintToString(name) << stream->describe();
    stream->clear();
    moveItem(in(name), in("plain"));
    appendFile(in("plain/") + name, "more");
    stream->flush();
    EXPECT_NE(stream->flagsOf(in(name)) & kRenamed, 0U) << testing::PrintToString(name) << stream->describe();
    EXPECT_NE(stream->flagsOf(in("plain/") + name) & kModified, 0U) << testing::PrintToString(name) << stream->describe();
    removeTree(in("plain"));
    stream->flush();
  }
}

TEST_P(StreamNames, ThatLookAlikeStayApart) {
  const auto stream = watchRoot();
  writeFile(in("\xC3\xA9"), "composed");
  stream->flush();
  EXPECT_TRUE(stream->tells(in("\xC3\xA9"))) << stream->describe();
  EXPECT_FALSE(stream->tells(in("e\xCC\x81"))) << stream->describe();
}

TEST_P(StreamNames, OfTheWatchedFolderMayBeAnyBytes) {
  for (const auto& name : {std::string("line\nend"), std::string("\xFF\xFE"), std::string("two words")}) {
    makeFolder(in(name));
    const auto stream = watch({.paths = {in(name)}});
    writeFile(in(name) + "/file", "text");
    stream->flush();
    EXPECT_TRUE(stream->tells(in(name) + "/file")) << stream->describe();
  }
}

TEST_P(StreamNames, BeyondThePathLimitAreToldWhenTheyWereThereBefore) {
  const auto bottom = makeDeepFolders(root_, deepNames());
  ASSERT_GT(bottom.size(), static_cast<std::size_t>(PATH_MAX));
  const auto stream = watchRoot();
  writeDeepFile(bottom, "file", "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(bottom + "/file") & kCreated, 0U) << stream->describe();
  EXPECT_EQ(stream->stream().status().objectForKey("foldersMarked").intValue(), 41);
}

TEST_P(StreamNames, BeyondThePathLimitAreToldWhenTheyAreMade) {
  const auto stream = watchRoot();
  const auto bottom = makeDeepFolders(root_, deepNames());
  writeDeepFile(bottom, "file", "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(bottom) & kCreated, 0U) << stream->describe();
  EXPECT_NE(stream->flagsOf(bottom + "/file") & kCreated, 0U) << stream->describe();
  EXPECT_EQ(stream->allFlags() & kMustScan, 0U);
}

TEST_P(StreamNames, BeyondThePathLimitFollowARenameAtTheTop) {
  auto names = deepNames();
  makeDeepFolders(root_, names);
  const auto stream = watchRoot();
  moveItem(in(names[0]), in("z"));
  names[0] = "z";
  const auto bottom = joined(root_, names);
  writeDeepFile(bottom, "file", "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(bottom + "/file") & kCreated, 0U) << stream->describe();
}

TEST_P(StreamNames, BeyondThePathLimitAreToldWhenTheyAreMovedIn) {
  const auto names = deepNames();
  makeDeepFolders(base_ / "outside", names);
  const auto stream = watchRoot();
  moveItem(outside(names[0]), in(names[0]));
  stream->flush();
  const auto bottom = joined(root_, names);
  EXPECT_NE(stream->flagsOf(bottom) & kRenamed, 0U) << stream->describe();
  stream->clear();
  writeDeepFile(bottom, "file", "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(bottom + "/file") & kCreated, 0U) << stream->describe();
}

TEST_P(StreamNames, OfManyLevelsAreNoBurden) {
  const int levels = longOrShort(1500, 300);
  const std::vector<std::string> names(static_cast<std::size_t>(levels), "d");
  makeDeepFolders(root_, names);
  const auto stream = watchRoot();
  const auto bottom = joined(root_, names);
  writeDeepFile(bottom, "file", "text");
  stream->flush();
  EXPECT_NE(stream->flagsOf(bottom + "/file") & kCreated, 0U);
  EXPECT_EQ(stream->stream().status().objectForKey("foldersMarked").intValue(), levels + 1);
}

}  // namespace
}  // namespace kestrine::test
