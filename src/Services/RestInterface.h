#pragma once

#include <vector>

#include "Services/RestAnswer.h"
#include "Services/records/Records.h"
#include "platform/foundation/value/Object.h"

namespace kestrine {

/// The client of the product's server: one operation each. A call turns its record into a body, sends it through a transport of its own
/// and hands the answer's record to the handler; nothing is shared between calls and nothing is tried again.
///
/// The handler is called at most once. With status 0 it receives the record, and judging the server's own "ReturnStatus" and "error" in it
/// is the caller's task. With any other status it receives the transport's error (nothing for RestStatusNotReachable). It is not called
///
///  - when the transport fails with an error of code -1, and when an answer has a shape that makes its parser throw: both are only logged;
///  - by the two operations that are marked below, on 10.7 to 10.9: these do nothing there.
///
/// A handler that is not going to be called is let go of.
///
/// What throws: on 10.7 a record with an unset property (see QueryParser). Nothing else.
///
/// Threads: any thread may call. The handler runs on the main queue, which the host must keep serving, or, on 10.7 to 10.9, on a queue that
/// the request made for itself; what is found out before sending is told on the caller's thread before the call returns.
class RestInterface {
 public:
  RestInterface() = delete;

  /// Whether requests go through the older transport: on 10.7 up to 10.9. Before 10.7 the answer is no, and the newer one is taken.
  static bool isLessThan10_10();
  /// The same question about a given AppKit version number, of which only the whole part counts.
  static bool isLessThan10_10(double appKitVersionNumber);

