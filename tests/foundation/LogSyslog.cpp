#include "platform/foundation/log/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>

#include "platform/foundation/base/ApplicationIdentifier.h"
#include "platform/foundation/base/FileHandle.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

namespace platform {
namespace {

using kestrine::test::Outcome;
using kestrine::test::runToEnd;
using kestrine::test::TemporaryDirectory;

constexpr const char* kJobVariable = "KESTRINE_SYSLOG_JOB";

/// This program again, before main: it logs one line each way and ends.
[[maybe_unused]] const bool logged = [] {
  if (std::getenv(kJobVariable) == nullptr) return false;
  setApplicationIdentifier("Ostrabyte.Test");
  NSLog("to standard error only");
  flushLog();
  setLogDestination({.syslog = true, .file = {}, .fileLimit = 0});
  NSLog("to %s both");
  flushLog();
  _exit(0);
}();

/// The receiving end of a system log of the test's own.
class SystemLog {
 public:
  explicit SystemLog(const std::string& path) : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(socket_.fileDescriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) throw std::runtime_error("bind");
  }

  /// What has come in so far.
  [[nodiscard]] std::vector<std::string> messages() const {
    std::vector<std::string> all;
    std::array<char, 4096> buffer;
    for (ssize_t size = 0; (size = recv(socket_.fileDescriptor(), buffer.data(), buffer.size(), 0)) > 0;) {
      all.emplace_back(buffer.data(), static_cast<std::size_t>(size));
    }
    return all;
  }

 private:
  FileHandle socket_;
};

TEST(LogSyslog, GetsEachLineOnceItIsNamed) {
  const TemporaryDirectory folder;
  const SystemLog systemLog(folder / "log");
  // A /dev of the process's own, in which the system log is the test's socket. It is put together elsewhere, since the test's folder may be
  // below /dev itself.
  const std::string script =
      "mkdir \"$DEV\" && mount -t tmpfs none \"$DEV\" && : >\"$DEV/log\" && mount --bind \"$LOG_SOCKET\" \"$DEV/log\" && "
      "mount --rbind \"$DEV\" /dev && echo ready && exec \"$TEST_PROGRAM\"";
  const std::string program = std::filesystem::read_symlink("/proc/self/exe");
  const Outcome outcome = runToEnd(
      {"unshare", "--user", "--map-root-user", "--mount", "sh", "-c", script},
      {.environment = {{kJobVariable, "yes"}, {"LOG_SOCKET", folder / "log"}, {"DEV", folder / "dev"}, {"TEST_PROGRAM", program}}});
  if (outcome.output != "ready\n") GTEST_SKIP() << "left out: the system log, because no /dev can be mounted here: " << outcome.errorOutput;
  ASSERT_EQ(outcome.status, 0) << outcome.errorOutput;
  EXPECT_THAT(outcome.errorOutput, testing::AllOf(testing::HasSubstr("] to standard error only\n"), testing::HasSubstr("] to %s both\n")));
  const auto messages = systemLog.messages();
  ASSERT_EQ(messages.size(), 1U);
  // LOG_USER (1 << 3) and LOG_NOTICE (5).
  EXPECT_THAT(messages[0], testing::StartsWith("<13>"));
  EXPECT_THAT(messages[0], testing::ContainsRegex(R"(Ostrabyte\.Test\[[0-9]+:[0-9]+\] to %s both$)"));
}

}  // namespace
}  // namespace platform
