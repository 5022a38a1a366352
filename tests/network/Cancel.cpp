#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "platform/foundation/base/Exception.h"
#include "tests/network/Fetch.h"
#include "tests/network/Recorder.h"
#include "tests/support/http/HTTPServer.h"
#include "tests/support/http/RawServer.h"

namespace kestrine::test {
namespace {

using State = platform::URLSessionTask::State;

/// A task whose end can be waited for.
struct Running {
  explicit Running(const platform::URLRequest& request, const std::shared_ptr<platform::URLSession>& session = makeSession())
      : task(session->dataTaskWithRequest(request, [end = end](const auto& data, const auto& response, const auto& error) {
          if (end->calls++ == 0) end->promise.set_value({data, response, error});
        })) {}
  [[nodiscard]] Fetched wait() const { return end->promise.get_future().get(); }
  [[nodiscard]] int calls() const { return end->calls; }

  struct End {
    std::promise<Fetched> promise;
    std::atomic<int> calls = 0;
  };
  const std::shared_ptr<End> end = std::make_shared<End>();
  const std::shared_ptr<platform::URLSessionTask> task;
};

void expectCancelled(Running& running) {
  const auto got = running.wait();
  EXPECT_EQ(got.code(), -999);
  EXPECT_FALSE(got.data);
  EXPECT_EQ(running.task->state(), State::Completed);
  EXPECT_EQ(running.task->error()->code, -999);
  running.task->cancel();
  running.task->resume();
  EXPECT_EQ(running.task->state(), State::Completed);
  EXPECT_EQ(running.calls(), 1);
}

TEST(Cancel, BeforeItWasResumed) {
  HTTPServer server([](const ReceivedRequest&) { return Answer{}; });
  Running running(requestFor(server.url("/")));
  EXPECT_EQ(running.task->state(), State::Suspended);
  running.task->cancel();
  expectCancelled(running);
  EXPECT_TRUE(server.requests().empty());
}

TEST(Cancel, AtOnceAfterItWasResumed) {
  HTTPServer server([](const ReceivedRequest&) { return Answer{.body = "done"}; });
  for (int i = 0; i < 50; ++i) {
    Running running(requestFor(server.url("/")));
    running.task->resume();
    running.task->cancel();
    // On a busy machine the reply may be there before this thread comes to cancel.
    const auto got = running.wait();
    EXPECT_TRUE(got.code() == -999 ? !got.data : got.text() == "done") << got.code();
  }
}

TEST(Cancel, WhileItWaitsForAConnection) {
  RawServer server([](RawConnection& connection) { connection.waitForClose(); });
  platform::URLSessionConfiguration one;
  one.HTTPMaximumConnectionsPerHost = 1;
  const auto session = makeSession(one);
  Running first(requestFor(server.url("/")), session);
  first.task->resume();
  ASSERT_TRUE(eventually([&] { return server.accepted() == 1; }));
  Running second(requestFor(server.url("/")), session);
  second.task->resume();
  second.task->cancel();
  expectCancelled(second);
  EXPECT_EQ(server.accepted(), 1);
  first.task->cancel();
  expectCancelled(first);
}

TEST(Cancel, WhileItSends) {
  std::promise<void> begun;
  std::promise<void> over;
  RawServer server([&](RawConnection& connection) {
    connection.readHead();
    begun.set_value();
    over.get_future().wait();
  });
  Running running(requestFor(server.url("/"), "POST", std::string(64U << 20U, 's')));
  running.task->resume();
  begun.get_future().wait();
  running.task->cancel();
  expectCancelled(running);
  over.set_value();
}

TEST(Cancel, WhileItWaitsForTheReply) {
  std::promise<void> asked;
  RawServer server([&](RawConnection& connection) {
    connection.readRequest();
    asked.set_value();
    connection.waitForClose();
  });
  Running running(requestFor(server.url("/")));
  running.task->resume();
  asked.get_future().wait();
  EXPECT_EQ(running.task->state(), State::Running);
  running.task->cancel();
  expectCancelled(running);
}

TEST(Cancel, WhileItReceives) {
  RawServer server([](RawConnection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nsome");
    connection.waitForClose();
  });
  Running running(requestFor(server.url("/")));
  running.task->resume();
  ASSERT_TRUE(eventually([&] { return running.task->countOfBytesReceived() == 4; }));
  EXPECT_EQ(running.task->response()->statusCode(), 200);
  running.task->cancel();
  expectCancelled(running);
}

TEST(Cancel, WhileAChallengeIsOpen) {
  HTTPServer server([](const ReceivedRequest&) {
    return Answer{.status = 401, .body = "no", .headers = {{"WWW-Authenticate", "Basic realm=\"r\""}}};
  });
  const auto silent = std::make_shared<Recorder>();
  Running running(requestFor(server.url("/")), makeSession({}, silent));
  running.task->resume();
  ASSERT_TRUE(eventually([&] { return !silent->told().empty(); }));
  running.task->cancel();
  expectCancelled(running);
}

TEST(Cancel, AfterTheEndChangesNothing) {
  HTTPServer server([](const ReceivedRequest&) { return Answer{.body = "done"}; });
  Running running(requestFor(server.url("/")));
  running.task->resume();
  EXPECT_EQ(running.wait().text(), "done");
  running.task->cancel();
  EXPECT_EQ(running.task->state(), State::Completed);
  EXPECT_FALSE(running.task->error());
  EXPECT_EQ(running.calls(), 1);
}

TEST(Cancel, FromItsOwnHandlerOrFromManyThreadsIsOneEnd) {
  HTTPServer server([](const ReceivedRequest&) { return Answer{.body = "done"}; });
  const auto session = makeSession();
  for (int i = 0; i < 30; ++i) {
    Running running(requestFor(server.url("/")), session);
    std::vector<std::thread> threads;
    threads.reserve(3);
    for (int t = 0; t < 3; ++t) {
      threads.emplace_back([&, t] { t == 0 ? running.task->resume() : running.task->cancel(); });
    }
    for (auto& thread : threads) thread.join();
    const auto got = running.wait();
    EXPECT_TRUE(got.code() == -999 || got.text() == "done");
    EXPECT_EQ(running.calls(), 1);
  }
}

TEST(Cancel, OfASessionCancelsWhatRunsAndRefusesMore) {
  RawServer server([](RawConnection& connection) { connection.waitForClose(); });
  const auto delegate = std::make_shared<Recorder>();
  const auto session = makeSession({}, delegate);
  Running running(requestFor(server.url("/")), session);
  Running suspended(requestFor(server.url("/")), session);
  running.task->resume();
  session->invalidateAndCancel();
  EXPECT_EQ(running.wait().code(), -999);
  EXPECT_EQ(suspended.wait().code(), -999);
  EXPECT_TRUE(eventually([&] { return delegate->told() == std::vector<std::string>{"invalid"}; }));
  EXPECT_THROW(session->dataTaskWithURL(address(server.url("/"))), platform::Exception);
}

/// A queue whose operations wait until the test lets them go.
std::shared_ptr<platform::OperationQueue> heldQueue() {
  auto queue = platform::OperationQueue::create("held");
  queue->setSuspended(true);
  return queue;
}

TEST(Cancel, OfTheCompletionOnTheDelegateQueueIsTheEndOfTheTask) {
  HTTPServer server([](const ReceivedRequest&) { return Answer{.body = "done"}; });
  const auto queue = heldQueue();
  const auto delegate = std::make_shared<Recorder>();
  const auto session = platform::URLSession::sessionWithConfiguration({}, delegate, queue);
  const auto heard = std::make_shared<std::atomic<int>>(0);
  std::weak_ptr<platform::URLSessionTask> observer;
  {
    const auto task = session->dataTaskWithRequest(requestFor(server.url("/")), [heard](const auto&...) { ++*heard; });
    observer = task;
    task->resume();
    ASSERT_TRUE(eventually([&] { return queue->operationCount() == 1; }));
  }
  queue->cancelAllOperations();
  queue->setSuspended(false);
  EXPECT_TRUE(eventually([&] { return observer.expired(); })) << "a task that nobody holds lives on";
  EXPECT_EQ(heard.use_count(), 1);
  EXPECT_EQ(*heard, 0);
  EXPECT_EQ(fetch(*session, requestFor(server.url("/"))).text(), "done");
  session->finishTasksAndInvalidate();
  EXPECT_TRUE(eventually([&] { return delegate->told() == std::vector<std::string>{"invalid"}; }));
}

TEST(Cancel, OfPiecesOnTheDelegateQueueDoesNotHaltTheTransfer) {
  const std::string body(8U << 20U, 'b');
  HTTPServer server([&body](const ReceivedRequest&) { return Answer{.body = body}; });
  const auto queue = heldQueue();
  const auto delegate = std::make_shared<Recorder>();
  const auto task = platform::URLSession::sessionWithConfiguration({}, delegate, queue)->dataTaskWithRequest(requestFor(server.url("/")));
  task->resume();
  // The transfer halts while so much waits for the delegate.
  ASSERT_TRUE(eventually([&] { return task->countOfBytesReceived() > (1 << 20); }));
  ASSERT_TRUE(eventually([&] { return queue->operationCount() == 1; }));
  queue->cancelAllOperations();
  queue->setSuspended(false);
  EXPECT_TRUE(delegate->waitForEnd());
  EXPECT_EQ(delegate->told(), std::vector<std::string>{"complete 0"});
  EXPECT_LT(delegate->body().size(), body.size());
}

TEST(Cancel, AFinishingSessionLetsItsTasksEndFirst) {
  std::promise<void> release;
  RawServer server([&](RawConnection& connection) {
    connection.readRequest();
    release.get_future().wait();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
  });
  const auto delegate = std::make_shared<Recorder>();
  const auto session = makeSession({}, delegate);
  Running running(requestFor(server.url("/")), session);
  running.task->resume();
  session->finishTasksAndInvalidate();
  EXPECT_TRUE(delegate->told().empty());
  release.set_value();
  EXPECT_EQ(running.wait().text(), "ok");
  EXPECT_TRUE(eventually([&] { return delegate->told() == std::vector<std::string>{"invalid"}; }));
}

}  // namespace
}  // namespace kestrine::test
