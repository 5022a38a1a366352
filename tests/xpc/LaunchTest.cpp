#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>

#include "platform/xpc/launch/ServiceLauncher.h"
#include "tests/support/Eventually.h"
#include "tests/support/Process.h"
#include "tests/xpc/RawSocket.h"
#include "tests/xpc/ServiceEnvironment.h"

namespace {

using namespace kestrine::test;
using platform::xpc::ConnectionError;
using platform::xpc::Value;

TEST(Launch, StartsTheServiceWithTheFirstMessageAndOnlyOnce) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client first(kTestService);
  const auto pid = numberUnder(first.ask("pid"), "pid");
  EXPECT_EQ(numberUnder(first.ask("pid"), "pid"), pid);
  Client second(kTestService);
  EXPECT_EQ(numberUnder(second.ask("pid"), "pid"), pid);
  EXPECT_EQ(environment.startedServices(), std::vector<int>{static_cast<int>(pid)});
  const auto running = platform::xpc::runningService(kTestService);
  EXPECT_TRUE(running.isAlive);
  EXPECT_EQ(running.processIdentifier, pid);
}

TEST(Launch, StartsNothingForAConnectionThatSendsNothing) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  const Client client(kTestService);
  Client later(kTestService);
  EXPECT_NO_THROW(messageOf(later.ask("pid")));
  EXPECT_EQ(environment.countInRecord("peer"), 1);
  EXPECT_EQ(client.events.count(), 0U);
}

TEST(Launch, TellsEachEndWhoTheOtherIs) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client client(kTestService);
  EXPECT_EQ(client.connection->pid(), 0);
  EXPECT_EQ(client.connection->name(), kTestService);
  const Value peer = messageOf(client.ask("peer"));
  EXPECT_EQ(peer.find("pid")->int64Value(), getpid());
  EXPECT_EQ(peer.find("euid")->int64Value(), geteuid());
  EXPECT_EQ(peer.find("egid")->int64Value(), getegid());
  // The socket was made by this process and handed over; the number is the service's all the same.
  EXPECT_EQ(client.connection->pid(), environment.startedServices().at(0));
  EXPECT_EQ(client.connection->euid(), geteuid());
  EXPECT_EQ(client.connection->egid(), getegid());
}

TEST(Launch, GivesTheServiceACleanProcess) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  // What an application may have lying around: open files, ignored and blocked signals.
  const platform::FileHandle stray(open("/dev/zero", O_RDONLY));
  std::signal(SIGUSR1, SIG_IGN);
  sigset_t blocked;
  sigset_t former;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &blocked, &former);
  Client client(kTestService);
  const auto answer = client.ask("describe");
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
  std::signal(SIGUSR1, SIG_DFL);

  const std::string text = textUnder(answer, "text");
  for (const char* line : {"cwd=/\n", "session=own\n", "0=/dev/null\n", "1=/dev/null\n", "2=/dev/null\n", "LISTEN_FDS=\n", "LISTEN_PID=\n",
                           "XPC_LOG_FILE=\n", "XPC_TEST_NAME=Test.Service\n"}) {
    EXPECT_TRUE(contains(text, line)) << line << " is not in\n" << text;
  }
  const auto mask = [&text](const std::string& name) { return std::stoull(text.substr(text.find(name) + name.size()), nullptr, 16); };
  const auto bit = [](int number) { return 1ULL << (number - 1); };
  EXPECT_EQ(mask("SigIgn:") & bit(SIGUSR1), 0U);
  EXPECT_EQ(mask("SigIgn:"), bit(SIGPIPE) | bit(SIGXFSZ)) << "set by the service itself";
  EXPECT_EQ(mask("SigBlk:") & bit(SIGUSR2), 0U);
  const std::string files = textUnder(answer, "files");
  EXPECT_TRUE(files.starts_with("0=/dev/null\n1=/dev/null\n2=/dev/null\n3=socket:")) << files;
  EXPECT_EQ(std::count(files.begin(), files.end(), '\n'), 4) << files;
}