  static void asyncUserRegistration_withCompletionHandler(const UserRegistrationQuery& query,
                                                          RestHandler<UserRegistrationResponseData> handler);
  static void asyncRegisterComputer_withCompletionHandler(const RegisterComputerQuery& query,
                                                          RestHandler<RegisterComputerResponseData> handler);
  static void asyncSendActivationMail_withCompletionHandler(const SendActivationMailQuery& query,
                                                            RestHandler<SendActivationMailResponseData> handler);
  static void asyncOneTimeSyncOwnersSharedFolders_withCompletionHandler(const OneTimeSyncOwnersSharedFoldersQuery& query,
                                                                        RestHandler<OneTimeSyncOwnersSharedFoldersResponseData> handler);
  static void asyncTransferFilesFromCloudToBaseSystem_withCompletionHandler(
      const TransferFilesFromCloudToBaseSystemQuery& query, RestHandler<TransferFilesFromCloudToBaseSystemResponseData> handler);
  static void asyncGetTopFileUpload_withCompletionHandler(const GetTopFileUploadQuery& query,
                                                          RestHandler<GetTopFileUploadResponseData> handler);
  static void asyncCheckUserMailActivationStatus_withCompletionHandler(const CheckUserMailActivationStatusQuery& query,
                                                                       RestHandler<CheckUserMailActivationStatusResponseData> handler);
  static void asyncUpdateFileUpload_withCompletionHandler(const UpdateFileUploadQuery& query,
                                                          RestHandler<UpdateFileUploadResponseData> handler);
  static void asyncGetTopFileRequest_withCompletionHandler(const GetTopFileRequestQuery& query,
                                                           RestHandler<GetTopFileRequestResponseData> handler);
  static void asyncUpdateFileRequest_withCompletionHandler(const UpdateFileRequestQuery& query,
                                                           RestHandler<UpdateFileRequestResponseData> handler);
  /// Sends the array of changes itself, without the dictionary around it.
  static void asyncSyncFilesInTableAndCloud_withCompletionHandler(const std::vector<SyncFilesInTableAndCloudQuery>& query,
                                                                  RestHandler<std::vector<SyncFilesInTableAndCloudResponseData>> handler);
  static void asyncUpdateComputerStatus_withCompletionHandler(const UpdateComputerStatusQuery& query,
                                                              RestHandler<UpdateComputerStatusResponseData> handler);
  static void asyncOneTimeSyncFiles_withCompletionHandler(const OneTimeSyncFilesQuery& query,
                                                          RestHandler<OneTimeSyncFilesResponseData> handler);
  static void asyncSendPasswordToMailId_withCompiletionHandler(const SendPasswordToMailIdQuery& query,
                                                               RestHandler<SendPasswordToMailIdResponseData> handler);
  /// Hands the answer over as it came, whatever it is. Does nothing on 10.7 to 10.9.
  static void asyncGetTopFileUploadWithStream_withCompletionHandler(const GetTopFileUploadQuery& query, RestStreamHandler handler);
  /// Uploads the file that the record's `filePath` names; see RestConnector about the copy that it goes through. Does nothing on 10.7 to
  /// 10.9.
  static void asyncUpdateFileRequestWithStream_withCompletionHandler(const UpdateFileRequestQuery& query,
                                                                     RestHandler<UpdateFileRequestResponseData> handler);
  static void asyncLogError_withCompiletionHandler(const LogErrorQuery& query, RestHandler<LogErrorResponseData> handler);
  static void asyncGetSharedFilesTransferData_withCompletionHandler(const GetSharedFilesTransferDataQuery& query,
                                                                    RestHandler<GetSharedFilesTransferDataResponseData> handler);
  static void asyncUpdateFileExist_withCompletionHandler(const UpdateFileExistQuery& query,
                                                         RestHandler<UpdateFileExistResponseData> handler);
  static void asyncUpdateFileSendReceived_withCompletionHandler(const UpdateFileSendReceivedQuery& query,
                                                                RestHandler<UpdateFileSendReceivedResponseData> handler);
  /// These two hand over the value of "ReturnStatus", nil when the answer has none; an answer that has one makes the parser throw.
  static void asyncUploadFileWithStream_withCompletionHandler(const UploadFileWithStreamQuery& query,
                                                              RestHandler<platform::Object> handler);
  static void asyncupdateSendFileToTransfer_withcompletionHandler(const UpdateSendFileToTransferQuery& query,
                                                                  RestHandler<platform::Object> handler);
  static void asyncIsFileExistsInCloud_withCompiletionHandler(const IsFileExistsInCloudQuery& query,
                                                              RestHandler<IsFileExistsInCloudResponseData> handler);
  static void asyncUpdateFileReceived_withCompiletionHandler(const UpdateFileReceivedQuery& query,
                                                             RestHandler<UpdateFileReceivedResponseData> handler);
  static void asyncDeleteReceivedFileFromTransfer_withCompiletionHandler(const DeleteReceivedFileFromTransferQuery& query,
                                                                         RestHandler<DeleteReceivedFileFromTransferResponseData> handler);
  static void asyncInsertFile_withCompletionHandler(const InsertFileQuery& query, RestHandler<InsertFileResponseData> handler);
  static void asyncInsertSharedFilesTransfer_withCompletionHandler(const InsertSharedFilesTransferQuery& query,
                                                                   RestHandler<InsertSharedFilesTransferResponseData> handler);
  static void asyncupdateBSUploadStreamStart_withCompletionHandler(const UpdateBSUploadStreamStartedQuery& query,
                                                                   RestHandler<UpdateBSUploadStreamStartedResponseData> handler);
  static void asyncCheckFileExistsInDownloads_withCompletionhandler(const CheckFileExistsInDownloadsQuery& query,
                                                                    RestHandler<CheckFileExistsInDownloadsResponseData> handler);
  static void asyncUpdateBSUploadStreamFailed_withCompletionHandler(const UpdateBSUploadStreamFailedQuery& query,
                                                                    RestHandler<UpdateBSUploadStreamFailedResponseData> handler);
  static void asyncCheckFileExistsInTransfers_withCompletionhandler(const CheckFileExistsInTransfersQuery& query,
                                                                    RestHandler<CheckFileExistsInTransfersResponseData> handler);
  static void asyncUpdateBSSendStreamStarted_withCompletionHandler(const UpdateBSSendStreamStartedQuery& query,
                                                                   RestHandler<UpdateBSSendStreamStartedResponseData> handler);
  static void asyncUpdateBSSendStreamFailed_withCompletionHandler(const UpdateBSSendStreamFailedQuery& query,
                                                                  RestHandler<UpdateBSSendStreamFailedResponseData> handler);
  static void asyncUpdateBSReceiveStreamStart_withCompletionHandler(const UpdateBSReceiveStreamStartedQuery& query,
                                                                    RestHandler<UpdateBSReceiveStreamStartedResponseData> handler);
  static void asyncUpdateBSReceiveStreamfailed_withCompletionHandler(const UpdateBSReceiveStreamFailedQuery& query,
                                                                     RestHandler<UpdateBSReceiveStreamFailedResponseData> handler);
  static void asyncupdateBSDownloadStreamStart_withCompletionHandler(const UpdateBSDownloadStreamStartedQuery& query,
                                                                     RestHandler<UpdateBSDownloadStreamStartedResponseData> handler);
  static void asyncupdateBSDownloadStreamFailed_withCompletionHandler(const UpdateBSDownloadStreamFailedQuery& query,
                                                                      RestHandler<UpdateBSDownloadStreamFailedResponseData> handler);
  static void asyncGetTopFileDeleteRequest_withCompletionHandler(const GetTopFileDeleteRequestQuery& query,
                                                                 RestHandler<GetTopFileDeleteResponseData> handler);
  static void asyncUpdateBSFileDeleted_withCompletionHandler(const UpdateBSFileDeletedQuery& query,
                                                             RestHandler<UpdateBSFileDeleteResponseData> handler);
};

}  // namespace kestrine
