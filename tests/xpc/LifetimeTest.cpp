#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <sstream>
#include <thread>

#include "platform/foundation/base/Exception.h"
#include "platform/xpc/launch/ServiceFolder.h"
#include "platform/xpc/launch/ServiceLauncher.h"
#include "platform/xpc/launch/ServiceLocks.h"
#include "platform/xpc/service/ServiceProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/Process.h"
#include "tests/xpc/RawSocket.h"
#include "tests/xpc/ServiceEnvironment.h"

namespace {

using namespace kestrine::test;
using namespace std::chrono_literals;
using platform::FileHandle;
using platform::xpc::ConnectionError;
using platform::xpc::connectToService;
using platform::xpc::LaunchError;
using platform::xpc::runningService;
using platform::xpc::Value;

std::int64_t pidFrom(const std::optional<platform::xpc::Event>& event) { return numberUnder(event, "pid"); }
bool exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

/// Whether somebody listens on the socket at `path`, by the flags that /proc/net/unix shows (__SO_ACCEPTCON).
bool isListening(const std::string& path) {
  std::istringstream sockets(readFile("/proc/net/unix"));
  for (std::string line; std::getline(sockets, line);) {
    if (line.ends_with(" " + path)) return contains(line, " 00010000 ");
  }
  return false;
}

/// Waits for a child's end and returns its status as a shell tells it.
int reap(int pid) {
  int status = 0;
  const bool ended = eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 60s);
  if (!ended) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(Lifetime, InterruptsTheClientWhenTheServiceDiesAndStartsItAgainWithTheNextMessage) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client client(kTestService);
  const auto first = pidFrom(client.ask("pid"));
  const auto event = client.ask("die");
  EXPECT_EQ(errorKind(event), ConnectionError::Kind::Interrupted);
  EXPECT_TRUE(contains(errorText(event), "the next message starts it again")) << errorText(event);
  EXPECT_EQ(client.connection->pid(), 0);
  EXPECT_EQ(reap(static_cast<int>(first)), 128 + SIGKILL);
  EXPECT_TRUE(exists(environment.socketPath(kTestService))) << "a killed service leaves its socket";
  EXPECT_FALSE(runningService(kTestService).isAlive);
  const auto second = pidFrom(client.ask("pid"));
  EXPECT_NE(second, first);
  EXPECT_EQ(environment.startedServices(), (std::vector{static_cast<int>(first), static_cast<int>(second)}));
  EXPECT_EQ(client.connection->pid(), second);
}

TEST(Lifetime, InterruptsEveryTimeTheServiceDies) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client client(kTestService);
  for (int i = 0; i < 5; ++i) {
    const auto pid = static_cast<int>(pidFrom(client.ask("pid")));
    kill(pid, SIGKILL);
    EXPECT_EQ(errorKind(client.events.at(client.seen++)), ConnectionError::Kind::Interrupted);
    EXPECT_EQ(reap(pid), 128 + SIGKILL);
  }
  EXPECT_EQ(environment.startedServices().size(), 5U);
}

TEST(Lifetime, TellsPeersOfTheTerminationRemovesTheSocketAndEndsWithStatusZero) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client client(kTestService);
  const auto pid = static_cast<int>(pidFrom(client.ask("pid")));
  ASSERT_EQ(kill(pid, SIGTERM), 0);
  EXPECT_EQ(reap(pid), 0);
  EXPECT_EQ(errorKind(client.events.at(client.seen++)), ConnectionError::Kind::Interrupted);
  EXPECT_EQ(environment.countInRecord("termination imminent"), 1);
  EXPECT_FALSE(exists(environment.socketPath(kTestService)));
  EXPECT_FALSE(runningService(kTestService).isAlive);
  EXPECT_NE(pidFrom(client.ask("pid")), pid);
}

TEST(Lifetime, EndsAlsoWhenSomebodyKeepsTheLaunchLock) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client client(kTestService);
  const auto pid = static_cast<int>(pidFrom(client.ask("pid")));
  const auto folder = platform::xpc::ServiceFolder::open(false);
  ASSERT_TRUE(folder);
  const auto lock = platform::xpc::takeLaunchLock(*folder, kTestService, 60s);
  ASSERT_TRUE(lock);
  ASSERT_EQ(kill(pid, SIGTERM), 0);
  ASSERT_EQ(kill(pid, SIGINT), 0) << "told twice";
  EXPECT_EQ(reap(pid), 0);
  EXPECT_EQ(environment.countInRecord("termination imminent"), 1);
  EXPECT_TRUE(exists(environment.socketPath(kTestService))) << "nobody may remove it without the lock";
}

TEST(Lifetime, BeginsBeforeItServes) {
  EXPECT_THROW(platform::xpc::ServiceProcess::serve([](const auto&) {}), platform::Exception);
}

