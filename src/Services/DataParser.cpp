#include "Services/DataParser.h"

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"

namespace kestrine {

namespace {

/// Reads what the table of `Record` lists, in its order.
template <class Record>
Record recordOf(const platform::Object& response) {
  Record record;
  for (const auto& [property, member, key] : kFieldsOf<Record>) {
    if (key != kNeverFilled) record.*member = response.objectForKey(key);
  }
  return record;
}

/// Calls `take` with each element, as the platform goes through a value: a dictionary by its keys, nothing not at all.
template <class Take>
void forEachElement(const platform::Object& collection, const Take& take) {
  if (collection.isDictionary()) {
    for (const auto& [key, value] : collection.dictionaryValue()) take(platform::Object(key));
    return;
  }
  for (const platform::Object& element : collection.arrayValue()) take(element);
}

template <class Record>
std::vector<Record> recordsOf(const platform::Object& section) {
  std::vector<Record> records;
  if (section.isArray()) records.reserve(section.count());
  forEachElement(section, [&](const platform::Object& element) { records.push_back(recordOf<Record>(element)); });
  return records;
}

/// Hands back the status itself, and sets the answer's error on it as if it were a record. No value has an error to set, so an answer with
/// a status always ends here.
platform::Object statusOf(const platform::Object& response) {
  platform::Object status = response.objectForKey("ReturnStatus");
  if (!status.isNil()) {
    throw platform::Exception(platform::NSInvalidArgumentException, "unrecognized operation setError: sent to the value of ReturnStatus");
  }
  return status;
}

}  // namespace

UserRegistrationResponseData DataParser::parseUserRegistrationReponseData(const platform::Object& response) {
  return recordOf<UserRegistrationResponseData>(response);
}
RegisterComputerResponseData DataParser::parseRegisterComputerResponseData(const platform::Object& response) {
  return recordOf<RegisterComputerResponseData>(response);
}
SendActivationMailResponseData DataParser::parseSendActivationMailResponseData(const platform::Object& response) {
  return recordOf<SendActivationMailResponseData>(response);
}
OneTimeSyncOwnersSharedFoldersResponseData DataParser::parseOneTimeSyncOwnersSharedFoldersResponseData(const platform::Object& response) {
  return recordOf<OneTimeSyncOwnersSharedFoldersResponseData>(response);
}
TransferFilesFromCloudToBaseSystemResponseData DataParser::parseTransferFilesFromCloudToBaseSystemResponseData(
    const platform::Object& response) {
  return recordOf<TransferFilesFromCloudToBaseSystemResponseData>(response);
}
GetTopFileUploadResponseData DataParser::parseGetTopFileUploadResponseData(const platform::Object& response) {
  return recordOf<GetTopFileUploadResponseData>(response);
}
CheckUserMailActivationStatusResponseData DataParser::parseCheckUserMailActivationStatusResponseData(const platform::Object& response) {
  return recordOf<CheckUserMailActivationStatusResponseData>(response);
}
UpdateFileUploadResponseData DataParser::parseUpdateFileUploadResponseData(const platform::Object& response) {
  return recordOf<UpdateFileUploadResponseData>(response);
}
GetTopFileRequestResponseData DataParser::parseGetTopFileRequestResponseData(const platform::Object& response) {
  return recordOf<GetTopFileRequestResponseData>(response);
}
UpdateFileRequestResponseData DataParser::parseUpdateFileRequestResponseData(const platform::Object& response) {
  return recordOf<UpdateFileRequestResponseData>(response);
}
std::vector<SyncFilesInTableAndCloudResponseData> DataParser::parseSyncFilesInTableAndCloudResponseData(const platform::Object& response) {
  // Written and read once more: what is no JSON, nothing included, is refused here and not element by element.
  return recordsOf<SyncFilesInTableAndCloudResponseData>(platform::readJSON(platform::prettyJSONText(response)));
}
UpdateComputerStatusResponseData DataParser::parseUpdateComputerStatusResponseData(const platform::Object& response) {
  return recordOf<UpdateComputerStatusResponseData>(response);
}
OneTimeSyncFilesResponseData DataParser::parseOneTimeSyncFilesResponseData(const platform::Object& response) {
  return recordOf<OneTimeSyncFilesResponseData>(response);
}
SendPasswordToMailIdResponseData DataParser::parseSendPasswordToMailIdResponseData(const platform::Object& response) {
  return recordOf<SendPasswordToMailIdResponseData>(response);
}
LogErrorResponseData DataParser::parseLogErrorResponseData(const platform::Object& response) {
  return recordOf<LogErrorResponseData>(response);
}
UpdateFileExistResponseData DataParser::parseUpdateFileExistResponseData(const platform::Object& response) {
  return recordOf<UpdateFileExistResponseData>(response);
}
UpdateFileSendReceivedResponseData DataParser::parseUpdateFileSendReceivedResponseData(const platform::Object& response) {
  return recordOf<UpdateFileSendReceivedResponseData>(response);
}
platform::Object DataParser::parseUploadFileWithStreamResponseData(const platform::Object& response) { return statusOf(response); }
platform::Object DataParser::parseUpdateSendFileToTransferResponseData(const platform::Object& response) { return statusOf(response); }
IsFileExistsInCloudResponseData DataParser::parseIsFileExistsInCloudResponseData(const platform::Object& response) {
  return recordOf<IsFileExistsInCloudResponseData>(response);
}
UpdateFileReceivedResponseData DataParser::parseUpdateFileReceivedResponseData(const platform::Object& response) {
  return recordOf<UpdateFileReceivedResponseData>(response);
}
DeleteReceivedFileFromTransferResponseData DataParser::parseDeleteReceivedFileFromTransferResponseData(const platform::Object& response) {
  return recordOf<DeleteReceivedFileFromTransferResponseData>(response);
}
InsertFileResponseData DataParser::parseInsertFileResponseData(const platform::Object& response) {
  return recordOf<InsertFileResponseData>(response);
}
InsertSharedFilesTransferResponseData DataParser::parseInsertSharedFilesTransferResponseData(const platform::Object& response) {
  return recordOf<InsertSharedFilesTransferResponseData>(response);
}
UpdateBSUploadStreamStartedResponseData DataParser::parseUpdateBSUploadStreamStartedResponseData(const platform::Object& response) {
  return recordOf<UpdateBSUploadStreamStartedResponseData>(response);
}
UpdateBSUploadStreamFailedResponseData DataParser::parseUpdateBSUploadStreamFailedResponseData(const platform::Object& response) {
  return recordOf<UpdateBSUploadStreamFailedResponseData>(response);
}
UpdateBSDownloadStreamStartedResponseData DataParser::parseUpdateBSDownloadStreamStartedResponseData(const platform::Object& response) {
  return recordOf<UpdateBSDownloadStreamStartedResponseData>(response);
}
UpdateBSDownloadStreamFailedResponseData DataParser::parseUpdateBSDownloadStreamFailedResponseData(const platform::Object& response) {
  return recordOf<UpdateBSDownloadStreamFailedResponseData>(response);
}
CheckFileExistsInDownloadsResponseData DataParser::parseCheckFileExistsInDownloadsResponseData(const platform::Object& response) {
  return recordOf<CheckFileExistsInDownloadsResponseData>(response);
}
CheckFileExistsInTransfersResponseData DataParser::parseCheckFileExistsInTransfersResponseData(const platform::Object& response) {
  return recordOf<CheckFileExistsInTransfersResponseData>(response);
}
UpdateBSSendStreamStartedResponseData DataParser::parseUpdateBSSendStreamstartedResponseData(const platform::Object& response) {
  return recordOf<UpdateBSSendStreamStartedResponseData>(response);
}
UpdateBSSendStreamFailedResponseData DataParser::parseUpdateBSSendStreamFailedResponseData(const platform::Object& response) {
  return recordOf<UpdateBSSendStreamFailedResponseData>(response);
}
UpdateBSReceiveStreamStartedResponseData DataParser::parseUpdateBSReceiveStreamStartedResponseData(const platform::Object& response) {
  return recordOf<UpdateBSReceiveStreamStartedResponseData>(response);
}
UpdateBSReceiveStreamFailedResponseData DataParser::parseUpdateBSReceiveStreamFailedResponseData(const platform::Object& response) {
  return recordOf<UpdateBSReceiveStreamFailedResponseData>(response);
}
GetTopFileDeleteResponseData DataParser::parseGetTopFileResponseData(const platform::Object& response) {
  return recordOf<GetTopFileDeleteResponseData>(response);
}
UpdateBSFileDeleteResponseData DataParser::parseUpdateBSFileDeleteResponseData(const platform::Object& response) {
  return recordOf<UpdateBSFileDeleteResponseData>(response);
}

GetSharedFilesTransferDataResponseData DataParser::parseGetSharedFilesTransferDataResponseData(const platform::Object& response) {
  GetSharedFilesTransferDataResponseData data;
  data.fileToTransferArray = recordsOf<FileToTransfer>(response.objectForKey("FileToTransfer"));
  data.OwnerComputersArray = recordsOf<OwnerComputers>(response.objectForKey("OwnerComputers"));
  data.RecFileFromTransferArray = recordsOf<RecFileFromTransfer>(response.objectForKey("RecFileFromTransfer"));
  data.ReturnStatus = response.objectForKey("ReturnStatus");
  data.SharedfoldersWithStatusArray = recordsOf<SharedfoldersWithStatus>(response.objectForKey("SharedfoldersWithStatus"));
  return data;
}

}  // namespace kestrine
