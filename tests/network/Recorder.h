#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "platform/network/session/URLSession.h"
#include "platform/network/session/URLSessionDelegate.h"
#include "tests/support/Eventually.h"

namespace kestrine::test {

/// A delegate that writes down what it is told, and answers challenges as the test says.
class Recorder : public platform::URLSessionDelegate {
 public:
  using Answer = std::function<void(const platform::URLAuthenticationChallenge&, const platform::URLChallengeHandler&)>;

  Recorder() = default;
  explicit Recorder(Answer answer) : answer_(std::move(answer)) {}

  [[nodiscard]] std::vector<std::string> told() const {
    const std::lock_guard lock(mutex_);
    return told_;
  }
  [[nodiscard]] std::string body() const {
    const std::lock_guard lock(mutex_);
    return body_;
  }
  /// Waits until the last word on a task was said.
  bool waitForEnd() {
    return eventually([this] {
      const std::lock_guard lock(mutex_);
      return ended_;
    });
  }
  void tell(const std::string& what) {
    const std::lock_guard lock(mutex_);
    told_.push_back(what);
  }

  void URLSession_didBecomeInvalidWithError(const Session& /*session*/, const std::optional<platform::Error>& error) override {
    tell(error ? "invalid with error" : "invalid");
  }
  void URLSession_didReceiveChallenge_completionHandler(const Session& /*session*/, const platform::URLAuthenticationChallenge& challenge,
                                                        const platform::URLChallengeHandler& completionHandler) override {
    tell("session challenge " + challenge.protectionSpace.authenticationMethod);
    if (answer_) answer_(challenge, completionHandler);
  }
  void URLSession_task_didReceiveChallenge_completionHandler(const Session& /*session*/, const Task& /*task*/,
                                                             const platform::URLAuthenticationChallenge& challenge,
                                                             const platform::URLChallengeHandler& completionHandler) override {
    tell("challenge " + challenge.protectionSpace.authenticationMethod + " " + challenge.protectionSpace.realm + " " +
         std::to_string(challenge.previousFailureCount));
    if (answer_) answer_(challenge, completionHandler);
  }
  void URLSession_task_didCompleteWithError(const Session& /*session*/, const Task& task,
                                            const std::optional<platform::Error>& error) override {
    tell("complete " + std::to_string(error ? error->code : 0));
    EXPECT_EQ(task->state(), platform::URLSessionTask::State::Completed);
    const std::lock_guard lock(mutex_);
    ended_ = true;
  }
  void URLSession_dataTask_didReceiveResponse(const Session& /*session*/, const Task& /*task*/,
                                              const std::shared_ptr<const platform::URLResponse>& response) override {
    tell("response " + std::to_string(response->statusCode()));
  }
  void URLSession_dataTask_didReceiveData(const Session& /*session*/, const Task& /*task*/, const platform::Bytes& data) override {
    const std::lock_guard lock(mutex_);
    body_ += data.text();
  }
  void URLSession_downloadTask_didWriteData_totalBytesWritten_totalBytesExpectedToWrite(const Session& /*session*/, const Task& /*task*/,
                                                                                        std::int64_t bytesWritten,
                                                                                        std::int64_t totalBytesWritten,
                                                                                        std::int64_t totalBytesExpectedToWrite) override {
    const std::lock_guard lock(mutex_);
    writtenInAll_ += bytesWritten;
    lastTotal_ = totalBytesWritten;
    lastExpected_ = totalBytesExpectedToWrite;
  }
  void URLSession_downloadTask_didFinishDownloadingToURL(const Session& /*session*/, const Task& /*task*/,
                                                         const platform::URL& location) override {
    tell("file");
    finished(location);
  }
  virtual void finished(const platform::URL& /*location*/) {}

  std::int64_t writtenInAll_ = 0;
  std::int64_t lastTotal_ = 0;
  std::int64_t lastExpected_ = 0;

 private:
  const Answer answer_;
  mutable std::mutex mutex_;
  std::vector<std::string> told_;
  std::string body_;
  bool ended_ = false;
};

}  // namespace kestrine::test
