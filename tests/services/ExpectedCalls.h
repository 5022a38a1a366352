#pragma once

#include <string>

#include "Services/RestInterface.h"

// The operations as the server and the callers know them, written down a second time: nothing here comes from the tables of the code.

namespace kestrine::test {

/// What a call logs beside the transport: the format of the body before it is sent, and what its end adds. Nothing where empty.
struct ExpectedLog {
  std::string body = {};
  std::string result = {};
  std::string afterError = {};
  std::string afterSuccess = {};
};

template <class Query, class Result>
struct ExpectedCall {
  int number;
  std::string selector;
  /// As it stands in the request line, behind "/KestrineRestService/".
  std::string target;
  void (*method)(const Query& query, RestHandler<Result> handler);
  ExpectedLog log = {};
};
template <class Query, class Result>
ExpectedCall(int, const char*, const char*, void (*)(const Query&, RestHandler<Result>), ExpectedLog = {}) -> ExpectedCall<Query, Result>;

using Rest = RestInterface;

// clang-format off

/// Calls `visit` with each operation that posts one record as JSON and reads JSON.
template <class Visit>
void forEachRecordCall(const Visit& visit) {
  visit(ExpectedCall{1, "asyncUserRegistration:withCompletionHandler:", "Registration.svc/VerifyAndRegisterUserFromTool", Rest::asyncUserRegistration_withCompletionHandler});
  visit(ExpectedCall{2, "asyncRegisterComputer:withCompletionHandler:", "Registration.svc/RegisterComputer", Rest::asyncRegisterComputer_withCompletionHandler});
  visit(ExpectedCall{3, "asyncSendActivationMail:withCompletionHandler:", "Registration.svc/SendActivationMail", Rest::asyncSendActivationMail_withCompletionHandler});
  visit(ExpectedCall{4, "asyncOneTimeSyncOwnersSharedFolders:withCompletionHandler:", "Registration.svc/OneTimeSyncOwnersSharedFolders", Rest::asyncOneTimeSyncOwnersSharedFolders_withCompletionHandler});
  visit(ExpectedCall{5, "asyncTransferFilesFromCloudToBaseSystem:withCompletionHandler:", "Registration.svc/TransferFilesFromCloudToBaseSystem", Rest::asyncTransferFilesFromCloudToBaseSystem_withCompletionHandler});
  visit(ExpectedCall{6, "asyncGetTopFileUpload:withCompletionHandler:", "Uploads.svc/GetTopFileUpload", Rest::asyncGetTopFileUpload_withCompletionHandler});
  visit(ExpectedCall{7, "asyncCheckUserMailActivationStatus:withCompletionHandler:", "Registration.svc/CheckUserMailActivationStatus", Rest::asyncCheckUserMailActivationStatus_withCompletionHandler});
  visit(ExpectedCall{8, "asyncUpdateFileUpload:withCompletionHandler:", "Uploads.svc/UpdateFileUpload", Rest::asyncUpdateFileUpload_withCompletionHandler});
  visit(ExpectedCall{9, "asyncGetTopFileRequest:withCompletionHandler:", "Downloads.svc/GetTopFileRequest", Rest::asyncGetTopFileRequest_withCompletionHandler});
  visit(ExpectedCall{10, "asyncUpdateFileRequest:withCompletionHandler:", "Downloads.svc/UpdateFileRequest", Rest::asyncUpdateFileRequest_withCompletionHandler});
  visit(ExpectedCall{12, "asyncUpdateComputerStatus:withCompletionHandler:", "UpdateSystemTime.svc/UpdateComputerStatus", Rest::asyncUpdateComputerStatus_withCompletionHandler});
  visit(ExpectedCall{13, "asyncOneTimeSyncFiles:withCompletionHandler:", "Registration.svc/OneTimeSyncFiles", Rest::asyncOneTimeSyncFiles_withCompletionHandler});
  visit(ExpectedCall{14, "asyncSendPasswordToMailId:withCompiletionHandler:", "Registration.svc/SendPasswordToMailID", Rest::asyncSendPasswordToMailId_withCompiletionHandler, {.body = "%@"}});
  visit(ExpectedCall{17, "asyncLogError:withCompiletionHandler:", "MAC/ErrorLog.svc/LogError", Rest::asyncLogError_withCompiletionHandler, {.body = "%@"}});
  visit(ExpectedCall{19, "asyncUpdateFileExist:withCompletionHandler:", "MAC/SharedFiles.svc/UpdateFileExists", Rest::asyncUpdateFileExist_withCompletionHandler, {.body = "data from updatefileexist.%@"}});
  visit(ExpectedCall{20, "asyncUpdateFileSendReceived:withCompletionHandler:", "MAC/SharedFiles.svc/UpdateFileSendReceived", Rest::asyncUpdateFileSendReceived_withCompletionHandler, {.body = "data from updatefilesendreceived.%@"}});
  visit(ExpectedCall{23, "asyncIsFileExistsInCloud:withCompiletionHandler:", "MAC/SharedFiles.svc/IsFileExistsInCloud", Rest::asyncIsFileExistsInCloud_withCompiletionHandler,
      {.body = "data in could query...%@", .result = "rest connector at cloud ....%@", .afterError = "trace code error...........", .afterSuccess = "trace code sucesss........."}});
  visit(ExpectedCall{24, "asyncUpdateFileReceived:withCompiletionHandler:", "MAC/SharedFiles.svc/UpdateFileReceived", Rest::asyncUpdateFileReceived_withCompiletionHandler});
  visit(ExpectedCall{25, "asyncDeleteReceivedFileFromTransfer:withCompiletionHandler:", "MAC/SharedFiles.svc/DeleteReceivedFileFromTransfer", Rest::asyncDeleteReceivedFileFromTransfer_withCompiletionHandler,
      {.body = "data for delete Received File from Transfer.....%@", .afterError = "  trce code error deleteReceivedFile From Transfer ............", .afterSuccess = "trace code sucess.............."}});
  visit(ExpectedCall{26, "asyncInsertFile:withCompletionHandler:", "SyncFileChanges.svc/InsertFile", Rest::asyncInsertFile_withCompletionHandler});
  visit(ExpectedCall{27, "asyncInsertSharedFilesTransfer:withCompletionHandler:", "SyncFileChanges.svc/InsertSharedFilesTransfer", Rest::asyncInsertSharedFilesTransfer_withCompletionHandler});
  visit(ExpectedCall{28, "asyncupdateBSUploadStreamStart:withCompletionHandler:", "Uploads.svc/UpdateBSUploadStreamStarted", Rest::asyncupdateBSUploadStreamStart_withCompletionHandler});
  visit(ExpectedCall{29, "asyncCheckFileExistsInDownloads:withCompletionhandler:", "Downloads.svc/CheckFileExistsInDownloads", Rest::asyncCheckFileExistsInDownloads_withCompletionhandler});
  visit(ExpectedCall{30, "asyncUpdateBSUploadStreamFailed:withCompletionHandler:", "Uploads.svc/UpdateBSUploadStreamFailed", Rest::asyncUpdateBSUploadStreamFailed_withCompletionHandler});
  visit(ExpectedCall{31, "asyncCheckFileExistsInTransfers:withCompletionhandler:", "MAC/SharedFiles.svc/CheckFileExistsInTransfers", Rest::asyncCheckFileExistsInTransfers_withCompletionhandler});
  visit(ExpectedCall{32, "asyncUpdateBSSendStreamStarted:withCompletionHandler:", "MAC/SharedFiles.svc/UpdateBSSendStreamStarted", Rest::asyncUpdateBSSendStreamStarted_withCompletionHandler});
  visit(ExpectedCall{33, "asyncUpdateBSSendStreamFailed:withCompletionHandler:", "MAC/SharedFiles.svc/UpdateBSSendStreamFailed", Rest::asyncUpdateBSSendStreamFailed_withCompletionHandler});
  visit(ExpectedCall{34, "asyncUpdateBSReceiveStreamStart:withCompletionHandler:", "MAC/SharedFiles.svc/UpdateBSReceiveStreamStarted", Rest::asyncUpdateBSReceiveStreamStart_withCompletionHandler});
  visit(ExpectedCall{35, "asyncUpdateBSReceiveStreamfailed:withCompletionHandler:", "MAC/SharedFiles.svc/UpdateBSReceiveStreamFailed", Rest::asyncUpdateBSReceiveStreamfailed_withCompletionHandler});
  visit(ExpectedCall{36, "asyncupdateBSDownloadStreamStart:withCompletionHandler:", "Downloads.svc/UpdateBSDownloadStreamStarted", Rest::asyncupdateBSDownloadStreamStart_withCompletionHandler});
  visit(ExpectedCall{37, "asyncupdateBSDownloadStreamFailed:withCompletionHandler:", "Downloads.svc/UpdateBSDownloadStreamFailed%EF%BF%BC", Rest::asyncupdateBSDownloadStreamFailed_withCompletionHandler});
  visit(ExpectedCall{38, "asyncGetTopFileDeleteRequest:withCompletionHandler:", "Downloads.svc/GetTopFileDeleteRequest", Rest::asyncGetTopFileDeleteRequest_withCompletionHandler});
  visit(ExpectedCall{39, "asyncUpdateBSFileDeleted:withCompletionHandler:", "Downloads.svc/UpdateBSFileDeleted", Rest::asyncUpdateBSFileDeleted_withCompletionHandler});
}

/// The two whose answer is the value of "ReturnStatus" itself.
template <class Visit>
void forEachStatusCall(const Visit& visit) {
  visit(ExpectedCall{21, "asyncUploadFileWithStream:withCompletionHandler:", "MAC/SharedFiles.svc/UploadFileWithStream", Rest::asyncUploadFileWithStream_withCompletionHandler, {.body = "data from uploadfilewithstream.%@"}});
  visit(ExpectedCall{22, "asyncupdateSendFileToTransfer:withcompletionHandler:", "MAC/SharedFiles.svc/UpdateSendFileToTransfer", Rest::asyncupdateSendFileToTransfer_withcompletionHandler, {.body = "data from updatesendfiletotransfer.%@"}});
}

/// Each of its own kind: a batch, an upload, four arrays of records. Number 15, whose answer is not read at all, has another handler.
inline const ExpectedCall kBatchCall = {11, "asyncSyncFilesInTableAndCloud:withCompletionHandler:", "SyncFileChanges.svc/SyncFilesInTableAndCloud", Rest::asyncSyncFilesInTableAndCloud_withCompletionHandler};
inline const ExpectedCall kUploadCall = {16, "asyncUpdateFileRequestWithStream:withCompletionHandler:", "Downloads.svc/UpdateFileRequestWithStream", Rest::asyncUpdateFileRequestWithStream_withCompletionHandler, {.body = "strem dictionary %@"}};
inline const ExpectedCall kTransferDataCall = {18, "asyncGetSharedFilesTransferData:withCompletionHandler:", "MAC/SharedFiles.svc/GetSharedFilesTransferData", Rest::asyncGetSharedFilesTransferData_withCompletionHandler, {.body = " %@"}};
inline constexpr int kStreamNumber = 15;
inline constexpr const char* kStreamSelector = "asyncGetTopFileUploadWithStream:withCompletionHandler:";
inline constexpr const char* kStreamTarget = "Uploads.svc/GetTopFileUploadWithStream";
// clang-format on

}  // namespace kestrine::test