TEST(Launch, KeepsItsFilesFromOthers) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client client(kTestService);
  ASSERT_NO_THROW(messageOf(client.ask("pid")));
  struct stat folder {};
  struct stat socket {};
  ASSERT_EQ(stat(environment.socketFolder().c_str(), &folder), 0);
  ASSERT_EQ(stat(environment.socketPath(kTestService).c_str(), &socket), 0);
  EXPECT_EQ(folder.st_mode & 07777U, 0700U);
  EXPECT_TRUE(S_ISSOCK(socket.st_mode));
  EXPECT_EQ(socket.st_mode & 07777U, 0600U);
}

TEST(Launch, ChangesNoModeOfAFolderThatItDidNotMake) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  makeFolder(environment.socketFolder());
  struct Row {
    mode_t mode;
    bool isServed;
  };
  for (const auto& [mode, isServed] : {Row{0777, false}, Row{01777, false}, Row{0757, false}, Row{0755, true}}) {
    ASSERT_EQ(chmod(environment.socketFolder().c_str(), mode), 0);
    Client client(kTestService);
    const auto event = client.ask("pid");
    EXPECT_EQ(errorKind(event) == std::nullopt, isServed) << std::oct << mode << ": " << errorText(event);
    if (!isServed) {
      EXPECT_TRUE(contains(errorText(event), "can write to it (mode ")) << errorText(event);
    }
    struct stat folder {};
    ASSERT_EQ(stat(environment.socketFolder().c_str(), &folder), 0);
    EXPECT_EQ(folder.st_mode & 07777U, mode);
    if (!isServed) {
      EXPECT_TRUE(std::filesystem::is_empty(environment.socketFolder())) << "something was made in it";
    }
  }
}

TEST(Launch, LogsToAFileInTheStateFolder) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  Client client(kTestService);
  ASSERT_NO_THROW(messageOf(client.ask("log")));
  EXPECT_TRUE(eventually([&] {
    return access(environment.logPath(kTestService).c_str(), R_OK) == 0 &&
           contains(readFile(environment.logPath(kTestService)), "a line for the log");
  }));
  EXPECT_TRUE(contains(readFile(environment.logPath(kTestService)), "Test.Service["));
}

TEST(Launch, OfTwentyClientsAtOnceStartsOneProcess) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  std::vector<std::unique_ptr<Process>> clients;
  clients.reserve(20);
  for (int i = 0; i < 20; ++i) clients.push_back(std::make_unique<Process>(std::vector<std::string>{XPC_TEST_CLIENT, kTestService}));
  std::set<std::string> answers;
  for (const auto& client : clients) {
    EXPECT_EQ(client->wait(std::chrono::seconds(60)), 0) << client->errorOutput();
    answers.insert(client->output());
  }
  ASSERT_EQ(environment.startedServices().size(), 1U);
  EXPECT_EQ(answers, std::set<std::string>{"pid " + std::to_string(environment.startedServices()[0]) + "\n"});
}

TEST(Launch, TellsThatANameIsUnknownAndWhereItLooked) {
  ServiceEnvironment environment;
  Client client("No.Such.Service");
  const auto event = client.events.at(0);
  EXPECT_EQ(errorKind(event), ConnectionError::Kind::Invalid);
  EXPECT_TRUE(
      contains(errorText(event), "there is no service No.Such.Service: no xpc-services/No.Such.Service.plist in " + (environment / "data")))
      << errorText(event);
  EXPECT_TRUE(contains(errorText(event), "install the service")) << errorText(event);
  client.connection->send(command("dropped"));
  EXPECT_EQ(client.events.count(), 1U);
  EXPECT_NE(access((environment / "run/xpc").c_str(), F_OK), 0) << "nothing was made for it";
}

