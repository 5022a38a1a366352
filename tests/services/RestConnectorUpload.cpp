#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "Services/RestConnector.h"
#include "tests/foundation/CapturedStandardError.h"
#include "tests/services/RestNetwork.h"
#include "util/ServicesUtilities.h"

namespace kestrine::test {
namespace {

namespace fs = std::filesystem;
using platform::CapturedStandardError;
using platform::Object;
using testing::HasSubstr;

/// One upload from a home folder of its own.
class Upload {
 public:
  Upload() { setenv("HOME", home.path().c_str(), 1); }

  /// Sends what the server calls `filePath`, and waits for the end.
  const Ending& send(const std::string& filePath) {
    connector->startAsyncUploadWithStreamRequest_params_progress_finished(
        "Downloads.svc/Upload", object({{"FilePath", filePath}, {"TransitDownloadPath", "T\\x"}, {"FileRequestID", "9"}}), nullptr,
        into(endings));
    EXPECT_TRUE(served([this] { return !endings.empty(); }));
    return endings.at(0);
  }
  /// The same with a local path.
  const Ending& sendFile(const std::string& path) { return send(ServicesUtilities::convertPathToWindows(path)); }

  const TemporaryDirectory home;
  const TemporaryDirectory folder;
  const std::shared_ptr<RestConnector> connector = std::make_shared<RestConnector>();
  std::vector<Ending> endings;
};

TEST(RestConnectorUpload, SendsTheFileAsTheBodyAndSaysInHeadersWhichItIs) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = R"({"ReturnStatus":"1"})"});
    Upload upload;
    writeFile(upload.folder / "a.bin", std::string("\0content", 8));
    const CapturedStandardError captured;
    const Ending& ending = upload.sendFile(upload.folder / "a.bin");
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.object(), object({{"ReturnStatus", "1"}}));
    EXPECT_TRUE(ending.onMainLoop);
    const ReceivedRequest request = server->requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/KestrineRestService/Downloads.svc/Upload");
    EXPECT_EQ(request.body, std::string("\0content", 8));
    EXPECT_EQ(request.header("Content-Type"), "application/octet-stream");
    EXPECT_EQ(request.header("FilePath"), ServicesUtilities::convertPathToWindows(upload.folder / "a.bin"));
    EXPECT_EQ(request.header("TransitDownloadPath"), "T\\x");
    EXPECT_EQ(request.header("FileRequestID"), "9");
    EXPECT_EQ(request.header("Accept"), std::nullopt);
    EXPECT_THAT(captured.text(), HasSubstr("] " + (upload.folder / "a.bin") + " T\\x 9\n"));
    EXPECT_EQ(server->requests().size(), 1U) << "the streamed task was started";
  });
}

TEST(RestConnectorUpload, RemovesItsCopyWhenItHasSucceededAndLeavesTheFile) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    Upload upload;
    writeFile(upload.folder / "a.bin", "content");
    writeFile(upload.home / "a.bin", "somebody's own, and longer than what is sent");
    upload.sendFile(upload.folder / "a.bin");
    EXPECT_EQ(server->requests().at(0).body, "content");
    EXPECT_TRUE(fs::exists(upload.folder / "a.bin"));
    EXPECT_FALSE(fs::exists(upload.home / "a.bin")) << "what had the name was overwritten and goes too";
  });
}

TEST(RestConnectorUpload, LeavesItsCopyWhenItHasFailed) {
  inRestNetwork([] {
    Upload upload;  // nobody listens
    writeFile(upload.folder / "a.bin", "content");
    const Ending& ending = upload.sendFile(upload.folder / "a.bin");
    EXPECT_EQ(ending.status, 2);
    EXPECT_EQ(ending.error().code, -1004);
    EXPECT_EQ(readFile(upload.home / "a.bin"), "content");
  });
}

TEST(RestConnectorUpload, OfAFileInTheHomeFolderItselfSendsAllOfItAndRemovesIt) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    Upload upload;
    std::string content;
    for (int i = 0; content.size() < 3000000; ++i) content += std::to_string(i);
    writeFile(upload.home / "own.bin", content);
    EXPECT_EQ(upload.sendFile(upload.home / "own.bin").status, 0);
    EXPECT_EQ(server->requests().at(0).body.size(), content.size());
    EXPECT_TRUE(server->requests().at(0).body == content);
    EXPECT_FALSE(fs::exists(upload.home / "own.bin"));
  });
}

TEST(RestConnectorUpload, OfALinkInTheHomeFolderToTheFileSendsAllOfItToo) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    Upload upload;
    writeFile(upload.folder / "a.bin", "content");
    fs::create_symlink(upload.folder / "a.bin", upload.home / "a.bin");
    EXPECT_EQ(upload.sendFile(upload.folder / "a.bin").status, 0);
    EXPECT_EQ(server->requests().at(0).body, "content");
    EXPECT_EQ(readFile(upload.folder / "a.bin"), "content");
  });
}

