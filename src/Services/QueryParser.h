#pragma once

#include <vector>

#include "Services/records/Records.h"
#include "platform/foundation/value/Object.h"

namespace kestrine {

/// Turns request records into the bodies of requests: a dictionary with one text per property that is set, under the key that the server
/// knows it by. A property that is unset has no entry, neither null nor an empty text; nothing is checked, added or converted.
///
/// On 10.7 an unset property throws platform::Exception(NSInvalidArgumentException) instead: storing nothing into a dictionary is
/// refused there, so every property must be set.
///
/// The irregular names are those that callers know. Class operations only; pure functions, any thread.
class QueryParser {
 public:
  QueryParser() = delete;

  static platform::Object parseUserRegistrationQuery(const UserRegistrationQuery& query);
  static platform::Object parseRegisterComputerQuery(const RegisterComputerQuery& query);
  static platform::Object parseSendActivationMailQuery(const SendActivationMailQuery& query);
  static platform::Object parseOneTimeSyncOwnersSharedFoldersQuery(const OneTimeSyncOwnersSharedFoldersQuery& query);
  static platform::Object parseGetTopFileUploadQuery(const GetTopFileUploadQuery& query);
  static platform::Object parseCheckUserMailActivationStatusQuery(const CheckUserMailActivationStatusQuery& query);
  static platform::Object parseUpdateFileUploadQuery(const UpdateFileUploadQuery& query);
  static platform::Object parsegetTopFileRequestQuery(const GetTopFileRequestQuery& query);
  static platform::Object parseUpdateFileRequestQuery(const UpdateFileRequestQuery& query);
  /// The batch: one entry, "syncData", with an array of one dictionary per element, in their order.
  static platform::Object parseSyncFilesInTableAndCloudQuery(const std::vector<SyncFilesInTableAndCloudQuery>& queries);
  static platform::Object parseUpdateComputerStatusQuery(const UpdateComputerStatusQuery& query);
  static platform::Object parseOneTimeSyncFilesQuery(const OneTimeSyncFilesQuery& query);
  static platform::Object parseTransferFilesFromColudToBaseSystemQuery(const TransferFilesFromCloudToBaseSystemQuery& query);
  static platform::Object parseSendPasswordToMailIdQuery(const SendPasswordToMailIdQuery& query);
  static platform::Object parseLogErrorQuery(const LogErrorQuery& query);
  static platform::Object parseGetSharedFilesTransferDataQuery(const GetSharedFilesTransferDataQuery& query);
  static platform::Object parseUpdateFileExistDataQuery(const UpdateFileExistQuery& query);
  static platform::Object parseUpdateFileSendReceivedQuery(const UpdateFileSendReceivedQuery& query);
  static platform::Object parseUploadWithStreamQuery(const UploadFileWithStreamQuery& query);
  static platform::Object parseUpdateSendFileToTransferQuery(const UpdateSendFileToTransferQuery& query);
  static platform::Object parseIsFileExistsInCloudQuery(const IsFileExistsInCloudQuery& query);
  static platform::Object parseUpdateFileReceivedQuery(const UpdateFileReceivedQuery& query);
  static platform::Object parseDeleteReceivedFileFromTransferQuery(const DeleteReceivedFileFromTransferQuery& query);
  static platform::Object parseInsertFileQuery(const InsertFileQuery& query);
  static platform::Object parseInsertSharedFilesTransferQuery(const InsertSharedFilesTransferQuery& query);
  static platform::Object parseUpdateBSUploadStreamStartedQuery(const UpdateBSUploadStreamStartedQuery& query);
  static platform::Object parseUpdateBSUploadStreamFailedQuery(const UpdateBSUploadStreamFailedQuery& query);
  static platform::Object parseUpdateBSDownloadStreamStartedQuery(const UpdateBSDownloadStreamStartedQuery& query);
  static platform::Object parseUpdateBSDownloadStreamFailedQuery(const UpdateBSDownloadStreamFailedQuery& query);
  static platform::Object parseCheckFileExistsInDownloadsQuery(const CheckFileExistsInDownloadsQuery& query);
  static platform::Object parseCheckFileExistsInTransfersQuery(const CheckFileExistsInTransfersQuery& query);
  static platform::Object parseUpdateBSSendStreamStartedQuery(const UpdateBSSendStreamStartedQuery& query);
  static platform::Object parseUpdateBSSendStreamFailedQuery(const UpdateBSSendStreamFailedQuery& query);
  static platform::Object parseUpdateBSReceiveStreamStartedQuery(const UpdateBSReceiveStreamStartedQuery& query);
  static platform::Object parseUpdateBSReceiveStreamFailedQuery(const UpdateBSReceiveStreamFailedQuery& query);
  static platform::Object parseGetTopFileDeleteRequestQuery(const GetTopFileDeleteRequestQuery& query);
  static platform::Object parseUpdateBSFileDeletedQuery(const UpdateBSFileDeletedQuery& query);
};

}  // namespace kestrine
