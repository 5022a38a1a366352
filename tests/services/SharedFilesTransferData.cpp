#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Services/DataParser.h"
#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/services/Expectations.h"
#include "tests/services/ExpectedKeys.h"

namespace kestrine::test {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Object;
using platform::readJSON;

GetSharedFilesTransferDataResponseData parse(const Object& answer) {
  return DataParser::parseGetSharedFilesTransferDataResponseData(answer);
}
GetSharedFilesTransferDataResponseData parseText(const std::string& text) { return parse(readJSON(text)); }

/// Each key of the section of `Record` set, and "error" besides.
template <class Record>
Dictionary fullElement() {
  Dictionary element = {{"error", Dictionary{}}};
  for (const auto& [property, member, key] : readKeys<Record>()) {
    if (key) element.emplace(*key, "value of " + property);
  }
  return element;
}

template <class Record>
void expectFull(const Record& record) {
  for (const auto& [property, member, key] : readKeys<Record>()) {
    EXPECT_EQ(record.*member, key ? Object("value of " + property) : Object()) << property;
  }
  EXPECT_EQ(sizeof(Record), readKeys<Record>().size() * sizeof(Object));
}

TEST(SharedFilesTransferData, HasFourEmptyArraysWithoutSections) {
  for (const Object& answer : {Object(), Object(Dictionary{}), readJSON(R"({"error":{}})")}) {
    const auto data = parse(answer);
    EXPECT_TRUE(data.fileToTransferArray.empty());
    EXPECT_TRUE(data.OwnerComputersArray.empty());
    EXPECT_TRUE(data.RecFileFromTransferArray.empty());
    EXPECT_TRUE(data.SharedfoldersWithStatusArray.empty());
    EXPECT_TRUE(data.ReturnStatus.isNil());
  }
}

TEST(SharedFilesTransferData, ReadsEachKeyOfEachSection) {
  const auto data = parse(Dictionary{{"FileToTransfer", Array{fullElement<FileToTransfer>()}},
                                     {"OwnerComputers", Array{fullElement<OwnerComputers>()}},
                                     {"RecFileFromTransfer", Array{fullElement<RecFileFromTransfer>()}},
                                     {"ReturnStatus", "1"},
                                     {"SharedfoldersWithStatus", Array{fullElement<SharedfoldersWithStatus>()}}});
  ASSERT_EQ(data.fileToTransferArray.size(), 1U);
  expectFull(data.fileToTransferArray[0]);
  ASSERT_EQ(data.OwnerComputersArray.size(), 1U);
  expectFull(data.OwnerComputersArray[0]);
  ASSERT_EQ(data.RecFileFromTransferArray.size(), 1U);
  expectFull(data.RecFileFromTransferArray[0]);
  ASSERT_EQ(data.SharedfoldersWithStatusArray.size(), 1U);
  expectFull(data.SharedfoldersWithStatusArray[0]);
  EXPECT_EQ(data.ReturnStatus, Object("1"));
}

TEST(SharedFilesTransferData, ReadsThePathFromTheFileTableInTheSectionsOwnSpelling) {
  const auto sent = parseText(R"({"ReturnStatus":"1","FileToTransfer":[{"FullPathfromFileTable":"1","FullPathFromFileTable":"2"}]})");
  EXPECT_EQ(sent.fileToTransferArray.at(0).fullPathfromFileTable, Object("1"));
  const auto received =
      parseText(R"({"RecFileFromTransfer":[{"FullPathfromFileTable":"1","FullPathFromFileTable":"2","NewFullPath":"3"}]})");
  EXPECT_EQ(received.RecFileFromTransferArray.at(0).fullPathFromFileTable, Object("2"));
  EXPECT_EQ(received.RecFileFromTransferArray.at(0).fullPathNew, Object("3"));
}

TEST(SharedFilesTransferData, MakesARecordOfEveryElementInOrder) {
  const auto owners = parseText(R"({"OwnerComputers":[{"KestrinePath":"1","IsAdmin":"1"},{}]})");
  ASSERT_EQ(owners.OwnerComputersArray.size(), 2U);
  EXPECT_EQ(owners.OwnerComputersArray[0].kestrinePath, Object("1"));
  EXPECT_EQ(owners.OwnerComputersArray[0].isAdmin, Object("1"));
  expectUnset(owners.OwnerComputersArray[1]);

  const auto folders =
      parseText(R"({"SharedfoldersWithStatus":[{"FileID":"5","SharedStatus":"2","error":{}},{"FileID":"5"},{"FileID":"4"}]})");
  ASSERT_EQ(folders.SharedfoldersWithStatusArray.size(), 3U) << "equal ones stay";
  EXPECT_EQ(folders.SharedfoldersWithStatusArray[0].fileId, Object("5"));
  EXPECT_EQ(folders.SharedfoldersWithStatusArray[0].sharedStatus, Object("2"));
  EXPECT_TRUE(folders.SharedfoldersWithStatusArray[0].error.isNil());
  EXPECT_EQ(folders.SharedfoldersWithStatusArray[2].fileId, Object("4"));

  const auto counted = parseText(R"({"FileToTransfer":[{},{}],"OwnerComputers":[],"RecFileFromTransfer":[{},{},{},{},{}]})");
  EXPECT_EQ(counted.fileToTransferArray.size(), 2U);
  EXPECT_EQ(counted.OwnerComputersArray.size(), 0U);
  EXPECT_EQ(counted.RecFileFromTransferArray.size(), 5U);
}

TEST(SharedFilesTransferData, StoresValuesAsTheyWereSent) {
  const auto data = parseText(R"({"ReturnStatus":7,"FileToTransfer":[{"IsFile":true,"ToCloud":null,"FullPath":[1]}]})");
  EXPECT_EQ(data.ReturnStatus, Object::numberWithLongLong(7));
  EXPECT_EQ(data.fileToTransferArray.at(0).isFile, Object::numberWithBool(true));
  EXPECT_TRUE(data.fileToTransferArray.at(0).toCloud.isNull());
  EXPECT_EQ(data.fileToTransferArray.at(0).fullPath, Object(Array{Object::numberWithLongLong(1)}));
  EXPECT_TRUE(data.fileToTransferArray.at(0).fullPathNew.isNil());
}

TEST(SharedFilesTransferData, ThrowsForASectionThatIsNoCollection) {
  for (const char* section : {"FileToTransfer", "OwnerComputers", "RecFileFromTransfer", "SharedfoldersWithStatus"}) {
    for (const char* value : {"null", "\"text\"", "1", "true", "{\"a\":{}}", "[null]", "[\"text\"]", "[[]]", "[{}, 1]"}) {
      expectInvalidArgument([&] { parse(readJSON("{\"" + std::string(section) + "\":" + value + "}")); });
    }
    EXPECT_NO_THROW(parseText("{\"" + std::string(section) + "\":{}}")) << "an object without keys has nothing to go through";
  }
  expectInvalidArgument([&] { parse(readJSON(R"({"FileToTransfer":null,"OwnerComputers":[{}]})")); });
}

TEST(SharedFilesTransferData, ThrowsForAnAnswerThatIsNoObject) {
  for (const Object& answer : {readJSON("[]"), Object("text"), Object::null()}) expectInvalidArgument([&] { parse(answer); });
}

}  // namespace
}  // namespace kestrine::test
