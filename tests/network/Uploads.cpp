#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <future>

#include "tests/network/Fetch.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/http/HTTPServer.h"
#include "tests/support/http/RawServer.h"

namespace kestrine::test {
namespace {

Answer echo(const ReceivedRequest& request) { return {.body = request.header("Content-Length").value_or("-") + ":" + request.body}; }

class Upload : public testing::Test {
 protected:
  Fetched upload(const std::string& path) { return uploadFile(*session, requestFor(server.url("/"), "POST"), path); }
  const TemporaryDirectory folder;
  HTTPServer server{echo};
  const std::shared_ptr<platform::URLSession> session = makeSession();
};

TEST_F(Upload, SendsTheFileWithItsLength) {
  writeFile(folder / "file", "content");
  EXPECT_EQ(upload(folder / "file").text(), "7:content");
  writeFile(folder / "empty", "");
  EXPECT_EQ(upload(folder / "empty").text(), "0:");
}

TEST_F(Upload, OfALargeFileIsWhole) {
  std::string body(8U << 20U, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 31 + i / 997);
  writeFile(folder / "file", body);
  EXPECT_TRUE(upload(folder / "file").text() == "8388608:" + body);
}

TEST_F(Upload, OfWhatCannotBeReadIsAnErrorAndSendsNothing) {
  EXPECT_EQ(upload(folder / "missing").code(), -1100);
  EXPECT_EQ(upload(folder.path()).code(), -1101);
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(upload(folder / "pipe").code(), -3001);
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(Upload, OfAForbiddenFileIsAnErrorOfItsOwn) {
  if (geteuid() == 0) GTEST_SKIP() << "left out: a file that may not be read, because root may read every file";
  writeFile(folder / "file", "content");
  ASSERT_EQ(chmod((folder / "file").c_str(), 0), 0);
  EXPECT_EQ(upload(folder / "file").code(), -1102);
}

TEST_F(Upload, OfDataReplacesTheRequestsBody) {
  std::promise<std::string> promise;
  session
      ->uploadTaskWithRequest_fromData(requestFor(server.url("/"), "POST", "the request's"),
                                       platform::Bytes(std::string_view("the task's")),
                                       [&](const auto& data, const auto&, const auto&) { promise.set_value(data->text()); })
      ->resume();
  EXPECT_EQ(promise.get_future().get(), "10:the task's");
}

/// Makes the file shorter or takes it away once the upload has begun.
class ChangingUpload : public testing::Test {
 protected:
  ChangingUpload() {
    writeFile(folder / "file", "");
    std::filesystem::resize_file(folder / "file", kSize);
  }
  Fetched upload() { return uploadFile(*makeSession(), requestFor(server.url("/"), "POST"), folder / "file"); }

  static constexpr std::uintmax_t kSize = 256U << 20U;
  const TemporaryDirectory folder;
  std::function<void()> change;
  RawServer server{[this](RawConnection& connection) {
    connection.readHead();
    change();
    connection.waitForClose();
  }};
};

TEST_F(ChangingUpload, OfAFileThatShrinksIsAnError) {
  change = [this] { std::filesystem::resize_file(folder / "file", 10); };
  EXPECT_EQ(upload().code(), -1021);
}

// The descriptor keeps the content for as long as it is open, so a removed file is sent to its end.
TEST_F(ChangingUpload, OfAFileThatIsRemovedGoesOn) {
  RawServer whole([this](RawConnection& connection) {
    const auto head = connection.readHead();
    std::filesystem::remove(folder / "file");
    connection.send(connection.readBody(kSize) == kSize ? "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nwhole"
                                                        : "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nshort");
  });
  EXPECT_EQ(uploadFile(*makeSession(), requestFor(whole.url("/"), "POST"), folder / "file").text(), "whole");
}

}  // namespace
}  // namespace kestrine::test
