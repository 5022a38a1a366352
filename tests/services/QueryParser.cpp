#include "Services/QueryParser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/services/Expectations.h"
#include "tests/services/ExpectedKeys.h"
#include "tests/services/SystemVersionForTest.h"

namespace kestrine::test {
namespace {

using platform::Dictionary;
using platform::Object;

/// Calls `visit` with the builder of each record that travels alone.
template <class Visit>
void forEachBuilder(const Visit& visit) {
  visit(QueryParser::parseUserRegistrationQuery);
  visit(QueryParser::parseRegisterComputerQuery);
  visit(QueryParser::parseSendActivationMailQuery);
  visit(QueryParser::parseOneTimeSyncOwnersSharedFoldersQuery);
  visit(QueryParser::parseGetTopFileUploadQuery);
  visit(QueryParser::parseCheckUserMailActivationStatusQuery);
  visit(QueryParser::parseUpdateFileUploadQuery);
  visit(QueryParser::parsegetTopFileRequestQuery);
  visit(QueryParser::parseUpdateFileRequestQuery);
  visit(QueryParser::parseUpdateComputerStatusQuery);
  visit(QueryParser::parseOneTimeSyncFilesQuery);
  visit(QueryParser::parseTransferFilesFromColudToBaseSystemQuery);
  visit(QueryParser::parseSendPasswordToMailIdQuery);
  visit(QueryParser::parseLogErrorQuery);
  visit(QueryParser::parseGetSharedFilesTransferDataQuery);
  visit(QueryParser::parseUpdateFileExistDataQuery);
  visit(QueryParser::parseUpdateFileSendReceivedQuery);
  visit(QueryParser::parseUploadWithStreamQuery);
  visit(QueryParser::parseUpdateSendFileToTransferQuery);
  visit(QueryParser::parseIsFileExistsInCloudQuery);
  visit(QueryParser::parseUpdateFileReceivedQuery);
  visit(QueryParser::parseDeleteReceivedFileFromTransferQuery);
  visit(QueryParser::parseInsertFileQuery);
  visit(QueryParser::parseInsertSharedFilesTransferQuery);
  visit(QueryParser::parseUpdateBSUploadStreamStartedQuery);
  visit(QueryParser::parseUpdateBSUploadStreamFailedQuery);
  visit(QueryParser::parseUpdateBSDownloadStreamStartedQuery);
  visit(QueryParser::parseUpdateBSDownloadStreamFailedQuery);
  visit(QueryParser::parseCheckFileExistsInDownloadsQuery);
  visit(QueryParser::parseCheckFileExistsInTransfersQuery);
  visit(QueryParser::parseUpdateBSSendStreamStartedQuery);
  visit(QueryParser::parseUpdateBSSendStreamFailedQuery);
  visit(QueryParser::parseUpdateBSReceiveStreamStartedQuery);
  visit(QueryParser::parseUpdateBSReceiveStreamFailedQuery);
  visit(QueryParser::parseGetTopFileDeleteRequestQuery);
  visit(QueryParser::parseUpdateBSFileDeletedQuery);
}

/// Text that something could be done to: blanks at its ends, escapes, an empty one for every fourth property.
std::string valueOf(const std::string& property, std::size_t position) {
  return position % 4 == 3 ? "" : " \"" + property + "\"\\u0041 \xC3\xA9\n";
}

template <class Query>
Query fullRecord() {
  Query query;
  const auto keys = sentKeys<Query>();
  for (std::size_t i = 0; i < keys.size(); ++i) query.*keys[i].member = valueOf(keys[i].property, i);
  return query;
}

template <class Query>
Dictionary fullBody() {
  Dictionary body;
  const auto keys = sentKeys<Query>();
  for (std::size_t i = 0; i < keys.size(); ++i) body.emplace(*keys[i].key, valueOf(keys[i].property, i));
  return body;
}

TEST(QueryParser, PutsEveryPropertyUnderItsKeyUnchanged) {
  int builders = 0;
  forEachBuilder([&]<class Query>(Object (*builder)(const Query&)) {
    EXPECT_EQ(builder(fullRecord<Query>()), Object(fullBody<Query>()));
    ++builders;
  });
  EXPECT_EQ(builders, 36);
}

TEST(QueryParser, KnowsNoRecordsWithOtherPropertiesThanThese) {
  forEachBuilder([]<class Query>(Object (*)(const Query&)) { EXPECT_EQ(sizeof(Query), sentKeys<Query>().size() * sizeof(Text)); });
  EXPECT_EQ(sizeof(SyncFilesInTableAndCloudQuery), 10 * sizeof(Text));
}

TEST(QueryParser, LeavesOutWhatIsUnset) {
  forEachBuilder([]<class Query>(Object (*builder)(const Query&)) {
    EXPECT_EQ(builder(Query()), Object(Dictionary{}));
    EXPECT_EQ(platform::jsonText(builder(Query())), "{}");
    for (const auto& unset : sentKeys<Query>()) {
      Query query = fullRecord<Query>();
      query.*unset.member = std::nullopt;
      Dictionary body = fullBody<Query>();
      body.erase(*unset.key);
      EXPECT_EQ(builder(query), Object(body)) << unset.property;
    }
  });
}

TEST(QueryParser, RefusesWhatIsUnsetOn10_7) {
  const SystemVersionForTest version("10.7.5");
  forEachBuilder([]<class Query>(Object (*builder)(const Query&)) {
    EXPECT_EQ(builder(fullRecord<Query>()), Object(fullBody<Query>()));
    for (const auto& unset : sentKeys<Query>()) {
      Query query = fullRecord<Query>();
      query.*unset.member = std::nullopt;
      expectInvalidArgument([&] { builder(query); });
    }
  });
  SyncFilesInTableAndCloudQuery change = fullRecord<SyncFilesInTableAndCloudQuery>();
  change.fileID = std::nullopt;
  expectInvalidArgument([&] { QueryParser::parseSyncFilesInTableAndCloudQuery({change}); });
}

TEST(QueryParser, LeavesOutWhatIsUnsetOnTheReleasesAround10_7) {
  for (const char* text : {"10.6.8", "10.8", "10.9.5", "10.10", "11.0"}) {
    const SystemVersionForTest version(text);
    EXPECT_EQ(QueryParser::parseLogErrorQuery({}), Object(Dictionary{})) << text;
  }
}

TEST(QueryParser, LeavesOutAnUnknownComputerOfAnErrorReport) {
  LogErrorQuery query;
  query.errorClass = "c";
  query.errorMethod = "m";
  query.errorMessage = "t";
  query.userId = "u";
  EXPECT_EQ(QueryParser::parseLogErrorQuery(query),
            Object(Dictionary{{"ErrorClass", "c"}, {"ErrorMethod", "m"}, {"ErrorMessage", "t"}, {"UserID", "u"}}));
}

TEST(QueryParser, CallsIsFileExistsIsExists) {
  UpdateFileReceivedQuery query;
  query.isFileExists = "1";
  EXPECT_EQ(QueryParser::parseUpdateFileReceivedQuery(query), Object(Dictionary{{"IsExists", "1"}}));
}

TEST(QueryParser, SpellsThePathFromTheFileTableInTwoWays) {
  CheckFileExistsInTransfersQuery check;
  check.fullPathfromFileTable = "p";
  EXPECT_EQ(QueryParser::parseCheckFileExistsInTransfersQuery(check), Object(Dictionary{{"FullPathfromFileTable", "p"}}));
  UploadFileWithStreamQuery upload;
  upload.fullPathFromFileTable = "p";
  EXPECT_EQ(QueryParser::parseUploadWithStreamQuery(upload), Object(Dictionary{{"FullPathFromFileTable", "p"}}));
}

TEST(QueryParser, MakesABatchInTheOrderOfItsRecords) {
  SyncFilesInTableAndCloudQuery first = fullRecord<SyncFilesInTableAndCloudQuery>();
  SyncFilesInTableAndCloudQuery second;
  second.changeType = "2";
  SyncFilesInTableAndCloudQuery third;
  third.fullPath = "/3";
  EXPECT_EQ(QueryParser::parseSyncFilesInTableAndCloudQuery({first, second, third}),
            Object(Dictionary{{"syncData", platform::Array{fullBody<SyncFilesInTableAndCloudQuery>(), Dictionary{{"ChangeType", "2"}},
                                                           Dictionary{{"FullPath", "/3"}}}}}));
}

TEST(QueryParser, MakesAnEmptyBatchOfNoRecords) {
  EXPECT_EQ(QueryParser::parseSyncFilesInTableAndCloudQuery({}), Object(Dictionary{{"syncData", platform::Array{}}}));
}

}  // namespace
}  // namespace kestrine::test