TEST(Lifetime, TellsTheServiceWhenAClientIsGone) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  auto client = std::make_unique<Client>(kTestService);
  ASSERT_NO_THROW(messageOf(client->ask("pid")));
  EXPECT_EQ(environment.countInRecord("invalid"), 0);
  client = nullptr;
  EXPECT_TRUE(environment.waitForRecord("invalid"));
}

TEST(Lifetime, InterruptsAClientThatTheServiceRefuses) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  environment.set("XPC_TEST_REFUSE", "1");
  Client client(kTestService);
  EXPECT_EQ(errorKind(client.ask("pid")), ConnectionError::Kind::Interrupted);
  EXPECT_EQ(environment.countInRecord("peer"), 1);
}

TEST(Lifetime, RemovesASocketThatAKilledServiceLeft) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  struct stat before {};
  {
    Client client(kTestService);
    ASSERT_EQ(errorKind(client.ask("die")), ConnectionError::Kind::Interrupted);
    ASSERT_EQ(stat(environment.socketPath(kTestService).c_str(), &before), 0);
  }
  Client client(kTestService);
  ASSERT_GT(pidFrom(client.ask("pid")), 0);
  struct stat after {};
  ASSERT_EQ(stat(environment.socketPath(kTestService).c_str(), &after), 0);
  EXPECT_FALSE(before.st_ino == after.st_ino && before.st_mtim.tv_nsec == after.st_mtim.tv_nsec);
}

TEST(Lifetime, NeverRemovesASocketThatItDidNotMake) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  makeFolder(environment.socketFolder());
  listenAt(environment.socketPath(kTestService));  // and closed again: nobody listens
  struct stat before {};
  ASSERT_EQ(stat(environment.socketPath(kTestService).c_str(), &before), 0);
  Client client(kTestService);
  const auto event = client.ask("pid");
  EXPECT_EQ(errorKind(event), ConnectionError::Kind::Invalid);
  EXPECT_TRUE(contains(errorText(event), "systemctl --user start Test.Service.socket")) << errorText(event);
  struct stat after {};
  ASSERT_EQ(stat(environment.socketPath(kTestService).c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_TRUE(environment.startedServices().empty());
}

/// Starts the test service as systemd does: with a listening socket as descriptor 3. The shell knows its own number, which a program that
/// forks with several threads could not put into the environment.
int startWithSocket(const FileHandle& listener, const char* variables = "LISTEN_FDS=1 LISTEN_PID=$$") {
  const std::string script = std::string(variables) + " exec " XPC_TEST_SERVICE;
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (listener.fileDescriptor() == 3) {
    fcntl(3, F_SETFD, 0);
  } else {
    dup2(listener.fileDescriptor(), 3);
  }
  execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
  _exit(127);
}

TEST(Lifetime, ServesASocketThatSystemdMadeAndLeavesItInPlace) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  makeFolder(environment.socketFolder());
  FileHandle listener = listenAt(environment.socketPath(kTestService));
  Client client(kTestService);
  client.connection->send(command("pid"));  // waits in the backlog, as it does while systemd starts the service
  const int pid = startWithSocket(listener);
  EXPECT_EQ(pidFrom(client.events.at(client.seen++)), pid);
  EXPECT_EQ(environment.startedServices(), std::vector{pid}) << "the client started none of its own";
  ASSERT_EQ(kill(pid, SIGTERM), 0);
  EXPECT_EQ(reap(pid), 0);
  EXPECT_TRUE(exists(environment.socketPath(kTestService)));
  EXPECT_EQ(errorKind(client.events.at(client.seen++)), ConnectionError::Kind::Interrupted);
  // The socket still listens, and the next message reaches the next process on it.
  client.connection->send(command("pid"));
  const int next = startWithSocket(listener);
  EXPECT_EQ(pidFrom(client.events.at(client.seen++)), next);
}

TEST(Lifetime, IsStartedBySystemdsOwnSocketActivation) {
  if (access("/usr/bin/systemd-socket-activate", X_OK) != 0) {
    GTEST_SKIP() << "left out: activation by systemd's own program, because systemd-socket-activate is not installed";
  }
  ServiceEnvironment environment;
  environment.install(kTestService);
  makeFolder(environment.socketFolder());
  std::vector<std::string> arguments{"/usr/bin/systemd-socket-activate", "--listen=" + environment.socketPath(kTestService)};
  for (const char* variable : {"XDG_RUNTIME_DIR", "XDG_STATE_HOME", "XDG_CONFIG_HOME", "HOME", "XPC_TEST_NAME", "XPC_TEST_RECORD"}) {
    arguments.push_back(std::string("--setenv=") + variable);
  }
  arguments.emplace_back(XPC_TEST_SERVICE);
  Process activator(arguments);
  // Not only bound: whoever calls before it listens finds a socket that nobody is behind.
  ASSERT_TRUE(eventually([&] { return isListening(environment.socketPath(kTestService)); }, 60s));
  EXPECT_TRUE(environment.startedServices().empty());
  Client client(kTestService);
  // It becomes the service when somebody connects.
  EXPECT_EQ(pidFrom(client.ask("pid")), activator.pid());
  activator.signal(SIGTERM);
  EXPECT_EQ(activator.wait(60s), 0);
  EXPECT_TRUE(exists(environment.socketPath(kTestService)));
}

