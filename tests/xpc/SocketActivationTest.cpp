// A socket's way from a launcher to a service, and the log file's, each end by itself. LifetimeTest has whole processes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/xpc/launch/ServiceLogFile.h"
#include "platform/xpc/launch/SocketActivation.h"
#include "tests/support/Process.h"
#include "tests/xpc/ServiceEnvironment.h"

namespace {

using namespace kestrine::test;
using platform::xpc::addHandOver;
using platform::xpc::isAboutHandOver;
using platform::xpc::putOwnProcess;
using platform::xpc::takeHandedOverSocket;
using platform::xpc::takeLogFile;

constexpr const char* kActivatedService = "Test.Service";

TEST(SocketActivation, TellsTheNewProcessThatOneSocketIsForIt) {
  std::vector<std::string> entries{"PATH=/bin"};
  addHandOver(entries);
  putOwnProcess(entries.back().data());
  ASSERT_EQ(entries.size(), 3U);
  EXPECT_EQ(entries[0], "PATH=/bin");
  EXPECT_EQ(entries[1], "LISTEN_FDS=1");
  // Ended by a zero byte, as the kernel reads it.
  EXPECT_STREQ(entries[2].c_str(), ("LISTEN_PID=" + std::to_string(getpid())).c_str());
}

TEST(SocketActivation, KnowsWhatIsAboutAHandOver) {
  for (const char* entry : {"LISTEN_FDS=1", "LISTEN_PID=17", "LISTEN_FDNAMES=a:b", "LISTEN_PIDFDID=9"})
    EXPECT_TRUE(isAboutHandOver(entry)) << entry;
  for (const char* entry : {"LISTEN=1", "PATH=LISTEN_FDS=1", "XLISTEN_FDS=1", ""}) EXPECT_FALSE(isAboutHandOver(entry)) << entry;
}

TEST(SocketActivation, TakesNothingThatIsNotForThisProcess) {
  const std::string own = std::to_string(getpid());
  const std::vector<std::pair<const char*, std::string>> table{{"1", "1"},       {"0", own},       {"-1", own}, {"none", own},
                                                               {"1", own + " "}, {"1", "0" + own}, {"1", ""}};
  for (const auto& [count, process] : table) {
    ServiceEnvironment environment;
    environment.set("LISTEN_FDS", count);
    environment.set("LISTEN_PID", process);
    environment.set("LISTEN_FDNAMES", "socket");
    const auto socket = takeHandedOverSocket();
    ASSERT_TRUE(socket) << count << " for " << process;
    EXPECT_FALSE(socket->isOpen()) << count << " for " << process;
    for (const char* variable : {"LISTEN_FDS", "LISTEN_PID", "LISTEN_FDNAMES"}) EXPECT_EQ(std::getenv(variable), nullptr) << variable;
  }
}

TEST(SocketActivation, EndsAServiceThatWasHandedSomethingElse) {
  for (const std::string third : {"3</dev/null", "3<&-"}) {
    ServiceEnvironment environment;
    environment.install(kActivatedService);
    Process service({"/bin/sh", "-c", "LISTEN_FDS=1 LISTEN_PID=$$ exec " XPC_TEST_SERVICE " " + third});
    EXPECT_EQ(service.wait(std::chrono::seconds(60)), 71) << third;
    EXPECT_NE(service.errorOutput().find("the descriptor that was handed over is no listening stream socket"), std::string::npos)
        << service.errorOutput();
    EXPECT_TRUE(environment.startedServices().empty()) << third;
  }
}

TEST(ServiceLogFile, IsTakenOnceAndOnlyFromAnAbsolutePath) {
  ServiceEnvironment environment;
  environment.set("XPC_LOG_FILE", "/some/folder/file.log");
  EXPECT_EQ(takeLogFile(), "/some/folder/file.log");
  EXPECT_EQ(std::getenv("XPC_LOG_FILE"), nullptr);
  EXPECT_EQ(takeLogFile(), "");
  environment.set("XPC_LOG_FILE", "file.log");
  EXPECT_EQ(takeLogFile(), "");
  EXPECT_EQ(std::getenv("XPC_LOG_FILE"), nullptr);
}

TEST(ServiceLogFile, IsSaidToBeOutOfReachWhenItsFolderCannotBeMade) {
  ServiceEnvironment environment;
  environment.install(kActivatedService);
  writeFile(environment / "in-the-way", "a file");
  environment.set("XPC_LOG_FILE", environment / "in-the-way/folder/service.log");
  Process service({XPC_TEST_SERVICE});
  ASSERT_TRUE(environment.waitForRecord("started " + std::to_string(service.pid()))) << "and serves all the same";
  service.signal(SIGTERM);
  EXPECT_EQ(service.wait(std::chrono::seconds(60)), 0);
  EXPECT_NE(
      service.errorOutput().find("the folder of the log, " + (environment / "in-the-way/folder") + ", cannot be made: Not a directory"),
      std::string::npos)
      << service.errorOutput();
}

}  // namespace
