#include <gtest/gtest.h>

#include <atomic>

#include "Services/RestConnector.h"
#include "Services/RestConnector_Old.h"
#include "tests/services/RestNetwork.h"

namespace kestrine::test {
namespace {

/// A network, a server, and a progress block that counts its calls.
struct Progress {
  std::atomic<int> calls = 0;
  std::atomic<int> finished = 0;
  const TemporaryDirectory home;
  const std::unique_ptr<HTTPServer> server = restServerThatAnswers({.body = "{\"a\":\"" + std::string(200000, 'x') + "\"}"});

  Progress() { setenv("HOME", home.path().c_str(), 1); }
  RestProgressHandler block() {
    return [this](double) { ++calls; };
  }
  template <class... Arguments>
  auto end() {
    return [this](const Arguments&...) { ++finished; };
  }
};

void expectKeptAndNeverCalled(const std::function<void(RestConnector&, Progress&)>& start, int ends) {
  inRestNetwork([&start, ends] {
    Progress progress;
    const auto connector = std::make_shared<RestConnector>();
    start(*connector, progress);
    ASSERT_TRUE(connector->progressHandler());
    ASSERT_TRUE(served([&] { return progress.finished == ends; }));
    serveFor(0.2);
    EXPECT_EQ(progress.calls, 0);
    connector->progressHandler()(0.5);
    EXPECT_EQ(progress.calls, 1) << "another block than the one that was given";
  });
}

TEST(RestConnectorProgress, OfATaskIsKeptAndNeverTold) {
  expectKeptAndNeverCalled(
      [](RestConnector& connector, Progress& progress) {
        connector.startAsyncTask_params_progress_finished("A", object({}), progress.block(), progress.end<RestResult, RestTaskStatus>());
      },
      1);
}

TEST(RestConnectorProgress, OfARawAnswerIsKeptAndNeverTold) {
  expectKeptAndNeverCalled(
      [](RestConnector& connector, Progress& progress) {
        connector.startAsyncDownloadWithStreamRequest_params_progress_finished(
            "A", object({}), progress.block(),
            progress.end<std::shared_ptr<const platform::URLResponse>, RestDataResult, RestTaskStatus>());
      },
      1);
}

TEST(RestConnectorProgress, OfADownloadIsKeptAndNeverTold) {
  expectKeptAndNeverCalled(
      [](RestConnector& connector, Progress& progress) {
        connector.startAsyncDownload_progress_finished(restBaseURL(), progress.block(), progress.end<RestDataResult, RestTaskStatus>());
      },
      1);
}

TEST(RestConnectorProgress, OfAFileUploadIsKeptAndNeverTold) {
  expectKeptAndNeverCalled(
      [](RestConnector& connector, Progress& progress) {
        writeFile(progress.home / "a.bin", std::string(500000, 'x'));
        connector.startAsyncUploadWithStreamRequest_params_progress_finished("A", object({{"FilePath", progress.home / "a.bin"}}),
                                                                             progress.block(), progress.end<RestResult, RestTaskStatus>());
      },
      1);
}

TEST(RestConnectorProgress, OfAJSONUploadIsKeptAndNeverTold) {
  expectKeptAndNeverCalled(
      [](RestConnector& connector, Progress& progress) {
        connector.startAsyncUpload_params_progress_finished("A", object({}), progress.block(), progress.end<RestResult, RestTaskStatus>());
      },
      0);
}

TEST(RestConnectorProgress, OfTheOlderTransportIsKeptAndNeverTold) {
  inRestNetwork([] {
    Progress progress;
    const auto connector = std::make_shared<RestConnector_Old>();
    connector->startAsyncTask_params_progress_finished("A", object({}), progress.block(), progress.end<RestResult, RestTaskStatus>());
    ASSERT_TRUE(connector->progressHandler());
    ASSERT_TRUE(eventually([&progress] { return progress.finished == 1; }));
    EXPECT_EQ(progress.calls, 0);
  });
}

TEST(RestConnectorProgress, IsNotKeptWithoutANetwork) {
  inNetworkNamespace([] {
    const auto connector = std::make_shared<RestConnector>();
    connector->startAsyncTask_params_progress_finished(
        "A", object({}), [](double) {}, [](const RestResult&, RestTaskStatus) {});
    EXPECT_FALSE(connector->progressHandler());
  });
}

}  // namespace
}  // namespace kestrine::test
