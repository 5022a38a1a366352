#include "Services/QueryParser.h"

#include <fmt/format.h>

#include <utility>

#include "platform/foundation/Exception.h"
#include "util/ServicesUtilities.h"

namespace kestrine {

namespace {

/// Stores what the table of `Query` lists, in its order.
template <class Query>
platform::Object bodyOf(const Query& query) {
  platform::Dictionary body;
  for (const auto& [property, member, key] : kFieldsOf<Query>) {
    if (const Text& text = query.*member) {
      body.insert_or_assign(std::string(key), *text);
    } else if (ServicesUtilities::is10_7()) {
      throw platform::Exception(platform::NSInvalidArgumentException, fmt::format("nothing to store under \"{}\"", key));
    }
  }
  return body;
}

}  // namespace

platform::Object QueryParser::parseUserRegistrationQuery(const UserRegistrationQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseRegisterComputerQuery(const RegisterComputerQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseSendActivationMailQuery(const SendActivationMailQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseOneTimeSyncOwnersSharedFoldersQuery(const OneTimeSyncOwnersSharedFoldersQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseGetTopFileUploadQuery(const GetTopFileUploadQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseCheckUserMailActivationStatusQuery(const CheckUserMailActivationStatusQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseUpdateFileUploadQuery(const UpdateFileUploadQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parsegetTopFileRequestQuery(const GetTopFileRequestQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateFileRequestQuery(const UpdateFileRequestQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseSyncFilesInTableAndCloudQuery(const std::vector<SyncFilesInTableAndCloudQuery>& queries) {
  platform::Array changes;
  changes.reserve(queries.size());
  for (const SyncFilesInTableAndCloudQuery& query : queries) changes.push_back(bodyOf(query));
  return platform::Dictionary{{"syncData", std::move(changes)}};
}
platform::Object QueryParser::parseUpdateComputerStatusQuery(const UpdateComputerStatusQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseOneTimeSyncFilesQuery(const OneTimeSyncFilesQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseTransferFilesFromColudToBaseSystemQuery(const TransferFilesFromCloudToBaseSystemQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseSendPasswordToMailIdQuery(const SendPasswordToMailIdQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseLogErrorQuery(const LogErrorQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseGetSharedFilesTransferDataQuery(const GetSharedFilesTransferDataQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateFileExistDataQuery(const UpdateFileExistQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateFileSendReceivedQuery(const UpdateFileSendReceivedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUploadWithStreamQuery(const UploadFileWithStreamQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateSendFileToTransferQuery(const UpdateSendFileToTransferQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseIsFileExistsInCloudQuery(const IsFileExistsInCloudQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateFileReceivedQuery(const UpdateFileReceivedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseDeleteReceivedFileFromTransferQuery(const DeleteReceivedFileFromTransferQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseInsertFileQuery(const InsertFileQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseInsertSharedFilesTransferQuery(const InsertSharedFilesTransferQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSUploadStreamStartedQuery(const UpdateBSUploadStreamStartedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSUploadStreamFailedQuery(const UpdateBSUploadStreamFailedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSDownloadStreamStartedQuery(const UpdateBSDownloadStreamStartedQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseUpdateBSDownloadStreamFailedQuery(const UpdateBSDownloadStreamFailedQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseCheckFileExistsInDownloadsQuery(const CheckFileExistsInDownloadsQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseCheckFileExistsInTransfersQuery(const CheckFileExistsInTransfersQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSSendStreamStartedQuery(const UpdateBSSendStreamStartedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSSendStreamFailedQuery(const UpdateBSSendStreamFailedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSReceiveStreamStartedQuery(const UpdateBSReceiveStreamStartedQuery& query) {
  return bodyOf(query);
}
platform::Object QueryParser::parseUpdateBSReceiveStreamFailedQuery(const UpdateBSReceiveStreamFailedQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseGetTopFileDeleteRequestQuery(const GetTopFileDeleteRequestQuery& query) { return bodyOf(query); }
platform::Object QueryParser::parseUpdateBSFileDeletedQuery(const UpdateBSFileDeletedQuery& query) { return bodyOf(query); }

}  // namespace kestrine
