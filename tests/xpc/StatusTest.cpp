#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

#include "platform/xpc/service/ServiceStatusQuery.h"
#include "tests/support/Eventually.h"
#include "tests/xpc/RawSocket.h"
#include "tests/xpc/ServiceEnvironment.h"

namespace {

using namespace kestrine::test;
using namespace std::chrono_literals;
using platform::Object;
using platform::xpc::queryServiceStatus;

TEST(Status, IsToldByTheChannelAndReachesNoHandler) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  {
    Client client(kTestService);
    ASSERT_NO_THROW(messageOf(client.ask("pid")));
  }
  ASSERT_TRUE(environment.waitForRecord("invalid"));
  const int peers = environment.countInRecord("peer");
  const double now = platform::Date::now().timeIntervalSince1970;
  for (int i = 0; i < 3; ++i) {
    const auto status = queryServiceStatus(kTestService, 60s);
    ASSERT_TRUE(status);
    const Object process = status->objectForKey("process").objectAtIndex(0);
    EXPECT_EQ(process.objectForKey("pid").longLongValue(), environment.startedServices().at(0));
    EXPECT_EQ(process.objectForKey("identifier"), Object(kTestService));
    EXPECT_NEAR(process.objectForKey("startedAt").dateValue().timeIntervalSince1970, now, 300);
    const Object channel = status->objectForKey("channel").objectAtIndex(0);
    EXPECT_EQ(channel.objectForKey("peers"), Object::numberWithUnsignedLongLong(0));
  }
  EXPECT_EQ(environment.countInRecord("peer"), peers);
}

TEST(Status, NeverStartsAService) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  EXPECT_EQ(queryServiceStatus(kTestService, 5s), std::nullopt);
  EXPECT_EQ(queryServiceStatus("No.Such.Service", 5s), std::nullopt);
  EXPECT_EQ(queryServiceStatus("../illegal", 5s), std::nullopt);
  EXPECT_TRUE(environment.startedServices().empty());
  EXPECT_NE(access(environment.socketFolder().c_str(), F_OK), 0) << "nothing was made for it";
}

TEST(Status, DoesNotEvenTouchASocketOfSystemds) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  makeFolder(environment.socketFolder());
  const auto listener = listenAt(environment.socketPath(kTestService));
  EXPECT_EQ(queryServiceStatus(kTestService, 5s), std::nullopt);
  const timeval limit{.tv_sec = 0, .tv_usec = 200'000};
  setsockopt(listener.fileDescriptor(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  EXPECT_LT(accept(listener.fileDescriptor(), nullptr, nullptr), 0) << "somebody connected";
}

TEST(Status, IsGivenUpWhenTheServiceDoesNotAnswerInTime) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client client(kTestService);
  ASSERT_NO_THROW(messageOf(client.ask("pid")));
  const int pid = environment.startedServices().at(0);
  kill(pid, SIGSTOP);
  ASSERT_TRUE(eventually([pid] { return readFile("/proc/" + std::to_string(pid) + "/stat").find(") T ") != std::string::npos; }));
  EXPECT_EQ(queryServiceStatus(kTestService, 200ms), std::nullopt);
  kill(pid, SIGCONT);
  EXPECT_TRUE(queryServiceStatus(kTestService, 60s));
}

}  // namespace