TEST(Lifetime, IgnoresASocketThatWasMeantForAnotherProcess) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  makeFolder(environment.socketFolder());
  const FileHandle other = listenAt(environment / "other");
  const int pid = startWithSocket(other, "LISTEN_FDS=1 LISTEN_PID=1");
  EXPECT_TRUE(environment.waitForRecord("started " + std::to_string(pid)));
  EXPECT_TRUE(eventually([&] { return exists(environment.socketPath(kTestService)); }, 60s)) << "it makes a socket of its own";
  Client client(kTestService);
  EXPECT_EQ(pidFrom(client.ask("pid")), pid);
}

TEST(Lifetime, ServesWhenItIsStartedByHand) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Process byHand({XPC_TEST_SERVICE});
  ASSERT_TRUE(environment.waitForRecord("started " + std::to_string(byHand.pid())));
  ASSERT_TRUE(eventually([&] { return exists(environment.socketPath(kTestService)); }, 60s));
  Client client(kTestService);
  EXPECT_EQ(pidFrom(client.ask("pid")), byHand.pid());
  byHand.signal(SIGINT);
  EXPECT_EQ(byHand.wait(60s), 0);
  EXPECT_FALSE(exists(environment.socketPath(kTestService)));
}

TEST(Lifetime, EndsASecondProcessOfTheSameService) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client client(kTestService);
  const auto pid = pidFrom(client.ask("pid"));
  // WatcherLife.RunsOnlyOnce waits for as long as a service does.
  Process second({XPC_TEST_SERVICE}, {.environment = {{"XPC_TEST_FORMER_MILLISECONDS", "200"}}});
  EXPECT_EQ(second.wait(60s), 75);
  EXPECT_TRUE(contains(second.errorOutput(), "process " + std::to_string(pid) + " is the service Test.Service already"))
      << second.errorOutput();
  EXPECT_EQ(pidFrom(client.ask("pid")), pid);
}

TEST(Lifetime, WaitsForAServiceThatIsAboutToEnd) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client client(kTestService);
  const auto first = static_cast<int>(pidFrom(client.ask("pid")));
  // Alive, but without its socket, as a service is that was told to end.
  ASSERT_EQ(unlink(environment.socketPath(kTestService).c_str()), 0);
  Client late(kTestService);
  late.connection->send(command("pid"));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(late.events.count(), 0U);
  kill(first, SIGTERM);
  EXPECT_EQ(reap(first), 0);
  const auto second = pidFrom(late.events.at(0));
  EXPECT_NE(second, first);
  EXPECT_EQ(environment.startedServices().size(), 2U);
}

TEST(Lifetime, TellsWhichProcessIsInTheWayWhenItHasNoSocket) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client client(kTestService);
  const auto pid = pidFrom(client.ask("pid"));
  ASSERT_EQ(unlink(environment.socketPath(kTestService).c_str()), 0);
  const auto late = connectToService(kTestService, 200ms);
  ASSERT_FALSE(late);
  EXPECT_EQ(late.error().kind, LaunchError::Kind::WithoutSocket);
  EXPECT_TRUE(contains(late.error().reason, "(kill " + std::to_string(pid) + ")")) << late.error().reason;
}

TEST(Lifetime, KeepsServingWhenAHandlerThrowsAndWhenAPeerMisbehaves) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client client(kTestService);
  const auto pid = pidFrom(client.ask("pid"));
  client.connection->send(command("throw"));
  ASSERT_NO_THROW(messageOf(client.ask("throw on main loop")));
  const FileHandle hostile = connectTo(environment.socketPath(kTestService));
  ASSERT_TRUE(sendBytes(hostile, "garbage garbage"));
  EXPECT_TRUE(isClosed(hostile));
  EXPECT_EQ(pidFrom(client.ask("pid")), pid);
}

TEST(Lifetime, LeaksNoDescriptorsInTheService) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client client(kTestService);
  const auto count = [&client] { return messageOf(client.ask("descriptors")).find("count")->int64Value(); };
  const auto before = count();
  for (int i = 0; i < 200; ++i) {
    Client visitor(kTestService);
    const Value handle = Value::fileDescriptor(STDIN_FILENO);
    ASSERT_NO_THROW(
        messageOf(visitor.ask(Value::dictionary({{"command", Value::string("echo")}, {"files", Value::array({handle, handle})}}))));
  }
  EXPECT_TRUE(eventually([&] { return count() <= before; }, 60s)) << count() << " and before " << before;
}

}  // namespace
