#include "platform/network/session/URLSessionDelegate.h"

// What happens where a delegate has nothing to say.
namespace platform {

namespace {

void answerAsUsual(const URLChallengeHandler& handler) {
  handler(URLSessionAuthChallengeDisposition::PerformDefaultHandling, std::nullopt);
}

}  // namespace

URLSessionDelegate::~URLSessionDelegate() = default;

void URLSessionDelegate::URLSession_didBecomeInvalidWithError(const Session& /*session*/, const std::optional<Error>& /*error*/) {}

void URLSessionDelegate::URLSession_didReceiveChallenge_completionHandler(const Session& /*session*/,
                                                                          const URLAuthenticationChallenge& /*challenge*/,
                                                                          const URLChallengeHandler& completionHandler) {
  answerAsUsual(completionHandler);
}

void URLSessionDelegate::URLSession_task_didReceiveChallenge_completionHandler(const Session& /*session*/, const Task& /*task*/,
                                                                               const URLAuthenticationChallenge& /*challenge*/,
                                                                               const URLChallengeHandler& completionHandler) {
  answerAsUsual(completionHandler);
}

void URLSessionDelegate::URLSession_task_didCompleteWithError(const Session& /*session*/, const Task& /*task*/,
                                                              const std::optional<Error>& /*error*/) {}

void URLSessionDelegate::URLSession_dataTask_didReceiveResponse(const Session& /*session*/, const Task& /*task*/,
                                                                const std::shared_ptr<const URLResponse>& /*response*/) {}

void URLSessionDelegate::URLSession_dataTask_didReceiveData(const Session& /*session*/, const Task& /*task*/, const Bytes& /*data*/) {}

void URLSessionDelegate::URLSession_downloadTask_didWriteData_totalBytesWritten_totalBytesExpectedToWrite(
    const Session& /*session*/, const Task& /*task*/, std::int64_t /*bytesWritten*/, std::int64_t /*totalBytesWritten*/,
    std::int64_t /*totalBytesExpectedToWrite*/) {}

void URLSessionDelegate::URLSession_downloadTask_didFinishDownloadingToURL(const Session& /*session*/, const Task& /*task*/,
                                                                           const URL& /*location*/) {}

void URLSessionDelegate::URLSession_downloadTask_didResumeAtOffset_expectedTotalBytes(const Session& /*session*/, const Task& /*task*/,
                                                                                      std::int64_t /*fileOffset*/,
                                                                                      std::int64_t /*expectedTotalBytes*/) {}

}  // namespace platform
