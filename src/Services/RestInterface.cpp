#include "Services/RestInterface.h"

#include <memory>
#include <string>
#include <utility>

#include "Services/Endpoints.h"
#include "Services/RestConnector.h"
#include "Services/RestConnector_Old.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/value/ObjectFormat.h"
#include "util/ServicesUtilities.h"

namespace kestrine {

namespace {

void log(std::string_view format, const platform::Object& argument = {}) {
  if (!format.empty()) platform::NSLog(platform::formatObject(format, {argument}));
}

/// What "%@" prints for the transport's result.
platform::Object describable(const RestResult& result) {
  if (const auto* error = std::get_if<platform::Error>(&result)) return error->description();
  return std::get<platform::Object>(result);
}

/// What becomes of the transport's result. A parser that throws does so into the transport's completion; the handler then hears nothing.
template <class Query, class Result>
void finish(const Endpoint<Query, Result>& endpoint, const RestHandler<Result>& handler, const RestResult& result, RestTaskStatus status) {
  log(endpoint.log.result, describable(result));
  if (status != RestStatusSuccess) {
    const auto* error = std::get_if<platform::Error>(&result);
    handler({.error = error != nullptr ? std::optional(*error) : std::nullopt}, status);
    log(endpoint.log.afterError);
    return;
  }
  handler({.result = endpoint.parser(std::get<platform::Object>(result))}, RestStatusSuccess);
  log(endpoint.log.afterSuccess);
}

template <class Query, class Result>
RestFinishedHandler finisher(const Endpoint<Query, Result>& endpoint, RestHandler<Result> handler) {
  return [&endpoint, handler = std::move(handler)](const RestResult& result, RestTaskStatus status) {
    finish(endpoint, handler, result, status);
  };
}

template <class Query, class Result>
void send(const Endpoint<Query, Result>& endpoint, const platform::Object& params, RestHandler<Result> handler) {
  const std::string path(endpoint.path);
  if (RestInterface::isLessThan10_10()) {
    std::make_shared<RestConnector_Old>()->startAsyncTask_params_progress_finished(path, params, nullptr,
                                                                                   finisher(endpoint, std::move(handler)));
  } else {
    std::make_shared<RestConnector>()->startAsyncTask_params_progress_finished(path, params, nullptr,
                                                                               finisher(endpoint, std::move(handler)));
  }
}

template <class Query, class Result>
void call(const Endpoint<Query, Result>& endpoint, const Query& query, RestHandler<Result> handler) {
  const platform::Object body = endpoint.builder(query);
  log(endpoint.log.body, body);
  send(endpoint, body, std::move(handler));
}

}  // namespace

bool RestInterface::isLessThan10_10() { return ServicesUtilities::isLessThan10_10(); }

bool RestInterface::isLessThan10_10(double appKitVersionNumber) { return ServicesUtilities::isLessThan10_10(appKitVersionNumber); }

void RestInterface::asyncUserRegistration_withCompletionHandler(const UserRegistrationQuery& query,
                                                                RestHandler<UserRegistrationResponseData> handler) {
  call(kUserRegistration, query, std::move(handler));
}

void RestInterface::asyncRegisterComputer_withCompletionHandler(const RegisterComputerQuery& query,
                                                                RestHandler<RegisterComputerResponseData> handler) {
  call(kRegisterComputer, query, std::move(handler));
}

void RestInterface::asyncSendActivationMail_withCompletionHandler(const SendActivationMailQuery& query,
                                                                  RestHandler<SendActivationMailResponseData> handler) {
  call(kSendActivationMail, query, std::move(handler));
}

void RestInterface::asyncOneTimeSyncOwnersSharedFolders_withCompletionHandler(
    const OneTimeSyncOwnersSharedFoldersQuery& query, RestHandler<OneTimeSyncOwnersSharedFoldersResponseData> handler) {
  call(kOneTimeSyncOwnersSharedFolders, query, std::move(handler));
}

void RestInterface::asyncTransferFilesFromCloudToBaseSystem_withCompletionHandler(
    const TransferFilesFromCloudToBaseSystemQuery& query, RestHandler<TransferFilesFromCloudToBaseSystemResponseData> handler) {
  call(kTransferFilesFromCloudToBaseSystem, query, std::move(handler));
}

void RestInterface::asyncGetTopFileUpload_withCompletionHandler(const GetTopFileUploadQuery& query,
                                                                RestHandler<GetTopFileUploadResponseData> handler) {
  call(kGetTopFileUpload, query, std::move(handler));
}

void RestInterface::asyncCheckUserMailActivationStatus_withCompletionHandler(
    const CheckUserMailActivationStatusQuery& query, RestHandler<CheckUserMailActivationStatusResponseData> handler) {
  call(kCheckUserMailActivationStatus, query, std::move(handler));
}

void RestInterface::asyncUpdateFileUpload_withCompletionHandler(const UpdateFileUploadQuery& query,
                                                                RestHandler<UpdateFileUploadResponseData> handler) {
  call(kUpdateFileUpload, query, std::move(handler));
}

void RestInterface::asyncGetTopFileRequest_withCompletionHandler(const GetTopFileRequestQuery& query,
                                                                 RestHandler<GetTopFileRequestResponseData> handler) {
  call(kGetTopFileRequest, query, std::move(handler));
}

void RestInterface::asyncUpdateFileRequest_withCompletionHandler(const UpdateFileRequestQuery& query,
                                                                 RestHandler<UpdateFileRequestResponseData> handler) {
  call(kUpdateFileRequest, query, std::move(handler));
}

void RestInterface::asyncSyncFilesInTableAndCloud_withCompletionHandler(
    const std::vector<SyncFilesInTableAndCloudQuery>& query, RestHandler<std::vector<SyncFilesInTableAndCloudResponseData>> handler) {
  const auto& endpoint = kSyncFilesInTableAndCloud;
  send(endpoint, endpoint.builder(query).objectForKey("syncData"), std::move(handler));
}

void RestInterface::asyncUpdateComputerStatus_withCompletionHandler(const UpdateComputerStatusQuery& query,
                                                                    RestHandler<UpdateComputerStatusResponseData> handler) {
  call(kUpdateComputerStatus, query, std::move(handler));
}

void RestInterface::asyncOneTimeSyncFiles_withCompletionHandler(const OneTimeSyncFilesQuery& query,
                                                                RestHandler<OneTimeSyncFilesResponseData> handler) {
  call(kOneTimeSyncFiles, query, std::move(handler));
}

void RestInterface::asyncSendPasswordToMailId_withCompiletionHandler(const SendPasswordToMailIdQuery& query,
                                                                     RestHandler<SendPasswordToMailIdResponseData> handler) {
  call(kSendPasswordToMailId, query, std::move(handler));
}

void RestInterface::asyncGetTopFileUploadWithStream_withCompletionHandler(const GetTopFileUploadQuery& query, RestStreamHandler handler) {
  const auto& endpoint = kGetTopFileUploadWithStream;
  const platform::Object body = endpoint.builder(query);
  // The older transport has no such call.
  if (isLessThan10_10()) return;
  std::make_shared<RestConnector>()->startAsyncDownloadWithStreamRequest_params_progress_finished(
      std::string(endpoint.path), body, nullptr,
      [handler = std::move(handler)](const std::shared_ptr<const platform::URLResponse>& response, const RestDataResult& data,
                                     RestTaskStatus status) {
        if (status != RestStatusSuccess) return handler(nullptr, std::nullopt, status);
        handler(response, std::get<platform::Bytes>(data), RestStatusSuccess);
      });
}

void RestInterface::asyncUpdateFileRequestWithStream_withCompletionHandler(const UpdateFileRequestQuery& query,
                                                                           RestHandler<UpdateFileRequestResponseData> handler) {
  const auto& endpoint = kUpdateFileRequestWithStream;
  const platform::Object body = endpoint.builder(query);
  log(endpoint.log.body, body);
  if (isLessThan10_10()) return;
  std::make_shared<RestConnector>()->startAsyncUploadWithStreamRequest_params_progress_finished(std::string(endpoint.path), body, nullptr,
                                                                                                finisher(endpoint, std::move(handler)));
}

void RestInterface::asyncLogError_withCompiletionHandler(const LogErrorQuery& query, RestHandler<LogErrorResponseData> handler) {
  call(kLogError, query, std::move(handler));
}

void RestInterface::asyncGetSharedFilesTransferData_withCompletionHandler(const GetSharedFilesTransferDataQuery& query,
                                                                          RestHandler<GetSharedFilesTransferDataResponseData> handler) {
  call(kGetSharedFilesTransferData, query, std::move(handler));
}

void RestInterface::asyncUpdateFileExist_withCompletionHandler(const UpdateFileExistQuery& query,
                                                               RestHandler<UpdateFileExistResponseData> handler) {
  call(kUpdateFileExist, query, std::move(handler));
}

void RestInterface::asyncUpdateFileSendReceived_withCompletionHandler(const UpdateFileSendReceivedQuery& query,
                                                                      RestHandler<UpdateFileSendReceivedResponseData> handler) {
  call(kUpdateFileSendReceived, query, std::move(handler));
}

void RestInterface::asyncUploadFileWithStream_withCompletionHandler(const UploadFileWithStreamQuery& query,
                                                                    RestHandler<platform::Object> handler) {
  call(kUploadFileWithStream, query, std::move(handler));
}

void RestInterface::asyncupdateSendFileToTransfer_withcompletionHandler(const UpdateSendFileToTransferQuery& query,
                                                                        RestHandler<platform::Object> handler) {
  call(kUpdateSendFileToTransfer, query, std::move(handler));
}

void RestInterface::asyncIsFileExistsInCloud_withCompiletionHandler(const IsFileExistsInCloudQuery& query,
                                                                    RestHandler<IsFileExistsInCloudResponseData> handler) {
  call(kIsFileExistsInCloud, query, std::move(handler));
}

void RestInterface::asyncUpdateFileReceived_withCompiletionHandler(const UpdateFileReceivedQuery& query,
                                                                   RestHandler<UpdateFileReceivedResponseData> handler) {
  call(kUpdateFileReceived, query, std::move(handler));
}

void RestInterface::asyncDeleteReceivedFileFromTransfer_withCompiletionHandler(
    const DeleteReceivedFileFromTransferQuery& query, RestHandler<DeleteReceivedFileFromTransferResponseData> handler) {
  call(kDeleteReceivedFileFromTransfer, query, std::move(handler));
}

void RestInterface::asyncInsertFile_withCompletionHandler(const InsertFileQuery& query, RestHandler<InsertFileResponseData> handler) {
  call(kInsertFile, query, std::move(handler));
}

void RestInterface::asyncInsertSharedFilesTransfer_withCompletionHandler(const InsertSharedFilesTransferQuery& query,
                                                                         RestHandler<InsertSharedFilesTransferResponseData> handler) {
  call(kInsertSharedFilesTransfer, query, std::move(handler));
}

void RestInterface::asyncupdateBSUploadStreamStart_withCompletionHandler(const UpdateBSUploadStreamStartedQuery& query,
                                                                         RestHandler<UpdateBSUploadStreamStartedResponseData> handler) {
  call(kUpdateBSUploadStreamStart, query, std::move(handler));
}

void RestInterface::asyncCheckFileExistsInDownloads_withCompletionhandler(const CheckFileExistsInDownloadsQuery& query,
                                                                          RestHandler<CheckFileExistsInDownloadsResponseData> handler) {
  call(kCheckFileExistsInDownloads, query, std::move(handler));
}

void RestInterface::asyncUpdateBSUploadStreamFailed_withCompletionHandler(const UpdateBSUploadStreamFailedQuery& query,
                                                                          RestHandler<UpdateBSUploadStreamFailedResponseData> handler) {
  call(kUpdateBSUploadStreamFailed, query, std::move(handler));
}

void RestInterface::asyncCheckFileExistsInTransfers_withCompletionhandler(const CheckFileExistsInTransfersQuery& query,
                                                                          RestHandler<CheckFileExistsInTransfersResponseData> handler) {
  call(kCheckFileExistsInTransfers, query, std::move(handler));
}

void RestInterface::asyncUpdateBSSendStreamStarted_withCompletionHandler(const UpdateBSSendStreamStartedQuery& query,
                                                                         RestHandler<UpdateBSSendStreamStartedResponseData> handler) {
  call(kUpdateBSSendStreamStarted, query, std::move(handler));
}

void RestInterface::asyncUpdateBSSendStreamFailed_withCompletionHandler(const UpdateBSSendStreamFailedQuery& query,
                                                                        RestHandler<UpdateBSSendStreamFailedResponseData> handler) {
  call(kUpdateBSSendStreamFailed, query, std::move(handler));
}

void RestInterface::asyncUpdateBSReceiveStreamStart_withCompletionHandler(const UpdateBSReceiveStreamStartedQuery& query,
                                                                          RestHandler<UpdateBSReceiveStreamStartedResponseData> handler) {
  call(kUpdateBSReceiveStreamStart, query, std::move(handler));
}

void RestInterface::asyncUpdateBSReceiveStreamfailed_withCompletionHandler(const UpdateBSReceiveStreamFailedQuery& query,
                                                                           RestHandler<UpdateBSReceiveStreamFailedResponseData> handler) {
  call(kUpdateBSReceiveStreamfailed, query, std::move(handler));
}

void RestInterface::asyncupdateBSDownloadStreamStart_withCompletionHandler(const UpdateBSDownloadStreamStartedQuery& query,
                                                                           RestHandler<UpdateBSDownloadStreamStartedResponseData> handler) {
  call(kUpdateBSDownloadStreamStart, query, std::move(handler));
}

void RestInterface::asyncupdateBSDownloadStreamFailed_withCompletionHandler(const UpdateBSDownloadStreamFailedQuery& query,
                                                                            RestHandler<UpdateBSDownloadStreamFailedResponseData> handler) {
  call(kUpdateBSDownloadStreamFailed, query, std::move(handler));
}

void RestInterface::asyncGetTopFileDeleteRequest_withCompletionHandler(const GetTopFileDeleteRequestQuery& query,
                                                                       RestHandler<GetTopFileDeleteResponseData> handler) {
  call(kGetTopFileDeleteRequest, query, std::move(handler));
}

void RestInterface::asyncUpdateBSFileDeleted_withCompletionHandler(const UpdateBSFileDeletedQuery& query,
                                                                   RestHandler<UpdateBSFileDeleteResponseData> handler) {
  call(kUpdateBSFileDeleted, query, std::move(handler));
}

}  // namespace kestrine
