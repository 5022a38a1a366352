#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <thread>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/log/Log.h"
#include "tests/network/Fetch.h"
#include "tests/network/Recorder.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/http/HTTPServer.h"

namespace kestrine::test {
namespace {

using platform::OperationQueue;
using platform::URLSession;
using Told = std::vector<std::string>;

Answer hello(const ReceivedRequest& /*request*/) { return {.body = "hello"}; }

TEST(Task, KnowsWhatItIs) {
  HTTPServer server(hello);
  const auto session = makeSession();
  const auto task = session->dataTaskWithURL(address(server.url("/")));
  const auto other = session->downloadTaskWithURL(address(server.url("/")));
  EXPECT_EQ(task->taskIdentifier(), 1U);
  EXPECT_EQ(other->taskIdentifier(), 2U);
  EXPECT_EQ(task->taskDescription(), "");
  task->setTaskDescription("mine");
  EXPECT_EQ(task->taskDescription(), "mine");
  EXPECT_EQ(task->originalRequest().URL()->absoluteString(), server.url("/"));
  EXPECT_EQ(task->response(), nullptr);
  EXPECT_FALSE(task->error());
}

TEST(Task, CompletesOnTheMainQueueWhenNoOtherIsNamed) {
  HTTPServer server(hello);
  const auto loop = platform::RunLoop::main();
  const auto session = URLSession::sessionWithConfiguration({});
  EXPECT_EQ(session->delegateQueue(), OperationQueue::mainQueue());
  bool onMain = false;
  session
      ->dataTaskWithURL(address(server.url("/")),
                        [&](const auto&, const auto&, const auto&) {
                          onMain = OperationQueue::currentQueue() == OperationQueue::mainQueue();
                          loop->stop();
                        })
      ->resume();
  EXPECT_TRUE(loop->runFor(60));
  EXPECT_TRUE(onMain);
}

TEST(Task, WithoutAHandlerTellsItsDelegateInOrder) {
  const std::string body(5U << 20U, 'd');
  HTTPServer server([&](const ReceivedRequest&) { return Answer{.body = body}; });
  const auto delegate = std::make_shared<Recorder>();
  makeSession({}, delegate)->dataTaskWithURL(address(server.url("/")))->resume();
  ASSERT_TRUE(delegate->waitForEnd());
  EXPECT_EQ(delegate->told(), Told({"response 200", "complete 0"}));
  EXPECT_TRUE(delegate->body() == body);
}

TEST(Task, ASlowDelegateHaltsTheTransferRatherThanFillMemory) {
  class Slow : public Recorder {
    void URLSession_dataTask_didReceiveData(const Session& session, const Task& task, const platform::Bytes& data) override {
      taken_ += static_cast<std::int64_t>(data.length());
      most_ = std::max(most_, task->countOfBytesReceived() - taken_);
      if (taken_ < (4 << 20)) std::this_thread::sleep_for(std::chrono::milliseconds(5));
      Recorder::URLSession_dataTask_didReceiveData(session, task, data);
    }

   public:
    std::int64_t taken_ = 0;
    std::int64_t most_ = 0;
  };
  const std::string body(24U << 20U, 'd');
  HTTPServer server([&](const ReceivedRequest&) { return Answer{.body = body}; });
  const auto delegate = std::make_shared<Slow>();
  makeSession({}, delegate)->dataTaskWithURL(address(server.url("/")))->resume();
  ASSERT_TRUE(delegate->waitForEnd());
  EXPECT_TRUE(delegate->body() == body);
  EXPECT_LT(delegate->most_, 4 << 20);
}

TEST(Task, ADownloadIsAFileForItsHandlerOnly) {
  const std::string body(100000, 'f');
  HTTPServer server([&](const ReceivedRequest&) { return Answer{.body = body}; });
  const TemporaryDirectory folder;
  setenv("TMPDIR", folder.path().c_str(), 1);
  std::promise<std::string> seen;
  const auto delegate = std::make_shared<Recorder>();
  makeSession({}, delegate)
      ->downloadTaskWithURL(address(server.url("/")),
                            [&](const std::optional<platform::URL>& location, const auto&, const auto& error) {
                              EXPECT_FALSE(error);
                              EXPECT_TRUE(location->path().starts_with(folder.path())) << location->path();
                              EXPECT_EQ(readFile(location->path()), body);
                              std::filesystem::rename(location->path(), folder / "kept");
                              seen.set_value(location->path());
                            })
      ->resume();
  seen.get_future().wait();
  EXPECT_EQ(readFile(folder / "kept"), body);
  std::filesystem::remove(folder / "kept");
  std::promise<void> again;
  makeSession()->downloadTaskWithURL(address(server.url("/")), [&](const auto&, const auto&, const auto&) { again.set_value(); })->resume();
  again.get_future().wait();
  EXPECT_TRUE(eventually([&] { return std::filesystem::is_empty(folder.path()); }));
  EXPECT_TRUE(delegate->told().empty());
  unsetenv("TMPDIR");
}

TEST(Task, ADownloadWithoutAHandlerTellsItsDelegate) {
  class Reader : public Recorder {
   public:
    void finished(const platform::URL& location) override { tell(readFile(location.path())); }
  };
  HTTPServer server(hello);
  const auto delegate = std::make_shared<Reader>();
  makeSession({}, delegate)->downloadTaskWithURL(address(server.url("/")))->resume();
  ASSERT_TRUE(delegate->waitForEnd());
  EXPECT_EQ(delegate->told(), Told({"file", "hello", "complete 0"}));
  EXPECT_EQ(delegate->writtenInAll_, 5);
  EXPECT_EQ(delegate->lastTotal_, 5);
  EXPECT_EQ(delegate->lastExpected_, 5);
}

TEST(Task, AnEmptyDownloadIsAnEmptyFile) {
  HTTPServer server([](const ReceivedRequest&) { return Answer{}; });
  std::promise<std::string> read;
  makeSession()
      ->downloadTaskWithURL(address(server.url("/")),
                            [&](const std::optional<platform::URL>& location, const auto&, const auto&) {
                              read.set_value(location ? "[" + readFile(location->path()) + "]" : "no file");
                            })
      ->resume();
  EXPECT_EQ(read.get_future().get(), "[]");
}

TEST(Task, AFailedDownloadHasNoFile) {
  std::promise<std::int64_t> code;
  makeSession()
      ->downloadTaskWithURL(std::nullopt,
                            [&](const auto& location, const auto&, const auto& error) {
                              EXPECT_FALSE(location);
                              code.set_value(error->code);
                            })
      ->resume();
  EXPECT_EQ(code.get_future().get(), -1002);
}

TEST(Task, AnExceptionThatLeavesAHandlerIsLoggedAndEndsThere) {
  HTTPServer server(hello);
  testing::internal::CaptureStderr();
  const auto session = makeSession();
  const auto task = session->dataTaskWithURL(
      address(server.url("/")), [](const auto&, const auto&, const auto&) { throw platform::Exception("SomeName", "from a handler"); });
  task->resume();
  session->delegateQueue()->waitUntilAllOperationsAreFinished();
  ASSERT_TRUE(eventually([&] { return task->state() == platform::URLSessionTask::State::Completed; }));
  EXPECT_EQ(fetch(*session, requestFor(server.url("/"))).text(), "hello");
  session->delegateQueue()->waitUntilAllOperationsAreFinished();
  platform::flushLog();
  const auto log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("SomeName: from a handler"), std::string::npos) << log;
}

TEST(Task, NothingHoldsSessionDelegateTaskOrHandlerAfterTheEnd) {
  HTTPServer server(hello);
  /// Owns its session, as a delegate does that makes one for each request.
  class Owner : public Recorder {
   public:
    std::shared_ptr<URLSession> session;
    std::shared_ptr<platform::URLSessionTask> task;
  };
  std::weak_ptr<Owner> delegate;
  std::weak_ptr<URLSession> session;
  std::weak_ptr<platform::URLSessionTask> task;
  std::promise<void> ended;
  {
    const auto owner = std::make_shared<Owner>();
    owner->session = makeSession({}, owner);
    owner->task = owner->session->dataTaskWithURL(address(server.url("/")),
                                                  [owner, &ended](const auto&, const auto&, const auto&) { ended.set_value(); });
    static_cast<void>(owner->session->uploadTaskWithStreamedRequest(requestFor(server.url("/"))));
    owner->task->resume();
    delegate = owner;
    session = owner->session;
    task = owner->task;
  }
  ended.get_future().wait();
  EXPECT_TRUE(eventually([&] { return delegate.expired() && session.expired() && task.expired(); }));
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST(Task, ADelegateLivesWhileItsTaskRunsThoughNobodyElseHoldsIt) {
  std::promise<void> release;
  HTTPServer server([&](const ReceivedRequest& request) {
    release.get_future().wait();
    return hello(request);
  });
  auto delegate = std::make_shared<Recorder>();
  const std::weak_ptr<Recorder> weak = delegate;
  const auto session = makeSession({}, delegate);
  session->dataTaskWithURL(address(server.url("/")))->resume();
  delegate.reset();
  EXPECT_FALSE(weak.expired());
  EXPECT_NE(session->delegate(), nullptr);
  release.set_value();
  EXPECT_TRUE(eventually([&] { return weak.expired(); }));
  EXPECT_EQ(session->delegate(), nullptr);
}

}  // namespace
}  // namespace kestrine::test