TEST(RestConnectorUpload, AnAnswerThatIsNoJSONIsNothingAndStillASuccess) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "<html>"});
    Upload upload;
    writeFile(upload.folder / "a.bin", "content");
    const Ending& ending = upload.sendFile(upload.folder / "a.bin");
    EXPECT_EQ(ending.status, 0);
    EXPECT_TRUE(ending.object().isNil());
    EXPECT_FALSE(fs::exists(upload.home / "a.bin"));
  });
}

TEST(RestConnectorUpload, LeavesNoTaskToResumePauseOrClose) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    Upload upload;
    writeFile(upload.folder / "a.bin", "content");
    upload.sendFile(upload.folder / "a.bin");
    EXPECT_TRUE(upload.connector->session());
    EXPECT_EQ(upload.connector->resume(), 7);
    EXPECT_EQ(upload.connector->pause(), 9);
    EXPECT_EQ(upload.connector->close(), 10);
  });
}

TEST(RestConnectorUpload, OfAMissingFileCopiesNothingAndFailsAsATask) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    Upload upload;
    const Ending& ending = upload.sendFile(upload.folder / "missing.bin");
    EXPECT_EQ(ending.status, 2);
    EXPECT_EQ(ending.error().code, -1100);
    EXPECT_TRUE(fs::is_empty(upload.home.path()));
    EXPECT_TRUE(server->requests().empty());
  });
}

TEST(RestConnectorUpload, OfAPathThatIsNoURLTextSendsWhateverHasTheNameInTheHomeFolder) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    Upload upload;
    writeFile(upload.folder / "with blank.bin", "content");
    EXPECT_EQ(upload.sendFile(upload.folder / "with blank.bin").status, 2);
    EXPECT_TRUE(fs::is_empty(upload.home.path())) << "the blank makes the path no URL, so nothing is copied";
    upload.endings.clear();
    writeFile(upload.home / "with blank.bin", "old");
    EXPECT_EQ(upload.sendFile(upload.folder / "with blank.bin").status, 0);
    EXPECT_EQ(server->requests().at(0).body, "old") << "the task is made and started all the same";
  });
}

TEST(RestConnectorUpload, ReadsThePathAsTheTextOfAURL) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    Upload upload;
    writeFile(upload.folder / "a b.bin", "escaped");
    writeFile(upload.folder / "ü.bin", "beyond ASCII");
    EXPECT_EQ(upload.sendFile(upload.folder / "a%20b.bin").status, 0);
    EXPECT_EQ(server->requests().at(0).body, "escaped");
    upload.endings.clear();
    EXPECT_EQ(upload.sendFile(upload.folder / "ü.bin").status, 0);
    EXPECT_EQ(server->requests().at(1).body, "beyond ASCII");
  });
}

TEST(RestConnectorUpload, OfAFolderOrOfTheHomeFolderItselfFailsAndRemovesNothing) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    for (const char* filePath : {"", "a\\..", "."}) {
      Upload upload;
      writeFile(upload.home / "kept", "content");
      EXPECT_EQ(upload.send(filePath).status, 2) << filePath;
      EXPECT_EQ(readFile(upload.home / "kept"), "content");
    }
    EXPECT_TRUE(server->requests().empty());
  });
}

TEST(RestConnectorUpload, AValueWithALineEndDoesNotBecomeAHeader) {
  inRestNetwork([] {
    const auto server = restServerThatAnswers({.body = "{}"});
    Upload upload;
    upload.connector->startAsyncUploadWithStreamRequest_params_progress_finished(
        "A", object({{"FilePath", "missing"}, {"FileRequestID", "9\r\nX-Evil: 1"}}), nullptr, into(upload.endings));
    ASSERT_TRUE(served([&upload] { return !upload.endings.empty(); }));
    EXPECT_EQ(upload.endings[0].status, 2);
    EXPECT_TRUE(server->requests().empty());
  });
}

TEST(RestConnectorUpload, WithoutParametersAsksForAFileCalledNothing) {
  inRestNetwork([] {
    Upload upload;
    const CapturedStandardError captured;
    upload.connector->startAsyncUploadWithStreamRequest_params_progress_finished("A", object({}), nullptr, into(upload.endings));
    ASSERT_TRUE(served([&upload] { return !upload.endings.empty(); }));
    EXPECT_EQ(upload.endings[0].status, 2);
    EXPECT_THAT(captured.text(), HasSubstr("] /(null) (null) (null)\n"));
  });
}

TEST(RestConnectorUpload, WithoutANetworkTouchesNoFile) {
  inNetworkNamespace([] {
    Upload upload;
    writeFile(upload.folder / "a.bin", "content");
    const Ending& ending = upload.sendFile(upload.folder / "a.bin");
    EXPECT_EQ(ending.status, 1);
    EXPECT_TRUE(ending.object().isNil());
    EXPECT_TRUE(fs::is_empty(upload.home.path()));
    EXPECT_FALSE(upload.connector->session());
  });
}

}  // namespace
}  // namespace kestrine::test