TEST(Launch, TellsWhyAServiceCannotBeStarted) {
  const std::vector<std::tuple<std::string, std::string, std::string>> table{
      {"a program that is not there", "/nowhere/service", "the program /nowhere/service, named by "},
      {"a program that is a folder", "/tmp", "the program /tmp, named by "},
      {"a program that cannot be executed", "/etc/passwd", "the program /etc/passwd, named by "},
      {"a relative program", "service", "does not name its Program by an absolute path"},
      {"no program", "", "is no property list that names a Program"},
  };
  for (const auto& [name, program, reason] : table) {
    ServiceEnvironment environment;
    environment.install(kTestService, program);
    Client client(kTestService);
    const auto event = client.ask("pid");
    EXPECT_EQ(errorKind(event), ConnectionError::Kind::Invalid) << name;
    EXPECT_TRUE(contains(errorText(event), reason)) << name << ": " << errorText(event);
    EXPECT_TRUE(contains(errorText(event), "install the service again")) << name << ": " << errorText(event);
    EXPECT_NE(access(environment.socketPath(kTestService).c_str(), F_OK), 0) << name << ": a socket was left";
  }
}

TEST(Launch, TellsAboutADescriptionThatIsNone) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  const std::string file = environment / "data/xpc-services/Test.Service.plist";
  std::string nested = "<plist><array>";
  for (int i = 0; i < 1000; ++i) nested += "<array>";
  for (const std::string& content : {std::string(), std::string("no property list"), nested, std::string(100'000, 'x')}) {
    writeFile(file, content);
    Client client(kTestService);
    const auto event = client.ask("pid");
    EXPECT_EQ(errorKind(event), ConnectionError::Kind::Invalid);
    EXPECT_TRUE(contains(errorText(event), "the service description " + file)) << errorText(event);
  }
}

TEST(Launch, RefusesNamesThatAreNoFileNames) {
  ServiceEnvironment environment;
  for (const std::string& name :
       {std::string(), std::string("a/b"), std::string(".."), std::string(".hidden"), std::string("a\0b", 3), std::string(201, 'x')}) {
    const Client client(name);
    const auto event = client.events.at(0);
    EXPECT_EQ(errorKind(event), ConnectionError::Kind::Invalid) << name;
    EXPECT_TRUE(contains(errorText(event), "cannot be a service's name")) << errorText(event);
  }
}

TEST(Launch, ServesNamesBeyondTheLimitOfSocketAddresses) {
  ServiceEnvironment environment;
  const std::string name(200, 'n');
  environment.install(name);
  Client client(name);
  const auto pid = numberUnder(client.ask("pid"), "pid");
  EXPECT_EQ(pid, environment.startedServices().at(0));
  EXPECT_EQ(access(environment.socketPath(name).c_str(), F_OK), 0);
}

TEST(Launch, ServesFoldersBeyondTheLimitOfSocketAddresses) {
  ServiceEnvironment environment;
  const std::string folder = environment / ("run/" + std::string(150, 'd'));
  makeFolder(folder);
  environment.set("XDG_RUNTIME_DIR", folder);
  environment.install(kTestService);
  Client client(kTestService);
  const auto pid = numberUnder(client.ask("pid"), "pid");
  EXPECT_EQ(pid, environment.startedServices().at(0));
  EXPECT_EQ(access((folder + "/xpc/Test.Service").c_str(), F_OK), 0);
}

TEST(Launch, UsesTheStateFolderWithoutARuntimeFolder) {
  if (struct stat status{}; stat(("/run/user/" + std::to_string(geteuid())).c_str(), &status) == 0 && status.st_uid == geteuid()) {
    GTEST_SKIP() << "left out: the socket in the state folder, because this user has a runtime folder that would be used in its place";
  }
  ServiceEnvironment environment;
  environment.set("XDG_RUNTIME_DIR", "");
  environment.install(kTestService);
  Client client(kTestService);
  ASSERT_NO_THROW(messageOf(client.ask("pid")));
  std::array<char, 256> host{};
  ASSERT_EQ(gethostname(host.data(), host.size() - 1), 0);
  EXPECT_EQ(access((environment / ("state/xpc-" + std::string(host.data()) + "/" + kTestService)).c_str(), F_OK), 0);
}

TEST(Launch, RefusesARelativeRuntimeFolder) {
  ServiceEnvironment environment;
  environment.set("XDG_RUNTIME_DIR", "run");
  environment.install(kTestService);
  Client client(kTestService);
  const auto event = client.ask("pid");
  EXPECT_EQ(errorKind(event), ConnectionError::Kind::Invalid);
  EXPECT_TRUE(contains(errorText(event), "XDG_RUNTIME_DIR is a relative path; let XDG_RUNTIME_DIR be a folder")) << errorText(event);
}

TEST(Launch, TellsThatTheFolderOfSocketsCannotBeUsed) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  writeFile(environment / "run/xpc", "a file in its place");
  Client client(kTestService);
  const auto event = client.ask("pid");
  EXPECT_EQ(errorKind(event), ConnectionError::Kind::Invalid);
  EXPECT_TRUE(contains(errorText(event), "the folder of service sockets, " + (environment / "run/xpc") + ", cannot be used"))
      << errorText(event);
}

