// What takes two processes: a service that is started, dies, is told to end; clients that go; who is at the other end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <sstream>

#include "platform/foundation/value/Dictionary.h"
#include "platform/xpc/connection/Listener.h"
#include "tests/support/Process.h"
#include "tests/xpc/RawSocket.h"
#include "tests/xpctoolkit/ConnectionPair.h"

namespace kestrine::test {
namespace {

using namespace std::chrono_literals;
using platform::Dictionary;
using platform::FileHandle;
using platform::Object;
using platform::xpc::ConnectionError;

constexpr const char* kName = "Test.Service";

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

/// A client's end with all that its handlers were called with.
class ToolkitClient {
 public:
  explicit ToolkitClient(const std::string& name) : connection_(XPCConnection::initWithServiceName(name)) { log_.installIn(*connection_); }

  void tell(const std::string& command) { connection_->sendMessage(Dictionary{{"command", command}}); }
  Object ask(const std::string& command) {
    tell(command);
    return log_.message(answers_++).object;
  }
  pid_t servicePid() { return static_cast<pid_t>(ask("pid").objectForKey("pid").longLongValue()); }
  [[nodiscard]] const HandlerLog& log() const { return log_; }
  XPCConnection& connection() { return *connection_; }

 private:
  HandlerLog log_;
  std::shared_ptr<XPCConnection> connection_;
  std::size_t answers_ = 0;
};

TEST(ToolkitProcesses, StartAServiceWithTheFirstMessageAndTalk) {
  ServiceEnvironment environment;
  environment.install(kName);
  ToolkitClient client(kName);
  const pid_t pid = client.servicePid();
  EXPECT_EQ(environment.startedServices(), std::vector<int>{pid});
  const Object echo = client.ask("echo");
  EXPECT_EQ(echo, Object(Dictionary{{"command", "echo"}}));
}

TEST(ToolkitProcesses, InterruptTheClientWhenTheServiceCrashesAndStartItAgainWithTheNextMessage) {
  ServiceEnvironment environment;
  environment.install(kName);
  ToolkitClient client(kName);
  const pid_t first = client.servicePid();
  client.tell("die");
  const auto error = client.log().error(0);
  EXPECT_EQ(error.object.kind, ConnectionError::Kind::Interrupted);
  EXPECT_TRUE(contains(error.description, "the next message starts it again")) << error.description;
  const pid_t second = client.servicePid();
  EXPECT_NE(second, first);
  EXPECT_EQ(environment.startedServices(), (std::vector<int>{first, second}));
  EXPECT_EQ(client.log().errorCount(), 1U);
}

TEST(ToolkitProcesses, AreInvalidForAnUnknownName) {
  const ServiceEnvironment environment;
  // Suspended once more than it is resumed by itself, so that the news finds its handler set.
  const auto unknown = platform::xpc::Connection::create("No.Such.Service");
  unknown->suspend();
  const auto connection = XPCConnection::initWithConnection(unknown);
  const HandlerLog log;
  log.installIn(*connection);
  connection->resume();
  const auto error = log.error(0);
  EXPECT_EQ(error.object.kind, ConnectionError::Kind::Invalid);
  EXPECT_TRUE(contains(error.description, "there is no service No.Such.Service")) << error.description;
  connection->sendMessage("dropped");
  connection->dispatchQueue()->sync([] {});
  EXPECT_EQ(log.errorCount(), 1U);
}

TEST(ToolkitProcesses, TellTheServiceThatItsClientIsGone) {
  ServiceEnvironment environment;
  environment.install(kName);
  {
    ToolkitClient client(kName);
    static_cast<void>(client.servicePid());
    EXPECT_EQ(environment.countInRecord("invalid"), 0);
  }
  EXPECT_TRUE(environment.waitForRecord("invalid"));
}

TEST(ToolkitProcesses, TellTheServiceThatItsEndIsImminentBeforeItEnds) {
  ServiceEnvironment environment;
  environment.install(kName);
  ToolkitClient client(kName);
  const pid_t pid = client.servicePid();
  ASSERT_EQ(kill(pid, SIGTERM), 0);
  // It writes the record itself, so it was told while it lived.
  EXPECT_TRUE(environment.waitForRecord("termination imminent"));
  EXPECT_TRUE(environment.waitForRecord("description Termination imminent: the service was told to end"));
  EXPECT_EQ(client.log().error(0).object.kind, ConnectionError::Kind::Interrupted);
  EXPECT_EQ(environment.countInRecord("termination imminent"), 1);
}

TEST(ToolkitProcesses, TellEachEndWhoTheOtherIs) {
  ServiceEnvironment environment;
  environment.install(kName);
  ToolkitClient client(kName);
  const Object peer = client.ask("peer");
  EXPECT_EQ(peer.objectForKey("name"), Object("none")) << "a peer's connection has no name";
  EXPECT_EQ(peer.objectForKey("pid").longLongValue(), getpid());
  EXPECT_EQ(peer.objectForKey("euid").longLongValue(), geteuid());
  EXPECT_EQ(peer.objectForKey("egid").longLongValue(), getegid());
  EXPECT_EQ(peer.objectForKey("asid").longLongValue(), std::stoll(readFile("/proc/self/sessionid")));
  EXPECT_EQ(client.connection().connectionName(), kName);
  EXPECT_EQ(client.connection().connectionProcessID().longLongValue(), environment.startedServices().at(0));
  EXPECT_EQ(client.connection().connectionEUID().longLongValue(), geteuid());
  EXPECT_EQ(client.connection().connectionEGID().longLongValue(), getegid());
}

TEST(ToolkitProcesses, PassDescriptorsAndLeakNone) {
  ServiceEnvironment environment;
  environment.install(kName);
  ToolkitClient client(kName);
  const auto count = [&] { return client.ask("descriptors").objectForKey("count").longLongValue(); };
  const auto before = count();
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const FileHandle reading(ends[0]);
  auto writing = std::make_shared<FileHandle>(ends[1]);
  client.connection().sendMessage(Dictionary{{"command", "write"}, {"handle", std::shared_ptr<const FileHandle>(writing)}});
  std::array<char, 64> bytes{};
  const ssize_t size = read(reading.fileDescriptor(), bytes.data(), bytes.size());
  EXPECT_EQ(std::string(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))), "written by the service");
  // The queue has read the handle, which its memory model does not learn from a pipe.
  client.connection().dispatchQueue()->sync([] {});
  writing->closeFile();
  EXPECT_EQ(read(reading.fileDescriptor(), bytes.data(), bytes.size()), 0) << "somebody still has the end that was passed";
  EXPECT_EQ(count(), before);
}

