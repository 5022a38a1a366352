#include "platform/network/message/Bytes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <map>

#include "platform/foundation/base/Exception.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::Bytes;

std::string pattern(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 7 + i / 255);
  return text;
}

TEST(Bytes, InMemoryAreReadFromAnyPlace) {
  EXPECT_TRUE(Bytes().empty());
  EXPECT_EQ(Bytes().text(), "");
  const Bytes bytes(std::string_view("0123456789"));
  EXPECT_TRUE(bytes.isInMemory());
  std::string room(4, ' ');
  EXPECT_EQ(bytes.read(3, room), 4U);
  EXPECT_EQ(room, "3456");
  EXPECT_EQ(bytes.read(8, room), 2U);
  EXPECT_EQ(bytes.read(10, room), 0U);
  EXPECT_EQ(bytes.data().size(), 10U);
  EXPECT_TRUE(Bytes(bytes.data()) == bytes);
  EXPECT_FALSE(bytes == Bytes(std::string_view("0123456780")));
}

TEST(Bytes, OfAFileAreReadWhereTheyLie) {
  const TemporaryDirectory folder;
  const auto text = pattern(300000);
  writeFile(folder / "file", text);
  const auto bytes = Bytes::dataWithContentsOfFile(folder / "file");
  ASSERT_TRUE(bytes);
  EXPECT_FALSE(bytes->isInMemory());
  EXPECT_TRUE(bytes->text() == text);
  EXPECT_TRUE(*bytes == Bytes(text));
  std::string room(10, ' ');
  EXPECT_EQ(bytes->read(299995, room), 5U);
  EXPECT_EQ(room.substr(0, 5), text.substr(299995));
  std::filesystem::remove(folder / "file");
  EXPECT_TRUE(bytes->text() == text);
}

TEST(Bytes, OfAFileThatShrinksAreAnErrorAndNoSignal) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", pattern(300000));
  const auto bytes = Bytes::dataWithContentsOfFile(folder / "file");
  std::filesystem::resize_file(folder / "file", 100);
  EXPECT_THROW(static_cast<void>(bytes->text()), platform::Exception);
  const auto error = bytes->writeToFile(folder / "copy");
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, "NSPOSIXErrorDomain");
  EXPECT_EQ(error->code, ENODATA);
}

TEST(Bytes, ASnapshotIsLeftAloneByLaterChanges) {
  const TemporaryDirectory folder;
  for (const std::size_t size : {0U, 10U, 65536U, 65537U, 3000000U}) {
    const auto text = pattern(size);
    writeFile(folder / "file", text);
    const auto bytes = Bytes::snapshotOfFile(folder / "file");
    ASSERT_TRUE(bytes);
    EXPECT_EQ(bytes->isInMemory(), size <= 65536);
    std::filesystem::resize_file(folder / "file", 0);
    EXPECT_TRUE(bytes->text() == text) << size;
    EXPECT_FALSE(bytes->writeToFile(folder / "file"));
    EXPECT_TRUE(readFile(folder / "file") == text) << size;
    EXPECT_TRUE(bytes->text() == text) << size;
  }
}

TEST(Bytes, AreWrittenOverWhatWasThere) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", std::string(1000, 'x'));
  EXPECT_FALSE(Bytes(std::string_view("short")).writeToFile(folder / "file"));
  EXPECT_EQ(readFile(folder / "file"), "short");
  EXPECT_FALSE(Bytes().writeToFile(folder / "new"));
  EXPECT_EQ(readFile(folder / "new"), "");
}

TEST(Bytes, WhatCannotBeReadOrWrittenIsAnErrorWithItsReason) {
  const TemporaryDirectory folder;
  const auto missing = Bytes::dataWithContentsOfFile(folder / "missing");
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().code, ENOENT);
  EXPECT_NE(missing.error().localizedDescription.find("missing"), std::string::npos);
  for (const auto& [path, code] :
       std::map<std::string, int>{{folder.path(), EISDIR}, {"/dev/zero", EINVAL}, {folder / "missing", ENOENT}}) {
    const auto snapshot = Bytes::snapshotOfFile(path);
    ASSERT_FALSE(snapshot) << path;
    EXPECT_EQ(snapshot.error().code, code) << path;
  }
  EXPECT_EQ(Bytes(std::string_view("x")).writeToFile(folder / "none/file")->code, ENOENT);
}

TEST(Bytes, OfAFullDiskAreAnError) {
  if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "left out: a full disk, because there is no /dev/full here";
  const auto error = Bytes(std::string_view("x")).writeToFile("/dev/full");
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, ENOSPC);
}

}  // namespace
}  // namespace kestrine::test
