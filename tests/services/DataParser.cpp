#include "Services/DataParser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/services/Expectations.h"
#include "tests/services/ExpectedKeys.h"

namespace kestrine::test {
namespace {

using platform::Dictionary;
using platform::Object;
using platform::readJSON;

/// Calls `visit` with each parser that makes one flat record.
template <class Visit>
void forEachParser(const Visit& visit) {
  visit(DataParser::parseUserRegistrationReponseData);
  visit(DataParser::parseRegisterComputerResponseData);
  visit(DataParser::parseSendActivationMailResponseData);
  visit(DataParser::parseOneTimeSyncOwnersSharedFoldersResponseData);
  visit(DataParser::parseTransferFilesFromCloudToBaseSystemResponseData);
  visit(DataParser::parseGetTopFileUploadResponseData);
  visit(DataParser::parseCheckUserMailActivationStatusResponseData);
  visit(DataParser::parseUpdateFileUploadResponseData);
  visit(DataParser::parseGetTopFileRequestResponseData);
  visit(DataParser::parseUpdateFileRequestResponseData);
  visit(DataParser::parseUpdateComputerStatusResponseData);
  visit(DataParser::parseOneTimeSyncFilesResponseData);
  visit(DataParser::parseSendPasswordToMailIdResponseData);
  visit(DataParser::parseLogErrorResponseData);
  visit(DataParser::parseUpdateFileExistResponseData);
  visit(DataParser::parseUpdateFileSendReceivedResponseData);
  visit(DataParser::parseIsFileExistsInCloudResponseData);
  visit(DataParser::parseUpdateFileReceivedResponseData);
  visit(DataParser::parseDeleteReceivedFileFromTransferResponseData);
  visit(DataParser::parseInsertFileResponseData);
  visit(DataParser::parseInsertSharedFilesTransferResponseData);
  visit(DataParser::parseUpdateBSUploadStreamStartedResponseData);
  visit(DataParser::parseUpdateBSUploadStreamFailedResponseData);
  visit(DataParser::parseUpdateBSDownloadStreamStartedResponseData);
  visit(DataParser::parseUpdateBSDownloadStreamFailedResponseData);
  visit(DataParser::parseCheckFileExistsInDownloadsResponseData);
  visit(DataParser::parseCheckFileExistsInTransfersResponseData);
  visit(DataParser::parseUpdateBSSendStreamstartedResponseData);
  visit(DataParser::parseUpdateBSSendStreamFailedResponseData);
  visit(DataParser::parseUpdateBSReceiveStreamStartedResponseData);
  visit(DataParser::parseUpdateBSReceiveStreamFailedResponseData);
  visit(DataParser::parseGetTopFileResponseData);
  visit(DataParser::parseUpdateBSFileDeleteResponseData);
}

TEST(DataParser, ReadsEachPropertyFromItsKeyAndNoOther) {
  int parsers = 0;
  forEachParser([&]<class Record>(Record (*parser)(const Object&)) {
    // Keys that some records know and others do not, and one that none does.
    Dictionary answer = {{"error", Dictionary{{"x", "1"}}}, {"ReturnVal", "v"}, {"FileID", "f"}, {"Unknown", "u"}};
    for (const auto& [property, member, key] : readKeys<Record>()) {
      if (key && *key != "error") answer.insert_or_assign(*key, "value of " + property);
    }
    const Record record = parser(answer);
    for (const auto& [property, member, key] : readKeys<Record>()) {
      const Object expected = !key ? Object() : *key == "error" ? Object(Dictionary{{"x", "1"}}) : Object("value of " + property);
      EXPECT_EQ(record.*member, expected) << property;
    }
    ++parsers;
  });
  EXPECT_EQ(parsers, 33);
}

TEST(DataParser, KnowsNoRecordsWithOtherPropertiesThanThese) {
  forEachParser([]<class Record>(Record (*)(const Object&)) { EXPECT_EQ(sizeof(Record), readKeys<Record>().size() * sizeof(Object)); });
  EXPECT_EQ(sizeof(SyncFilesInTableAndCloudResponseData), 4 * sizeof(Object));
  EXPECT_EQ(sizeof(UploadFileWithStreamResponseData), 2 * sizeof(Object));
  EXPECT_EQ(sizeof(UpdateSendFileToTransferResponseData), 2 * sizeof(Object));
}

TEST(DataParser, LeavesEverythingUnsetForAnEmptyAnswerAndForNothing) {
  forEachParser([]<class Record>(Record (*parser)(const Object&)) {
    expectUnset(parser(Object(Dictionary{})));
    expectUnset(parser(Object()));
  });
}

TEST(DataParser, StoresEachValueAsItWasSent) {
  forEachParser([]<class Record>(Record (*parser)(const Object&)) {
    for (const char* text : {"null", "1", "1.5", "true", "18446744073709551615", "\"\"", "\"text\"", "[1,null]", "{\"a\":{}}"}) {
      const Object value = readJSON("[" + std::string(text) + "]").objectAtIndex(0);
      Dictionary answer;
      for (const auto& [property, member, key] : readKeys<Record>()) {
        if (key) answer.emplace(*key, value);
      }
      const Record record = parser(answer);
      for (const auto& [property, member, key] : readKeys<Record>()) EXPECT_EQ(record.*member, key ? value : Object()) << property << text;
    }
  });
}

TEST(DataParser, ThrowsForAnAnswerOfAnotherShape) {
  forEachParser([]<class Record>(Record (*parser)(const Object&)) {
    for (const Object& answer : {readJSON("[]"), readJSON("[{}]"), Object("text"), Object::null(), Object::numberWithInt(1)}) {
      expectInvalidArgument([&] { parser(answer); });
    }
  });
}

TEST(DataParser, ReadsTheAnswerToAnErrorReport) {
  const LogErrorResponseData data = DataParser::parseLogErrorResponseData(readJSON(R"({"ReturnStatus":"1","error":{}})"));
  EXPECT_EQ(data.returnStatus, Object("1"));
  EXPECT_EQ(data.error, Object(Dictionary{}));
}

TEST(DataParser, KeepsANumberANumberAndNullApartFromUnset) {
  EXPECT_EQ(DataParser::parseLogErrorResponseData(readJSON(R"({"ReturnStatus":1})")).returnStatus, Object::numberWithLongLong(1));
  const LogErrorResponseData data = DataParser::parseLogErrorResponseData(readJSON(R"({"ReturnStatus":null})"));
  EXPECT_TRUE(data.returnStatus.isNull());
  EXPECT_TRUE(data.error.isNil());
}

TEST(DataParser, ReadsAFileRequestFromKeysWithOtherNames) {
  const auto data = DataParser::parseGetTopFileRequestResponseData(readJSON(R"({"FromShared":"true","FileID":"42"})"));
  EXPECT_EQ(data.sharedFlag, Object("true"));
  EXPECT_EQ(data.ownerFileID, Object("42"));
  EXPECT_TRUE(data.fileRequestID.isNil());
}

TEST(DataParser, NeverFillsTheErrorOfSomeRecords) {
  const auto data = DataParser::parseUpdateBSSendStreamFailedResponseData(readJSON(R"({"ReturnStatus":"1","error":{"x":1}})"));
  EXPECT_EQ(data.returnStatus, Object("1"));
  EXPECT_TRUE(data.error.isNil());
}

TEST(DataParser, ReadsWhereADownloadIsToGoOn) {
  const auto data =
      DataParser::parseCheckFileExistsInDownloadsResponseData(readJSON(R"({"ByteStartPos":"1024","ReturnStatus":"1","error":{}})"));
  EXPECT_EQ(data.byteStartPos, Object("1024"));
  EXPECT_EQ(data.returnStatus, Object("1"));
}

TEST(DataParser, ReadsABatchInItsOrder) {
  EXPECT_TRUE(DataParser::parseSyncFilesInTableAndCloudResponseData(readJSON("[]")).empty());
  const auto records = DataParser::parseSyncFilesInTableAndCloudResponseData(
      readJSON(R"([{"FileID":"7","ReturnStatus":"1","BaseSystemFileID":"9","error":{"x":1}},{"FileID":"8"},{}])"));
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0].fileId, Object("7"));
  EXPECT_EQ(records[0].returnStatus, Object("1"));
  EXPECT_EQ(records[0].baseSystemFileID, Object("9"));
  EXPECT_TRUE(records[0].error.isNil());
  EXPECT_EQ(records[1].fileId, Object("8"));
  EXPECT_TRUE(records[1].returnStatus.isNil());
  EXPECT_TRUE(records[1].baseSystemFileID.isNil());
  expectUnset(records[2]);
}

