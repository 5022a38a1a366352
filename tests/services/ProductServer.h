#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Services/RestAnswer.h"
#include "platform/foundation/log/Log.h"
#include "tests/services/RestNetwork.h"
#include "tests/support/http/HTTPServer.h"

namespace kestrine::test {

/// Where the client believes the product's server to be.
inline constexpr const char* kBasePath = "/KestrineRestService/";

/// The product's server at the address that the client was built with, so only in a namespace. Answers by target; what it has no answer for
/// is answered with {}.
class ProductServer {
 public:
  ProductServer() : server_([this](const ReceivedRequest& request) { return answer(request); }, "127.0.0.1", RestHost().port) {}

  /// `target` is what stands behind the base path.
  void setAnswer(const std::string& target, Answer answer) {
    const std::lock_guard lock(mutex_);
    answers_.insert_or_assign(kBasePath + target, std::move(answer));
  }
  void setAnswer(const std::string& target, const std::string& json) { setAnswer(target, Answer{.body = json}); }
  [[nodiscard]] std::vector<ReceivedRequest> requests() const { return server_.requests(); }

 private:
  Answer answer(const ReceivedRequest& request) {
    const std::lock_guard lock(mutex_);
    const auto found = answers_.find(request.target);
    return found == answers_.end() ? Answer{.body = "{}"} : found->second;
  }

  std::mutex mutex_;
  std::map<std::string, Answer> answers_;
  HTTPServer server_;
};

/// What a handler was given.
template <class Result>
struct Received {
  std::mutex mutex;
  int calls = 0;
  RestAnswer<Result> answer = {};
  RestTaskStatus status = RestStatusSuccess;
  std::thread::id thread = {};
};

/// Calls an operation, serves the main queue until nobody is left who could call the handler, and returns what it was given.
template <class Query, class Result>
std::shared_ptr<Received<Result>> callToTheEnd(void (*method)(const Query&, RestHandler<Result>), const Query& query) {
  auto received = std::make_shared<Received<Result>>();
  auto life = std::make_shared<int>();
  const std::weak_ptr<int> watched = life;
  method(query, [received, life = std::move(life)](const RestAnswer<Result>& answer, RestTaskStatus status) {
    const std::lock_guard lock(received->mutex);
    ++received->calls;
    received->answer = answer;
    received->status = status;
    received->thread = std::this_thread::get_id();
  });
  EXPECT_TRUE(served([&] { return watched.expired(); })) << "the handler is still held";
  return received;
}

/// What is logged while it lives.
class LogOfCall {
 public:
  LogOfCall() {
    platform::flushLog();
    testing::internal::CaptureStderr();
  }
  ~LogOfCall() {
    if (capturing_) end();
  }
  LogOfCall(const LogOfCall&) = delete;
  LogOfCall& operator=(const LogOfCall&) = delete;
  std::string end() {
    platform::flushLog();
    capturing_ = false;
    return testing::internal::GetCapturedStderr();
  }

 private:
  bool capturing_ = true;
};

}  // namespace kestrine::test
