// What systemd makes of the units and of the service, by its own programs. They need no running systemd.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/system/WatcherFixture.h"

namespace kestrine::test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kActivate = "/usr/bin/systemd-socket-activate";
constexpr const char* kAnalyze = "/usr/bin/systemd-analyze";
constexpr const char* kUnit = "Ostrabyte.FileWatcherXpcService";

class SystemdUnits : public WatcherService {
 protected:
  /// The shipped units as they are installed, with the service that was built.
  void install() {
    makeFolder(folder("units"));
    writeFile(unit(".socket"), readFile(KESTRINE_SOURCE_DIR "/packaging/systemd/Ostrabyte.FileWatcherXpcService.socket"));
    std::string text = readFile(KESTRINE_SOURCE_DIR "/packaging/systemd/Ostrabyte.FileWatcherXpcService.service.in");
    const std::string mark = "@KESTRINE_SERVICE_PROGRAM@";
    ASSERT_NE(text.find(mark), std::string::npos);
    text.replace(text.find(mark), mark.size(), KESTRINE_SERVICE);
    writeFile(unit(".service"), text);
  }
  [[nodiscard]] std::string unit(const std::string& ending) const { return folder("units") + "/" + kUnit + ending; }
  [[nodiscard]] Outcome verify() const { return runToEnd({kAnalyze, "--user", "verify", unit(".socket"), unit(".service")}); }
};

TEST_F(SystemdUnits, AreFoundInOrderBySystemd) {
  if (access(kAnalyze, X_OK) != 0) GTEST_SKIP() << "left out: systemd's check of the units, because systemd-analyze is not installed";
  install();
  const Outcome good = verify();
  EXPECT_EQ(good.status, 0) << good.errorOutput;
  EXPECT_THAT(good.errorOutput + good.output, Not(HasSubstr(kUnit)));

  // The same check finds a program that is not there, and a word that systemd does not know.
  const std::string text = readFile(unit(".service"));
  std::string missing = text;
  missing.replace(missing.find(KESTRINE_SERVICE), std::string(KESTRINE_SERVICE).size(), folder("nowhere"));
  writeFile(unit(".service"), missing);
  EXPECT_NE(verify().status, 0);
  writeFile(unit(".service"), text + "\n[Service]\nTimeoutStopSeconds=10\n");
  EXPECT_THAT(verify().errorOutput, HasSubstr("TimeoutStopSeconds"));
}

TEST_F(SystemdUnits, ListenWhereClientsLook) {
  const std::string text = readFile(KESTRINE_SOURCE_DIR "/packaging/systemd/Ostrabyte.FileWatcherXpcService.socket");
  // %t is XDG_RUNTIME_DIR in a user's unit (systemd.unit(5)).
  EXPECT_THAT(text, HasSubstr("\nListenStream=%t/xpc/Ostrabyte.FileWatcherXpcService\n"));
  EXPECT_THAT(text, HasSubstr("\nSocketMode=0600\nDirectoryMode=0700\n"));
}

TEST_F(SystemdUnits, StartTheServiceWhenTheApplicationConnects) {
  if (access(kActivate, X_OK) != 0) {
    GTEST_SKIP() << "left out: activation by systemd's own program, because systemd-socket-activate is not installed";
  }
  setBasePath(base());
  makeFolder(folder("run/xpc"));
  const std::string path = folder("run/xpc") + "/" + kUnit;
  std::vector<std::string> command{kActivate, "--listen=" + path};
  for (const char* variable :
       {"XDG_RUNTIME_DIR", "XDG_STATE_HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_DATA_DIRS", "HOME", "KESTRINE_SYSTEM_VERSION"}) {
    if (getenv(variable) != nullptr) command.push_back(std::string("--setenv=") + variable);
  }
  command.emplace_back(KESTRINE_SERVICE);
  Process activator(command);
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(path); }, std::chrono::seconds(60)));
  EXPECT_EQ(servicePid(), 0) << "nobody has connected yet";

  Application application;
  application.callToFileWatcher();
  // The process that listened becomes the service.
  ASSERT_TRUE(eventuallyStanding({1}));
  EXPECT_EQ(servicePid(), activator.pid());
  writeFile(in("file"), "text");
  EXPECT_TRUE(eventuallyFlagged());

  activator.signal(SIGTERM);
  EXPECT_EQ(activator.wait(std::chrono::seconds(60)), 0);
  EXPECT_TRUE(std::filesystem::exists(path)) << "the socket is systemd's";
}

}  // namespace
}  // namespace kestrine::test