/// Says who a peer is that was wrapped in this process.
class Host {
 public:
  explicit Host(const std::string& path) {
    listener_ = platform::xpc::Listener::create(listenAt(path), [this](const std::shared_ptr<platform::xpc::Connection>& peer) {
      connection = XPCConnection::initWithConnection(peer);
      log.installIn(*connection);
    });
    listener_->resume();
  }
  HandlerLog log;
  std::shared_ptr<XPCConnection> connection;

 private:
  std::shared_ptr<platform::xpc::Listener> listener_;
};

TEST(ToolkitProcesses, AreToldApartByTheirUser) {
  if (geteuid() != 0) GTEST_SKIP() << "left out: a peer of another user, because only root can make one";
  const std::vector<std::string> asNobody = {"setpriv", "--reuid", "65534", "--regid", "65533", "--clear-groups"};
  std::vector<std::string> probe = asNobody;
  probe.insert(probe.end(), {"test", "-x", XPC_TEST_PEER});
  if (runToEnd(probe).status != 0) GTEST_SKIP() << "left out: a peer of another user, because that user may not run this build";
  const TemporaryDirectory folder;
  ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
  Host host(folder / "socket");
  ASSERT_EQ(chmod((folder / "socket").c_str(), 0666), 0);
  std::vector<std::string> command = asNobody;
  command.insert(command.end(), {XPC_TEST_PEER, folder / "socket"});
  Process peer(command);
  EXPECT_EQ(host.log.message(0).object, Object(Dictionary{{"command", "hello"}}));
  ASSERT_TRUE(peer.waitForOutput("\n"));
  std::istringstream said(peer.output());
  long euid = 0;
  long egid = 0;
  long pid = 0;
  long asid = 0;
  said >> euid >> egid >> pid >> asid;
  EXPECT_EQ(euid, 65534);
  EXPECT_EQ(egid, 65533);
  EXPECT_EQ(pid, peer.pid());
  EXPECT_EQ(host.connection->connectionEUID().longLongValue(), euid);
  EXPECT_EQ(host.connection->connectionEGID().longLongValue(), egid);
  EXPECT_EQ(host.connection->connectionProcessID().longLongValue(), pid);
  EXPECT_EQ(host.connection->connectionAuditSessionID().longLongValue(), asid);
  host.connection->connection()->cancel();
  EXPECT_EQ(peer.wait(), 0);
}

}  // namespace
}  // namespace kestrine::test