TEST(Launch, TellsEveryErrorsKind) {
  using Kind = platform::xpc::LaunchError::Kind;
  struct Case {
    Kind kind;
    std::function<void(ServiceEnvironment&)> prepare;
    std::string name = kTestService;
  };
  const auto install = [](const std::string& program) {
    return [program](ServiceEnvironment& environment) { environment.install(kTestService, program); };
  };
  const auto leaveSocket = [](ServiceEnvironment& environment) {
    environment.install(kTestService);
    makeFolder(environment.socketFolder());
    listenAt(environment.socketPath(kTestService));  // and closed again: nobody listens
  };
  const auto spoilFolder = [](ServiceEnvironment& environment) { writeFile(environment.socketFolder(), "a file in its place"); };
  const std::vector<Case> table{{Kind::IllegalName, install(XPC_TEST_SERVICE), "a/b"},
                                {Kind::NotInstalled, install(XPC_TEST_SERVICE), "No.Such.Service"},
                                {Kind::BadInstallation, install("/nowhere/service")},
                                {Kind::BadInstallation, install("service")},
                                {Kind::BadInstallation, install("")},
                                {Kind::ForeignSocket, leaveSocket},
                                {Kind::NoFolder, spoilFolder}};
  for (const Case& entry : table) {
    ServiceEnvironment environment;
    entry.prepare(environment);
    const auto connected = platform::xpc::connectToService(entry.name);
    ASSERT_FALSE(connected);
    EXPECT_EQ(connected.error().kind, entry.kind) << connected.error().reason;
  }
}

TEST(Launch, TellsThatNobodyIsTheServiceWithoutStartingIt) {
  using Kind = platform::xpc::LaunchError::Kind;
  ServiceEnvironment environment;
  environment.install(kTestService);
  EXPECT_EQ(platform::xpc::connectToRunningService(kTestService).error().kind, Kind::NoFolder) << "nobody has made it";
  makeFolder(environment.socketFolder());
  EXPECT_EQ(platform::xpc::connectToRunningService(kTestService).error(),
            (platform::xpc::LaunchError{"the service Test.Service does not run", Kind::NotRunning}));
  Client client(kTestService);
  ASSERT_NO_THROW(messageOf(client.ask("pid")));
  EXPECT_TRUE(platform::xpc::connectToRunningService(kTestService));
  ASSERT_EQ(unlink(environment.socketPath(kTestService).c_str()), 0);
  EXPECT_EQ(platform::xpc::connectToRunningService(kTestService).error().kind, Kind::NobodyListens);
  EXPECT_EQ(environment.startedServices().size(), 1U);
}

TEST(Launch, LooksForDescriptionsInTheSharedFoldersToo) {
  ServiceEnvironment environment;
  environment.install(kTestService);
  const std::string other = environment / "other";
  makeFolder(other);
  makeFolder(other + "/xpc-services");
  ASSERT_EQ(rename((environment / "data/xpc-services/Test.Service.plist").c_str(), (other + "/xpc-services/Test.Service.plist").c_str()),
            0);
  environment.set("XDG_DATA_DIRS", "relative:/nowhere::" + other);
  Client client(kTestService);
  const auto pid = numberUnder(client.ask("pid"), "pid");
  EXPECT_EQ(pid, environment.startedServices().at(0));
}

}  // namespace
