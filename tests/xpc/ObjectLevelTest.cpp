#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/Exception.h"
#include "platform/xpc/connection/Listener.h"
#include "platform/xpc/connection/XPCConnection.h"
#include "platform/xpc/service/XPCListener.h"
#include "tests/support/Eventually.h"
#include "tests/xpc/InProcessService.h"
#include "tests/xpc/ServiceEnvironment.h"

namespace {

using namespace kestrine::test;
using namespace std::chrono_literals;
using platform::Exception;
using platform::FileHandle;
using platform::RunLoop;
using platform::RunLoopSource;
using platform::XPCConnection;
using platform::XPCInterface;
using platform::xpc::Connection;
using platform::xpc::Listener;

struct Operations {
  virtual ~Operations() = default;
  virtual void first() = 0;
  virtual void second() = 0;
  virtual void fail() = 0;
};

XPCInterface interfaceOfOperations() {
  return XPCInterface::interfaceWithProtocol<Operations>(
      "Operations", {{"first", &Operations::first}, {"second", &Operations::second}, {"fail", &Operations::fail}});
}

/// Does what the test says.
struct Exported : Operations {
  void first() override { onFirst(); }
  void second() override { onSecond(); }
  void fail() override { throw std::runtime_error("as asked"); }
  std::function<void()> onFirst = [] {};
  std::function<void()> onSecond = [] {};
};

/// A listener in this process that exports one object.
class ObjectService {
 public:
  explicit ObjectService(std::shared_ptr<Exported> object) {
    listener_ = Listener::create(listenAt(folder_ / "socket"), [this, object](const std::shared_ptr<Connection>& peer) {
      const auto connection = XPCConnection::connectionWithPeer(peer);
      connection->setExportedInterface(interfaceOfOperations());
      connection->setExportedObject<Operations>(object);
      connection->setInvalidationHandler([this] { invalid_.set_value(); });
      connection->resume();
    });
    listener_->resume();
  }
  [[nodiscard]] FileHandle connect() const { return connectTo(folder_ / "socket"); }
  /// Waits until the client's connection is over.
  bool waitUntilInvalid() { return invalid_.get_future().wait_for(60s) == std::future_status::ready; }

