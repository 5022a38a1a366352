// The command where nothing is as on a desktop: no runtime folder, no environment, a socket that somebody else made.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "platform/foundation/base/FileHandle.h"
#include "tests/app/RefusedCalls.h"
#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

using platform::FileHandle;
using platform::Object;
using testing::HasSubstr;

/// A listening socket where systemd would have put it.
FileHandle listenAt(const std::string& path) {
  FileHandle listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (bind(listener.fileDescriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener.fileDescriptor(), 8) != 0) {
    throw std::runtime_error("cannot listen at " + path);
  }
  return listener;
}

TEST(StatusCommand, NeverStartsAServiceNotThroughASocketOfSomebodyElseEither) {
  const Sandbox sandbox;
  EXPECT_EQ(sandbox.run({"status"}).status, 3);
  EXPECT_FALSE(std::filesystem::exists(sandbox.folder("run/xpc/Ostrabyte.FileWatcherXpcService")));

  std::filesystem::create_directories(sandbox.folder("run/xpc"));
  const FileHandle listener = listenAt(sandbox.folder("run/xpc/Ostrabyte.FileWatcherXpcService"));
  EXPECT_EQ(sandbox.run({"status"}).status, 3);
  EXPECT_EQ(sandbox.run({"status", "--json"}).status, 3);
  EXPECT_EQ(sandbox.run({"stop"}).status, 0);
  // A connection is what would make systemd start the service.
  EXPECT_LT(accept4(listener.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC), 0);
  EXPECT_EQ(errno, EAGAIN);
}

/// As in `docker run` with the default profile: hardly any environment, no runtime folder, no fanotify.
class Container : public testing::Test {
 protected:
  void SetUp() override {
    if (std::filesystem::exists("/run/user/" + std::to_string(geteuid()))) {
      GTEST_SKIP() << "left out: no runtime folder at all, because this user has one in /run/user";
    }
    std::filesystem::create_directories(home_ / ".local/share");
    std::filesystem::rename(sandbox_.folder("data/xpc-services"), home_ / ".local/share/xpc-services");
    options_.clearEnvironment = true;
    options_.environment = {{"HOME", home_.path()}, {"PATH", "/usr/bin:/bin"}};
    options_.directory = "/";
  }
  void TearDown() override { EXPECT_EQ(run({"stop"}).status, 0); }

  [[nodiscard]] Outcome run(const std::vector<std::string>& arguments) const { return runToEnd(Sandbox::command(arguments), options_); }

  Sandbox sandbox_;
  TemporaryDirectory home_;
  Process::Options options_;
};

TEST_F(Container, NeedsNoRuntimeFolderAndNoFanotify) {
  withRefusedCalls(kFanotify, [&] {
    const Outcome started = run({"start", "--base", sandbox_.base()});
    ASSERT_EQ(started.status, 0) << started.errorOutput;
    EXPECT_THAT(run({"status"}).output, HasSubstr("source          inotify\n"));
    writeFile(sandbox_.watched() + "/hello", "world");
    platform::UserDefaults defaults("Ostrabyte.FileWatcherXpcService", home_ / ".config/Preferences");
    EXPECT_TRUE(eventually([&] { return defaults.objectForKey("FileWatcherStatusKey") == Object("1"); }, kLongEnough));
    EXPECT_EQ(run({"stop"}).status, 0);
    EXPECT_EQ(run({"status"}).status, 3);
  });
}

}  // namespace
}  // namespace kestrine::test
