#pragma once

#include <tuple>

#include "Services/DataParser.h"
#include "Services/Endpoint.h"
#include "Services/QueryParser.h"
#include "Services/RestInterface.h"

// The operations of the server, one row each: the one place that knows their paths, which record goes in and out, and what is logged.

namespace kestrine {

inline constexpr Endpoint kUserRegistration{
    1,
    "asyncUserRegistration:withCompletionHandler:",
    "Registration.svc/VerifyAndRegisterUserFromTool",
    &RestInterface::asyncUserRegistration_withCompletionHandler,
    &QueryParser::parseUserRegistrationQuery,
    &DataParser::parseUserRegistrationReponseData,
};
inline constexpr Endpoint kRegisterComputer{
    2,
    "asyncRegisterComputer:withCompletionHandler:",
    "Registration.svc/RegisterComputer",
    &RestInterface::asyncRegisterComputer_withCompletionHandler,
    &QueryParser::parseRegisterComputerQuery,
    &DataParser::parseRegisterComputerResponseData,
};
inline constexpr Endpoint kSendActivationMail{
    3,
    "asyncSendActivationMail:withCompletionHandler:",
    "Registration.svc/SendActivationMail",
    &RestInterface::asyncSendActivationMail_withCompletionHandler,
    &QueryParser::parseSendActivationMailQuery,
    &DataParser::parseSendActivationMailResponseData,
};
inline constexpr Endpoint kOneTimeSyncOwnersSharedFolders{
    4,
    "asyncOneTimeSyncOwnersSharedFolders:withCompletionHandler:",
    "Registration.svc/OneTimeSyncOwnersSharedFolders",
    &RestInterface::asyncOneTimeSyncOwnersSharedFolders_withCompletionHandler,
    &QueryParser::parseOneTimeSyncOwnersSharedFoldersQuery,
    &DataParser::parseOneTimeSyncOwnersSharedFoldersResponseData,
};
inline constexpr Endpoint kTransferFilesFromCloudToBaseSystem{
    5,
    "asyncTransferFilesFromCloudToBaseSystem:withCompletionHandler:",
    "Registration.svc/TransferFilesFromCloudToBaseSystem",
    &RestInterface::asyncTransferFilesFromCloudToBaseSystem_withCompletionHandler,
    &QueryParser::parseTransferFilesFromColudToBaseSystemQuery,
    &DataParser::parseTransferFilesFromCloudToBaseSystemResponseData,
};
inline constexpr Endpoint kGetTopFileUpload{
    6,
    "asyncGetTopFileUpload:withCompletionHandler:",
    "Uploads.svc/GetTopFileUpload",
    &RestInterface::asyncGetTopFileUpload_withCompletionHandler,
    &QueryParser::parseGetTopFileUploadQuery,
    &DataParser::parseGetTopFileUploadResponseData,
};
inline constexpr Endpoint kCheckUserMailActivationStatus{
    7,
    "asyncCheckUserMailActivationStatus:withCompletionHandler:",
    "Registration.svc/CheckUserMailActivationStatus",
    &RestInterface::asyncCheckUserMailActivationStatus_withCompletionHandler,
    &QueryParser::parseCheckUserMailActivationStatusQuery,
    &DataParser::parseCheckUserMailActivationStatusResponseData,
};
inline constexpr Endpoint kUpdateFileUpload{
    8,
    "asyncUpdateFileUpload:withCompletionHandler:",
    "Uploads.svc/UpdateFileUpload",
    &RestInterface::asyncUpdateFileUpload_withCompletionHandler,
    &QueryParser::parseUpdateFileUploadQuery,
    &DataParser::parseUpdateFileUploadResponseData,
};
inline constexpr Endpoint kGetTopFileRequest{
    9,
    "asyncGetTopFileRequest:withCompletionHandler:",
    "Downloads.svc/GetTopFileRequest",
    &RestInterface::asyncGetTopFileRequest_withCompletionHandler,
    &QueryParser::parsegetTopFileRequestQuery,
    &DataParser::parseGetTopFileRequestResponseData,
};
inline constexpr Endpoint kUpdateFileRequest{
    10,
    "asyncUpdateFileRequest:withCompletionHandler:",
    "Downloads.svc/UpdateFileRequest",
    &RestInterface::asyncUpdateFileRequest_withCompletionHandler,
    &QueryParser::parseUpdateFileRequestQuery,
    &DataParser::parseUpdateFileRequestResponseData,
};
inline constexpr Endpoint kSyncFilesInTableAndCloud{
    11,
    "asyncSyncFilesInTableAndCloud:withCompletionHandler:",
    "SyncFileChanges.svc/SyncFilesInTableAndCloud",
    &RestInterface::asyncSyncFilesInTableAndCloud_withCompletionHandler,
    &QueryParser::parseSyncFilesInTableAndCloudQuery,
    &DataParser::parseSyncFilesInTableAndCloudResponseData,
};
inline constexpr Endpoint kUpdateComputerStatus{
    12,
    "asyncUpdateComputerStatus:withCompletionHandler:",
    "UpdateSystemTime.svc/UpdateComputerStatus",
    &RestInterface::asyncUpdateComputerStatus_withCompletionHandler,
    &QueryParser::parseUpdateComputerStatusQuery,
    &DataParser::parseUpdateComputerStatusResponseData,
};
inline constexpr Endpoint kOneTimeSyncFiles{
    13,
    "asyncOneTimeSyncFiles:withCompletionHandler:",
    "Registration.svc/OneTimeSyncFiles",
    &RestInterface::asyncOneTimeSyncFiles_withCompletionHandler,
    &QueryParser::parseOneTimeSyncFilesQuery,
    &DataParser::parseOneTimeSyncFilesResponseData,
};
inline constexpr Endpoint kSendPasswordToMailId{
    14,
    "asyncSendPasswordToMailId:withCompiletionHandler:",
    "Registration.svc/SendPasswordToMailID",
    &RestInterface::asyncSendPasswordToMailId_withCompiletionHandler,
    &QueryParser::parseSendPasswordToMailIdQuery,
    &DataParser::parseSendPasswordToMailIdResponseData,
    {.body = "%@"},
};
inline constexpr StreamEndpoint kGetTopFileUploadWithStream{
    15,
    "asyncGetTopFileUploadWithStream:withCompletionHandler:",
    "Uploads.svc/GetTopFileUploadWithStream",
    &RestInterface::asyncGetTopFileUploadWithStream_withCompletionHandler,
    &QueryParser::parseGetTopFileUploadQuery,
};
inline constexpr Endpoint kUpdateFileRequestWithStream{
    16,
    "asyncUpdateFileRequestWithStream:withCompletionHandler:",
    "Downloads.svc/UpdateFileRequestWithStream",
    &RestInterface::asyncUpdateFileRequestWithStream_withCompletionHandler,
    &QueryParser::parseUpdateFileRequestQuery,
    &DataParser::parseUpdateFileRequestResponseData,
    {.body = "strem dictionary %@"},
};
inline constexpr Endpoint kLogError{
    17,
    "asyncLogError:withCompiletionHandler:",
    "MAC/ErrorLog.svc/LogError",
    &RestInterface::asyncLogError_withCompiletionHandler,
    &QueryParser::parseLogErrorQuery,
    &DataParser::parseLogErrorResponseData,
    {.body = "%@"},
};
inline constexpr Endpoint kGetSharedFilesTransferData{
    18,
    "asyncGetSharedFilesTransferData:withCompletionHandler:",
    "MAC/SharedFiles.svc/GetSharedFilesTransferData",
    &RestInterface::asyncGetSharedFilesTransferData_withCompletionHandler,
    &QueryParser::parseGetSharedFilesTransferDataQuery,
    &DataParser::parseGetSharedFilesTransferDataResponseData,
    {.body = " %@"},
};
inline constexpr Endpoint kUpdateFileExist{
    19,
    "asyncUpdateFileExist:withCompletionHandler:",
    "MAC/SharedFiles.svc/UpdateFileExists",
    &RestInterface::asyncUpdateFileExist_withCompletionHandler,
    &QueryParser::parseUpdateFileExistDataQuery,
    &DataParser::parseUpdateFileExistResponseData,
    {.body = "data from updatefileexist.%@"},
};
inline constexpr Endpoint kUpdateFileSendReceived{
    20,
    "asyncUpdateFileSendReceived:withCompletionHandler:",
    "MAC/SharedFiles.svc/UpdateFileSendReceived",
    &RestInterface::asyncUpdateFileSendReceived_withCompletionHandler,
    &QueryParser::parseUpdateFileSendReceivedQuery,
    &DataParser::parseUpdateFileSendReceivedResponseData,
    {.body = "data from updatefilesendreceived.%@"},
};
inline constexpr Endpoint kUploadFileWithStream{
    21,
    "asyncUploadFileWithStream:withCompletionHandler:",
    "MAC/SharedFiles.svc/UploadFileWithStream",
    &RestInterface::asyncUploadFileWithStream_withCompletionHandler,
    &QueryParser::parseUploadWithStreamQuery,
    &DataParser::parseUploadFileWithStreamResponseData,
    {.body = "data from uploadfilewithstream.%@"},
};
inline constexpr Endpoint kUpdateSendFileToTransfer{
    22,
    "asyncupdateSendFileToTransfer:withcompletionHandler:",
    "MAC/SharedFiles.svc/UpdateSendFileToTransfer",
    &RestInterface::asyncupdateSendFileToTransfer_withcompletionHandler,
    &QueryParser::parseUpdateSendFileToTransferQuery,
    &DataParser::parseUpdateSendFileToTransferResponseData,
    {.body = "data from updatesendfiletotransfer.%@"},
};
inline constexpr Endpoint kIsFileExistsInCloud{
    23,
    "asyncIsFileExistsInCloud:withCompiletionHandler:",
    "MAC/SharedFiles.svc/IsFileExistsInCloud",
    &RestInterface::asyncIsFileExistsInCloud_withCompiletionHandler,
    &QueryParser::parseIsFileExistsInCloudQuery,
    &DataParser::parseIsFileExistsInCloudResponseData,
    {.body = "data in could query...%@",
     .result = "rest connector at cloud ....%@",
     .afterError = "trace code error...........",
     .afterSuccess = "trace code sucesss........."},
};
inline constexpr Endpoint kUpdateFileReceived{
    24,
    "asyncUpdateFileReceived:withCompiletionHandler:",
    "MAC/SharedFiles.svc/UpdateFileReceived",
    &RestInterface::asyncUpdateFileReceived_withCompiletionHandler,
    &QueryParser::parseUpdateFileReceivedQuery,
    &DataParser::parseUpdateFileReceivedResponseData,
};
inline constexpr Endpoint kDeleteReceivedFileFromTransfer{
    25,
    "asyncDeleteReceivedFileFromTransfer:withCompiletionHandler:",
    "MAC/SharedFiles.svc/DeleteReceivedFileFromTransfer",
    &RestInterface::asyncDeleteReceivedFileFromTransfer_withCompiletionHandler,
    &QueryParser::parseDeleteReceivedFileFromTransferQuery,
    &DataParser::parseDeleteReceivedFileFromTransferResponseData,
    {.body = "data for delete Received File from Transfer.....%@",
     .afterError = "  trce code error deleteReceivedFile From Transfer ............",
     .afterSuccess = "trace code sucess.............."},
};
inline constexpr Endpoint kInsertFile{
    26,
    "asyncInsertFile:withCompletionHandler:",
    "SyncFileChanges.svc/InsertFile",
    &RestInterface::asyncInsertFile_withCompletionHandler,
    &QueryParser::parseInsertFileQuery,
    &DataParser::parseInsertFileResponseData,
};
inline constexpr Endpoint kInsertSharedFilesTransfer{
    27,
    "asyncInsertSharedFilesTransfer:withCompletionHandler:",
    "SyncFileChanges.svc/InsertSharedFilesTransfer",
    &RestInterface::asyncInsertSharedFilesTransfer_withCompletionHandler,
    &QueryParser::parseInsertSharedFilesTransferQuery,
    &DataParser::parseInsertSharedFilesTransferResponseData,
};
inline constexpr Endpoint kUpdateBSUploadStreamStart{
    28,
    "asyncupdateBSUploadStreamStart:withCompletionHandler:",
    "Uploads.svc/UpdateBSUploadStreamStarted",
    &RestInterface::asyncupdateBSUploadStreamStart_withCompletionHandler,
    &QueryParser::parseUpdateBSUploadStreamStartedQuery,
    &DataParser::parseUpdateBSUploadStreamStartedResponseData,
};
inline constexpr Endpoint kCheckFileExistsInDownloads{
    29,
    "asyncCheckFileExistsInDownloads:withCompletionhandler:",
    "Downloads.svc/CheckFileExistsInDownloads",
    &RestInterface::asyncCheckFileExistsInDownloads_withCompletionhandler,
    &QueryParser::parseCheckFileExistsInDownloadsQuery,
    &DataParser::parseCheckFileExistsInDownloadsResponseData,
};
inline constexpr Endpoint kUpdateBSUploadStreamFailed{
    30,
    "asyncUpdateBSUploadStreamFailed:withCompletionHandler:",
    "Uploads.svc/UpdateBSUploadStreamFailed",
    &RestInterface::asyncUpdateBSUploadStreamFailed_withCompletionHandler,
    &QueryParser::parseUpdateBSUploadStreamFailedQuery,
    &DataParser::parseUpdateBSUploadStreamFailedResponseData,
};
inline constexpr Endpoint kCheckFileExistsInTransfers{
    31,
    "asyncCheckFileExistsInTransfers:withCompletionhandler:",
    "MAC/SharedFiles.svc/CheckFileExistsInTransfers",
    &RestInterface::asyncCheckFileExistsInTransfers_withCompletionhandler,
    &QueryParser::parseCheckFileExistsInTransfersQuery,
    &DataParser::parseCheckFileExistsInTransfersResponseData,
};
inline constexpr Endpoint kUpdateBSSendStreamStarted{
    32,
    "asyncUpdateBSSendStreamStarted:withCompletionHandler:",
    "MAC/SharedFiles.svc/UpdateBSSendStreamStarted",
    &RestInterface::asyncUpdateBSSendStreamStarted_withCompletionHandler,
    &QueryParser::parseUpdateBSSendStreamStartedQuery,
    &DataParser::parseUpdateBSSendStreamstartedResponseData,
};
inline constexpr Endpoint kUpdateBSSendStreamFailed{
    33,
    "asyncUpdateBSSendStreamFailed:withCompletionHandler:",
    "MAC/SharedFiles.svc/UpdateBSSendStreamFailed",
    &RestInterface::asyncUpdateBSSendStreamFailed_withCompletionHandler,
    &QueryParser::parseUpdateBSSendStreamFailedQuery,
    &DataParser::parseUpdateBSSendStreamFailedResponseData,
};
inline constexpr Endpoint kUpdateBSReceiveStreamStart{
    34,
    "asyncUpdateBSReceiveStreamStart:withCompletionHandler:",
    "MAC/SharedFiles.svc/UpdateBSReceiveStreamStarted",
    &RestInterface::asyncUpdateBSReceiveStreamStart_withCompletionHandler,
    &QueryParser::parseUpdateBSReceiveStreamStartedQuery,
    &DataParser::parseUpdateBSReceiveStreamStartedResponseData,
};
inline constexpr Endpoint kUpdateBSReceiveStreamfailed{
    35,
    "asyncUpdateBSReceiveStreamfailed:withCompletionHandler:",
    "MAC/SharedFiles.svc/UpdateBSReceiveStreamFailed",
    &RestInterface::asyncUpdateBSReceiveStreamfailed_withCompletionHandler,
    &QueryParser::parseUpdateBSReceiveStreamFailedQuery,
    &DataParser::parseUpdateBSReceiveStreamFailedResponseData,
};
inline constexpr Endpoint kUpdateBSDownloadStreamStart{
    36,
    "asyncupdateBSDownloadStreamStart:withCompletionHandler:",
    "Downloads.svc/UpdateBSDownloadStreamStarted",
    &RestInterface::asyncupdateBSDownloadStreamStart_withCompletionHandler,
    &QueryParser::parseUpdateBSDownloadStreamStartedQuery,
    &DataParser::parseUpdateBSDownloadStreamStartedResponseData,
};
// Its path ends in U+FFFC, which is part of what the server listens to.
inline constexpr Endpoint kUpdateBSDownloadStreamFailed{
    37,
    "asyncupdateBSDownloadStreamFailed:withCompletionHandler:",
    "Downloads.svc/UpdateBSDownloadStreamFailed\xEF\xBF\xBC",
    &RestInterface::asyncupdateBSDownloadStreamFailed_withCompletionHandler,
    &QueryParser::parseUpdateBSDownloadStreamFailedQuery,
    &DataParser::parseUpdateBSDownloadStreamFailedResponseData,
};
inline constexpr Endpoint kGetTopFileDeleteRequest{
    38,
    "asyncGetTopFileDeleteRequest:withCompletionHandler:",
    "Downloads.svc/GetTopFileDeleteRequest",
    &RestInterface::asyncGetTopFileDeleteRequest_withCompletionHandler,
    &QueryParser::parseGetTopFileDeleteRequestQuery,
    &DataParser::parseGetTopFileResponseData,
};
inline constexpr Endpoint kUpdateBSFileDeleted{
    39,
    "asyncUpdateBSFileDeleted:withCompletionHandler:",
    "Downloads.svc/UpdateBSFileDeleted",
    &RestInterface::asyncUpdateBSFileDeleted_withCompletionHandler,
    &QueryParser::parseUpdateBSFileDeletedQuery,
    &DataParser::parseUpdateBSFileDeleteResponseData,
};

/// All of them, by number.
inline constexpr std::tuple kEndpoints = {
    kUserRegistration,
    kRegisterComputer,
    kSendActivationMail,
    kOneTimeSyncOwnersSharedFolders,
    kTransferFilesFromCloudToBaseSystem,
    kGetTopFileUpload,
    kCheckUserMailActivationStatus,
    kUpdateFileUpload,
    kGetTopFileRequest,
    kUpdateFileRequest,
    kSyncFilesInTableAndCloud,
    kUpdateComputerStatus,
    kOneTimeSyncFiles,
    kSendPasswordToMailId,
    kGetTopFileUploadWithStream,
    kUpdateFileRequestWithStream,
    kLogError,
    kGetSharedFilesTransferData,
    kUpdateFileExist,
    kUpdateFileSendReceived,
    kUploadFileWithStream,
    kUpdateSendFileToTransfer,
    kIsFileExistsInCloud,
    kUpdateFileReceived,
    kDeleteReceivedFileFromTransfer,
    kInsertFile,
    kInsertSharedFilesTransfer,
    kUpdateBSUploadStreamStart,
    kCheckFileExistsInDownloads,
    kUpdateBSUploadStreamFailed,
    kCheckFileExistsInTransfers,
    kUpdateBSSendStreamStarted,
    kUpdateBSSendStreamFailed,
    kUpdateBSReceiveStreamStart,
    kUpdateBSReceiveStreamfailed,
    kUpdateBSDownloadStreamStart,
    kUpdateBSDownloadStreamFailed,
    kGetTopFileDeleteRequest,
    kUpdateBSFileDeleted,
};

}  // namespace kestrine
