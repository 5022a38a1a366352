#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Services/records/Records.h"

// What the server and the callers agreed upon, written down a second time: nothing here comes from the tables of the code.

namespace kestrine::test {

/// A property of a record and the key that it travels under; no key for one that no answer fills.
template <class Record, class Value>
struct ExpectedKey {
  std::string property;
  Value Record::*member;
  std::optional<std::string> key;
};
template <class Record>
using SentKeys = std::vector<ExpectedKey<Record, std::optional<std::string>>>;
template <class Record>
using ReadKeys = std::vector<ExpectedKey<Record, platform::Object>>;

template <class Query>
SentKeys<Query> sentKeys();
template <class Record>
ReadKeys<Record> readKeys();

// NOLINTBEGIN(cppcoreguidelines-macro-usage): a property's name is wanted as text and as a member
#define AS(property, key) \
  { #property, &Record::property, key }
#define NEVER(property) \
  { #property, &Record::property, std::nullopt }
#define SENT(record, ...)                      \
  template <>                                  \
  inline SentKeys<record> sentKeys<record>() { \
    using Record = record;                     \
    return {__VA_ARGS__};                      \
  }
#define READ(record, ...)                      \
  template <>                                  \
  inline ReadKeys<record> readKeys<record>() { \
    using Record = record;                     \
    return {__VA_ARGS__};                      \
  }
// NOLINTEND(cppcoreguidelines-macro-usage)

// clang-format off
SENT(UserRegistrationQuery, AS(mailId, "MailID"), AS(passWord, "Password"), AS(firstName, "FirstName"), AS(lastName, "LastName"), AS(nickName, "NickName"))
SENT(RegisterComputerQuery, AS(userId, "UserID"), AS(kestrinePath, "KestrinePath"))
SENT(SendActivationMailQuery, AS(mailId, "MailID"), AS(userId, "UserID"))
SENT(OneTimeSyncOwnersSharedFoldersQuery, AS(computerId, "ComputerID"), AS(userId, "UserID"))
SENT(GetTopFileUploadQuery, AS(toComputerId, "ToComputerID"))
SENT(CheckUserMailActivationStatusQuery, AS(userId, "UserID"))
SENT(UpdateFileUploadQuery, AS(fileUploadId, "FileUploadID"), AS(fileName, "FileName"), AS(serverPath, "ServerPath"), AS(transitUploadPath, "TransitUploadPath"))
SENT(GetTopFileRequestQuery, AS(fromComputerID, "FromComputerID"))
SENT(UpdateFileRequestQuery, AS(filePath, "FilePath"), AS(fileRequestId, "FileRequestID"), AS(transitDownloadPath, "TransitDownloadPath"), AS(attachment, "Attachment"))
SENT(SyncFilesInTableAndCloudQuery, AS(changeType, "ChangeType"), AS(oldFullPath, "OldFullPath"), AS(fullPath, "FullPath"), AS(fileSize, "FileSize"), AS(kestrinePath, "KestrinePath"), AS(isFile, "IsFile"), AS(computerId, "ComputerID"), AS(fileModifiedDate, "FileModifiedDate"), AS(baseSystemFileID, "BaseSystemFileID"), AS(fileID, "FileID"))
SENT(UpdateComputerStatusQuery, AS(computerId, "ComputerID"), AS(dateTime, "DateTime"), AS(versionNumber, "VersionNumber"))
SENT(OneTimeSyncFilesQuery, AS(allFiles, "AllFiles"), AS(computerId, "ComputerID"), AS(kestrinePath, "KestrinePath"))
SENT(TransferFilesFromCloudToBaseSystemQuery, AS(computerID, "ComputerID"), AS(kestrinePath, "KestrinePath"))
SENT(SendPasswordToMailIdQuery, AS(mailId, "MailID"))
SENT(LogErrorQuery, AS(errorClass, "ErrorClass"), AS(errorMethod, "ErrorMethod"), AS(errorMessage, "ErrorMessage"), AS(computerId, "ComputerID"), AS(userId, "UserID"))
SENT(GetSharedFilesTransferDataQuery, AS(userId, "UserID"), AS(computerId, "ComputerID"))
SENT(UpdateFileExistQuery, AS(SharedFileTransferID, "SharedFileTransferID"))
SENT(UpdateFileSendReceivedQuery, AS(SharedFileTransferID, "SharedFileTransferID"))
SENT(UploadFileWithStreamQuery, AS(computerID, "ComputerID"), AS(kestrinePath, "KestrinePath"), AS(fullPathFromFileTable, "FullPathFromFileTable"))
SENT(UpdateSendFileToTransferQuery, AS(ChangeType, "ChangeType"), AS(SharedFileTransferID, "SharedFileTransferID"), AS(FullPathFromFileTable, "FullPathFromFileTable"), AS(ToCloud, "ToCloud"), AS(IsFile, "IsFile"), AS(ToComputerID, "ToComputerID"), AS(NewFullPath, "NewFullPath"), AS(OwnerFileID, "OwnerFileID"), AS(FromComputerID, "FromComputerID"), AS(KestrinePath, "KestrinePath"), AS(FileNameToSend, "FileNameToSend"), AS(Length, "Length"))
SENT(IsFileExistsInCloudQuery, AS(strFullPath, "StrFullPath"))
SENT(UpdateFileReceivedQuery, AS(sharedFileTransferID, "SharedFileTransferID"), AS(isFileExists, "IsExists"))
SENT(DeleteReceivedFileFromTransferQuery, AS(isFileExists, "IsExists"), AS(savedFileID, "SavedFileID"), AS(sharedFileTransferID, "SharedFileTransferID"))
SENT(InsertFileQuery, AS(fullPath, "FullPath"), AS(computerID, "ComputerID"))
SENT(InsertSharedFilesTransferQuery, AS(fileID, "FileID"), AS(computerID, "ComputerID"), AS(userComputerID, "UserComputerID"), AS(oldFullPath, "OldFullPath"), AS(fullPath, "FullPath"), AS(isFile, "IsFile"), AS(baseSystemFileID, "BaseSystemFileID"), AS(prevFolderFileID, "PrevFolderFileID"), AS(changeType, "ChangeType"), AS(StrXMLFileID, "StrXMLFileID"))
SENT(UpdateBSUploadStreamStartedQuery, AS(fileUploadId, "FileUploadID"))
SENT(UpdateBSUploadStreamFailedQuery, AS(fileUploadId, "FileUploadID"))
SENT(UpdateBSDownloadStreamStartedQuery, AS(fileRequestId, "FileRequestID"))
SENT(UpdateBSDownloadStreamFailedQuery, AS(fileRequestId, "FileRequestID"))
SENT(CheckFileExistsInDownloadsQuery, AS(filePath, "FilePath"))
SENT(CheckFileExistsInTransfersQuery, AS(sharedFileTransferID, "SharedFileTransferID"), AS(fullPathfromFileTable, "FullPathfromFileTable"))
SENT(UpdateBSSendStreamStartedQuery, AS(sharedFileTransferID, "SharedFileTransferID"))
SENT(UpdateBSSendStreamFailedQuery, AS(sharedFileTransferID, "SharedFileTransferID"))
SENT(UpdateBSReceiveStreamStartedQuery, AS(sharedFileTransferID, "SharedFileTransferID"))
SENT(UpdateBSReceiveStreamFailedQuery, AS(sharedFileTransferID, "SharedFileTransferID"))
SENT(GetTopFileDeleteRequestQuery, AS(fromComputerID, "FromComputerID"))
SENT(UpdateBSFileDeletedQuery, AS(deleteRequestID, "DeleteRequestID"))

READ(UserRegistrationResponseData, AS(returnStatus, "ReturnStatus"), AS(returnValue, "ReturnVal"), AS(userId, "UserID"), AS(cloudComputerId, "CloudComputerID"), AS(error, "error"))
READ(RegisterComputerResponseData, AS(computerId, "ComputerID"), AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(SendActivationMailResponseData, AS(returnStatus, "ReturnStatus"), AS(returnMsg, "ReturnMsg"), AS(error, "error"))
READ(OneTimeSyncOwnersSharedFoldersResponseData, AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(TransferFilesFromCloudToBaseSystemResponseData, AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(GetTopFileUploadResponseData, AS(attachment, "Attachment"), AS(fileName, "FileName"), AS(fileUploadId, "FileUploadID"), AS(isFile, "IsFile"), AS(returnStatus, "ReturnStatus"), AS(serverPath, "ServerPath"), AS(toComputerId, "ToComputerID"), AS(transitUploadPath, "TransitUploadPath"), AS(uploadProcessed, "UploadProcessed"), AS(error, "error"))
READ(CheckUserMailActivationStatusResponseData, AS(returnStatus, "ReturnStatus"), AS(returnValue, "ReturnVal"), AS(error, "error"))
READ(UpdateFileUploadResponseData, AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(GetTopFileRequestResponseData, AS(filePath, "FilePath"), AS(fileRequestID, "FileRequestID"), AS(returnStatus, "ReturnStatus"), AS(TransitDownloadPath, "TransitDownloadPath"), AS(sharedFlag, "FromShared"), AS(ownerFileID, "FileID"), AS(byteStartPos, "ByteStartPos"), AS(error, "error"))
READ(UpdateFileRequestResponseData, AS(ReturnStatus, "ReturnStatus"), AS(error, "error"))
READ(SyncFilesInTableAndCloudResponseData, AS(fileId, "FileID"), AS(returnStatus, "ReturnStatus"), AS(baseSystemFileID, "BaseSystemFileID"), NEVER(error))
READ(UpdateComputerStatusResponseData, AS(returnStatus, "ReturnStatus"), AS(VersionNumber, "VersionNumber"), AS(error, "error"))
READ(OneTimeSyncFilesResponseData, AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(SendPasswordToMailIdResponseData, AS(returnStatus, "ReturnStatus"), AS(returnMsg, "ReturnMsg"), AS(error, "error"))
READ(LogErrorResponseData, AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(UpdateFileExistResponseData, AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(UpdateFileSendReceivedResponseData, AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(IsFileExistsInCloudResponseData, AS(isExists, "IsExists"), AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(UpdateFileReceivedResponseData, AS(ReturnStatus, "ReturnStatus"), AS(error, "error"))
READ(DeleteReceivedFileFromTransferResponseData, AS(ReturnStatus, "ReturnStatus"), AS(error, "error"))
READ(InsertFileResponseData, AS(fileID, "FileID"), AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(InsertSharedFilesTransferResponseData, AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(UpdateBSUploadStreamStartedResponseData, AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(UpdateBSUploadStreamFailedResponseData, AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(UpdateBSDownloadStreamStartedResponseData, AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(UpdateBSDownloadStreamFailedResponseData, AS(returnStatus, "ReturnStatus"), AS(error, "error"))
READ(CheckFileExistsInDownloadsResponseData, AS(byteStartPos, "ByteStartPos"), AS(returnStatus, "ReturnStatus"))
READ(CheckFileExistsInTransfersResponseData, AS(byteStartPos, "ByteStartPos"), AS(returnStatus, "ReturnStatus"))
READ(UpdateBSSendStreamStartedResponseData, AS(returnStatus, "ReturnStatus"), NEVER(error))
READ(UpdateBSSendStreamFailedResponseData, AS(returnStatus, "ReturnStatus"), NEVER(error))
READ(UpdateBSReceiveStreamStartedResponseData, AS(returnStatus, "ReturnStatus"), NEVER(error))
READ(UpdateBSReceiveStreamFailedResponseData, AS(returnStatus, "ReturnStatus"), NEVER(error))
READ(GetTopFileDeleteResponseData, AS(deleteRequestID, "DeleteRequestID"), AS(filePath, "FilePath"), AS(returnStatus, "ReturnStatus"), NEVER(error))
READ(UpdateBSFileDeleteResponseData, AS(returnStatus, "ReturnStatus"), NEVER(error))

READ(FileToTransfer, AS(kestrinePath, "KestrinePath"), AS(changeType, "ChangeType"), AS(fromCloud, "FromCloud"), AS(fromComputerId, "FromComputerID"), AS(fullPath, "FullPath"), AS(fullPathfromFileTable, "FullPathfromFileTable"), AS(isFile, "IsFile"), AS(isOwnerToSubscriber, "IsOwnerToSubscriber"), AS(fullPathNew, "NewFullPath"), AS(ownerFileID, "OwnerFileID"), AS(prevFolderFileId, "PrevFolderFileID"), AS(sharedFileTransferId, "SharedFileTransferID"), AS(toCloud, "ToCloud"), AS(toComputerId, "ToComputerID"), AS(userComputerId, "UserComputerID"), AS(xmlFileId, "XMLFileID"), NEVER(error))
READ(OwnerComputers, AS(kestrinePath, "KestrinePath"), AS(cloudPath, "CloudPath"), AS(computerId, "ComputerID"), AS(isAdmin, "IsAdmin"), AS(isCloud, "IsCloud"), AS(mailId, "MailID"), AS(nickName, "NickName"), AS(status, "Status"), AS(userComputerMapId, "UserComputerMapID"), AS(userId, "UserID"), NEVER(error))
READ(RecFileFromTransfer, AS(changeType, "ChangeType"), AS(fromCloud, "FromCloud"), AS(fromComputerId, "FromComputerID"), AS(fullPath, "FullPath"), AS(fullPathFromFileTable, "FullPathFromFileTable"), AS(isFile, "IsFile"), AS(isOwnerToSubscriber, "IsOwnerToSubscriber"), AS(fullPathNew, "NewFullPath"), AS(nickName, "NickName"), AS(ownerFileId, "OwnerFileID"), AS(prevFolderFileId, "PrevFolderFileID"), AS(savedFileId, "SavedFileID"), AS(sharedFileTransferId, "SharedFileTransferID"), AS(sharedFolderFileId, "SharedFolderFileID"), AS(toCloud, "ToCloud"), AS(userComputerId, "UserComputerID"), AS(xmlFileId, "XMLFileID"), AS(toComputerId, "ToComputerID"), NEVER(error))
READ(SharedfoldersWithStatus, AS(fileId, "FileID"), AS(sharedStatus, "SharedStatus"), NEVER(error))
// clang-format on

#undef READ
#undef SENT
#undef NEVER
#undef AS

}  // namespace kestrine::test
