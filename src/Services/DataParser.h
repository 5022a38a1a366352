#pragma once

#include <vector>

#include "Services/records/Records.h"
#include "platform/foundation/value/Object.h"

namespace kestrine {

/// Turns the server's decoded answers into records. A value is stored as it was sent: an absent key leaves its property nil, null stays
/// null, a number stays a number. Keys that no table lists are ignored, and an answer that is nothing gives a record with every property
/// unset.
///
/// Nothing is checked: an answer of another shape throws platform::Exception(NSInvalidArgumentException) at the first look into it, and
/// whoever calls decides what becomes of that.
///
/// The irregular names are those that callers know. Class operations only; pure functions, any thread.
class DataParser {
 public:
  DataParser() = delete;

  static UserRegistrationResponseData parseUserRegistrationReponseData(const platform::Object& response);
  static RegisterComputerResponseData parseRegisterComputerResponseData(const platform::Object& response);
  static SendActivationMailResponseData parseSendActivationMailResponseData(const platform::Object& response);
  static OneTimeSyncOwnersSharedFoldersResponseData parseOneTimeSyncOwnersSharedFoldersResponseData(const platform::Object& response);
  static TransferFilesFromCloudToBaseSystemResponseData parseTransferFilesFromCloudToBaseSystemResponseData(
      const platform::Object& response);
  static GetTopFileUploadResponseData parseGetTopFileUploadResponseData(const platform::Object& response);
  static CheckUserMailActivationStatusResponseData parseCheckUserMailActivationStatusResponseData(const platform::Object& response);
  static UpdateFileUploadResponseData parseUpdateFileUploadResponseData(const platform::Object& response);
  static GetTopFileRequestResponseData parseGetTopFileRequestResponseData(const platform::Object& response);
  static UpdateFileRequestResponseData parseUpdateFileRequestResponseData(const platform::Object& response);
  /// The batch's answer: one record per element, in their order. Throws for an answer that is nothing.
  static std::vector<SyncFilesInTableAndCloudResponseData> parseSyncFilesInTableAndCloudResponseData(const platform::Object& response);
  static UpdateComputerStatusResponseData parseUpdateComputerStatusResponseData(const platform::Object& response);
  static OneTimeSyncFilesResponseData parseOneTimeSyncFilesResponseData(const platform::Object& response);
  static SendPasswordToMailIdResponseData parseSendPasswordToMailIdResponseData(const platform::Object& response);
  static LogErrorResponseData parseLogErrorResponseData(const platform::Object& response);
  /// Four sections of the answer become arrays of records. A section that is missing is an empty one; one that is no collection, or an
  /// element that is no object, throws, and what comes behind it is not read.
  static GetSharedFilesTransferDataResponseData parseGetSharedFilesTransferDataResponseData(const platform::Object& response);
  static UpdateFileExistResponseData parseUpdateFileExistResponseData(const platform::Object& response);
  static UpdateFileSendReceivedResponseData parseUpdateFileSendReceivedResponseData(const platform::Object& response);
  /// These two give the value of "ReturnStatus" itself, nil when there is none. When there is one they throw.
  static platform::Object parseUploadFileWithStreamResponseData(const platform::Object& response);
  static platform::Object parseUpdateSendFileToTransferResponseData(const platform::Object& response);
  static IsFileExistsInCloudResponseData parseIsFileExistsInCloudResponseData(const platform::Object& response);
  static UpdateFileReceivedResponseData parseUpdateFileReceivedResponseData(const platform::Object& response);
  static DeleteReceivedFileFromTransferResponseData parseDeleteReceivedFileFromTransferResponseData(const platform::Object& response);
  static InsertFileResponseData parseInsertFileResponseData(const platform::Object& response);
  static InsertSharedFilesTransferResponseData parseInsertSharedFilesTransferResponseData(const platform::Object& response);
  static UpdateBSUploadStreamStartedResponseData parseUpdateBSUploadStreamStartedResponseData(const platform::Object& response);
  static UpdateBSUploadStreamFailedResponseData parseUpdateBSUploadStreamFailedResponseData(const platform::Object& response);
  static UpdateBSDownloadStreamStartedResponseData parseUpdateBSDownloadStreamStartedResponseData(const platform::Object& response);
  static UpdateBSDownloadStreamFailedResponseData parseUpdateBSDownloadStreamFailedResponseData(const platform::Object& response);
  static CheckFileExistsInDownloadsResponseData parseCheckFileExistsInDownloadsResponseData(const platform::Object& response);
  static CheckFileExistsInTransfersResponseData parseCheckFileExistsInTransfersResponseData(const platform::Object& response);
  static UpdateBSSendStreamStartedResponseData parseUpdateBSSendStreamstartedResponseData(const platform::Object& response);
  static UpdateBSSendStreamFailedResponseData parseUpdateBSSendStreamFailedResponseData(const platform::Object& response);
  static UpdateBSReceiveStreamStartedResponseData parseUpdateBSReceiveStreamStartedResponseData(const platform::Object& response);
  static UpdateBSReceiveStreamFailedResponseData parseUpdateBSReceiveStreamFailedResponseData(const platform::Object& response);
  static GetTopFileDeleteResponseData parseGetTopFileResponseData(const platform::Object& response);
  static UpdateBSFileDeleteResponseData parseUpdateBSFileDeleteResponseData(const platform::Object& response);
};

}  // namespace kestrine