 private:
  TemporaryDirectory folder_;
  std::promise<void> invalid_;
  std::shared_ptr<Listener> listener_;
};

std::string call(const std::string& selector, const std::string& interface = "Operations") {
  return frame(kMessage, encodedDictionary({{"interface", interface}, {"selector", selector}}));
}

TEST(ObjectLevel, CallsTheExportedObject) {
  std::promise<void> called;
  const auto object = std::make_shared<Exported>();
  object->onFirst = [&] { called.set_value(); };
  ObjectService service(object);
  FileHandle client = service.connect();
  ASSERT_TRUE(sendBytes(client, call("first")));
  EXPECT_EQ(called.get_future().wait_for(60s), std::future_status::ready);
  client.closeFile();
  EXPECT_TRUE(service.waitUntilInvalid());
}

TEST(ObjectLevel, TellsWhoIsAtTheOtherEnd) {
  TemporaryDirectory folder;
  std::promise<void> called;
  std::shared_ptr<XPCConnection> connection;
  const auto object = std::make_shared<Exported>();
  object->onFirst = [&called] { called.set_value(); };
  const auto listener = Listener::create(listenAt(folder / "socket"), [&](const std::shared_ptr<Connection>& peer) {
    connection = XPCConnection::connectionWithPeer(peer);
    connection->setExportedInterface(interfaceOfOperations());
    connection->setExportedObject<Operations>(object);
    connection->resume();
  });
  listener->resume();
  const FileHandle client = connectTo(folder / "socket");
  ASSERT_TRUE(sendBytes(client, call("first")));
  ASSERT_EQ(called.get_future().wait_for(60s), std::future_status::ready);
  EXPECT_EQ(connection->processIdentifier(), getpid());
  EXPECT_EQ(connection->effectiveUserIdentifier(), geteuid());
  EXPECT_EQ(connection->effectiveGroupIdentifier(), getegid());
  EXPECT_EQ(connection->auditSessionIdentifier(), ownAuditSession());
  EXPECT_EQ(connection->serviceName(), std::nullopt);
}

TEST(ObjectLevel, IgnoresWhatIsNotExportedAndContainsExceptions) {
  std::promise<void> called;
  const auto object = std::make_shared<Exported>();
  object->onFirst = [&] { called.set_value(); };
  ObjectService service(object);
  FileHandle client = service.connect();
  ASSERT_TRUE(sendBytes(client, call("third") + call("first", "Others") + frame(kMessage, encodedDictionary({})) +
                                    frame(kMessage, encodedDictionary({{"selector", "first"}})) + call("fail") + call("first")));
  EXPECT_EQ(called.get_future().wait_for(60s), std::future_status::ready);
  client.closeFile();
  EXPECT_TRUE(service.waitUntilInvalid());
}

TEST(ObjectLevel, StartsTheNextCallWhenTheFormerOneReturned) {
  std::mutex mutex;
  std::vector<std::string> order;
  std::promise<void> done;
  const auto note = [&](const std::string& what) {
    const std::lock_guard lock(mutex);
    order.push_back(what);
  };
  const auto object = std::make_shared<Exported>();
  object->onFirst = [&] {
    note("begin");
    std::this_thread::sleep_for(50ms);  // time in which a call that starts too early would
    note("end");
  };
  object->onSecond = [&] { done.set_value(); };
  ObjectService service(object);
  FileHandle client = service.connect();
  ASSERT_TRUE(sendBytes(client, call("first") + call("first") + call("second")));
  ASSERT_EQ(done.get_future().wait_for(60s), std::future_status::ready);
  EXPECT_EQ(order, (std::vector<std::string>{"begin", "end", "begin", "end"}));
  client.closeFile();
  EXPECT_TRUE(service.waitUntilInvalid());
}

TEST(ObjectLevel, StartsTheNextCallWhenTheFormerOneIsInsideItsRunLoop) {
  std::shared_ptr<RunLoop> loop;
  const auto anchor = RunLoopSource::create([] {});
  std::promise<void> returned;
  const auto object = std::make_shared<Exported>();
  object->onFirst = [&] {
    loop = RunLoop::current();
    loop->add(anchor);
    loop->run();
    returned.set_value();
  };
  // The first call is inside its loop, so the second may end that; it is what a second call to watch does to the first.
  object->onSecond = [&] {
    EXPECT_TRUE(loop->isRunning());
    EXPECT_FALSE(loop->isCurrent());
    anchor->invalidate();
  };
  ObjectService service(object);
  FileHandle client = service.connect();
  ASSERT_TRUE(sendBytes(client, call("first") + call("second")));
  EXPECT_EQ(returned.get_future().wait_for(60s), std::future_status::ready);
  client.closeFile();
  EXPECT_TRUE(service.waitUntilInvalid());
}

TEST(ObjectLevel, LetsARunningCallAndItsObjectOutliveTheConnection) {
  const auto anchor = RunLoopSource::create([] {});
  std::promise<void> running;
  std::promise<void> returned;
  auto object = std::make_shared<Exported>();
  object->onFirst = [&] {
    RunLoop::current()->add(anchor);
    running.set_value();
    RunLoop::current()->run();
    returned.set_value();
  };
  const std::weak_ptr<Exported> weak = object;
  std::optional<ObjectService> service(std::move(object));
  FileHandle client = service->connect();
  ASSERT_TRUE(sendBytes(client, call("first")));
  ASSERT_EQ(running.get_future().wait_for(60s), std::future_status::ready);
  client.closeFile();
  ASSERT_TRUE(service->waitUntilInvalid());
  service.reset();
  EXPECT_FALSE(weak.expired());
  auto end = returned.get_future();
  EXPECT_EQ(end.wait_for(0s), std::future_status::timeout);
  anchor->invalidate();
  EXPECT_EQ(end.wait_for(60s), std::future_status::ready);
  EXPECT_TRUE(eventually([&] { return weak.expired(); }));
}

TEST(ObjectLevel, RefusesACallThatTheRemoteInterfaceDoesNotHave) {
  const auto connection = XPCConnection::connectionWithServiceName("No.Such.Service");
  EXPECT_THROW(connection->callRemote("first"), Exception);
  connection->setRemoteObjectInterface(interfaceOfOperations());
  EXPECT_THROW(connection->callRemote("third"), Exception);
  EXPECT_NO_THROW(connection->callRemote("first"));
  EXPECT_EQ(connection->serviceName(), "No.Such.Service");
}

TEST(ObjectLevel, KnowsTheExportedObjectByItsProtocol) {
  const auto connection = XPCConnection::connectionWithServiceName("No.Such.Service");
  EXPECT_EQ(connection->exportedObject(), nullptr);
  const auto object = std::make_shared<Exported>();
  connection->setExportedObject<Operations>(object);
  EXPECT_EQ(connection->exportedObject(), object);
  EXPECT_EQ(connection->exportedObjectAs<Operations>(), object);
  EXPECT_EQ(connection->exportedObjectAs<std::string>(), nullptr);
}

TEST(ObjectLevel, TellsTheInvalidationOnceAndReleasesTheHandlers) {
  const auto connection = XPCConnection::connectionWithServiceName("No.Such.Service");
  const auto token = std::make_shared<std::promise<void>>();
  connection->setInvalidationHandler([token] { token->set_value(); });
  connection->setInterruptionHandler([token] {});
  connection->resume();
  connection->invalidate();
  EXPECT_EQ(token->get_future().wait_for(60s), std::future_status::ready);
  EXPECT_TRUE(eventually([&] { return token.use_count() == 1; }));
  EXPECT_NE(connection->lastErrorDescription(), "");
}

/// The application's end of a service in a process of its own.
struct Application {
  Application() : connection(XPCConnection::connectionWithServiceName("Test.Service")) {
    connection->setRemoteObjectInterface(XPCInterface::interfaceWithProtocol<Operations>(
        "Operations", {{"note", &Operations::first}, {"watch", &Operations::second}, {"fail", &Operations::fail}}));
    connection->setInterruptionHandler([this] { ++interruptions; });
    connection->setInvalidationHandler([this] { ++invalidations; });
    connection->resume();
  }
  ~Application() {
    connection->invalidate();
    eventually([this] { return invalidations > 0; });
  }
  std::atomic<int> interruptions{0};
  std::atomic<int> invalidations{0};
  std::shared_ptr<XPCConnection> connection;
};

TEST(ObjectLevel, StartsTheServiceWithACallAndAgainAfterAnInterruption) {
  ServiceEnvironment environment;
  environment.install("Test.Service");
  environment.set("XPC_TEST_OBJECTS", "1");
  Application application;
  application.connection->callRemote("note");
  ASSERT_TRUE(environment.waitForRecord("note"));
  EXPECT_EQ(environment.countInRecord("peer"), 1);
  kill(environment.startedServices().at(0), SIGKILL);
  ASSERT_TRUE(eventually([&] { return application.interruptions == 1; }, 60s));
  application.connection->callRemote("note");
  ASSERT_TRUE(environment.waitForRecord("note", 2));
  EXPECT_EQ(environment.startedServices().size(), 2U);
  EXPECT_EQ(application.invalidations, 0);
}

TEST(ObjectLevel, LetsAWatchOutliveTheApplicationsConnection) {
  ServiceEnvironment environment;
  environment.install("Test.Service");
  environment.set("XPC_TEST_OBJECTS", "1");
  {
    Application application;
    application.connection->callRemote("watch");
    ASSERT_TRUE(environment.waitForRecord("watch"));
  }
  ASSERT_TRUE(environment.waitForRecord("invalid"));
  Application other;
  other.connection->callRemote("fail");
  other.connection->callRemote("note");
  ASSERT_TRUE(environment.waitForRecord("note"));
  EXPECT_EQ(environment.countInRecord("destroyed"), 0);
  EXPECT_EQ(environment.startedServices().size(), 1U);
}

TEST(ObjectLevel, RunsTheBarrierWhenTheCallsAreWithTheService) {
  ServiceEnvironment environment;
  environment.install("Test.Service");
  environment.set("XPC_TEST_OBJECTS", "1");
  {
    Application application;
    std::promise<void> sent;
    application.connection->callRemote("note");
    application.connection->scheduleSendBarrierBlock([&] { sent.set_value(); });
    ASSERT_EQ(sent.get_future().wait_for(60s), std::future_status::ready);
  }
  // The application has gone; the call was with the service.
  EXPECT_TRUE(environment.waitForRecord("note"));
}

TEST(ObjectLevel, RefusesAPeerThatTheDelegateRefuses) {
  ServiceEnvironment environment;
  environment.install("Test.Service");
  environment.set("XPC_TEST_OBJECTS", "1");
  environment.set("XPC_TEST_REFUSE", "1");
  Application application;
  application.connection->callRemote("note");
  EXPECT_TRUE(eventually([&] { return application.interruptions == 1; }, 60s));
  EXPECT_EQ(environment.countInRecord("note"), 0);
}

}  // namespace