TEST(DataParser, KeepsValuesOfABatchAsTheyWereSent) {
  const Object values = readJSON(R"([1, 1.0, true, null, 0.1, 18446744073709551615, "1", {"a":[]}])");
  for (const Object& value : values.arrayValue()) {
    const auto records = DataParser::parseSyncFilesInTableAndCloudResponseData(platform::Array{Dictionary{{"FileID", value}}});
    EXPECT_EQ(records.at(0).fileId, value);
  }
}

TEST(DataParser, ThrowsForABatchOfAnotherShape) {
  for (const Object& answer : {Object(), Object::null(), Object("text"), readJSON(R"({"FileID":"7"})"), readJSON(R"(["text"])"),
                               readJSON("[[]]"), readJSON("[null]"), readJSON(R"([{"FileID":"7"}, 1])")}) {
    expectInvalidArgument([&] { DataParser::parseSyncFilesInTableAndCloudResponseData(answer); });
  }
  EXPECT_TRUE(DataParser::parseSyncFilesInTableAndCloudResponseData(readJSON("{}")).empty()) << "it has no keys to go through";
}

TEST(DataParser, FailsWhereTheStatusItselfIsTheAnswer) {
  for (const auto parser : {DataParser::parseUploadFileWithStreamResponseData, DataParser::parseUpdateSendFileToTransferResponseData}) {
    EXPECT_TRUE(parser(readJSON("{}")).isNil());
    EXPECT_TRUE(parser(Object()).isNil());
    EXPECT_TRUE(parser(readJSON(R"({"error":{"x":1}})")).isNil());
    for (const char* answer : {R"({"ReturnStatus":"1"})", R"({"ReturnStatus":"1","error":{}})", R"({"ReturnStatus":1})",
                               R"({"ReturnStatus":null})", R"({"ReturnStatus":{}})", "[]"}) {
      expectInvalidArgument([&] { parser(readJSON(answer)); });
    }
  }
}

}  // namespace
}  // namespace kestrine::test
