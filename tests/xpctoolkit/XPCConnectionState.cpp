#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/CapturedStandardError.h"
#include "tests/xpctoolkit/ConnectionPair.h"

namespace kestrine::test {
namespace {

using namespace std::chrono_literals;
using platform::CapturedStandardError;
using platform::Dictionary;
using platform::Object;
using platform::SerialQueue;
using platform::xpc::ConnectionError;
using platform::xpc::Value;

const std::vector<ConnectionError> kErrors = {{ConnectionError::Kind::Interrupted, "was interrupted"},
                                              {ConnectionError::Kind::Invalid, "is invalid"},
                                              {ConnectionError::Kind::TerminationImminent, "ends soon"}};

TEST(XPCConnectionState, IsNothingForNoConnection) { EXPECT_EQ(XPCConnection::initWithConnection(nullptr), nullptr); }

TEST(XPCConnectionState, HandsErrorsToTheErrorHandlerOnly) {
  const ConnectionPair pair;
  for (std::size_t i = 0; i < kErrors.size(); ++i) {
    pair.wrapped->handleEvent(kErrors[i]);
    const auto error = pair.log.error(i);
    EXPECT_EQ(error.object, kErrors[i]);
    EXPECT_EQ(error.description, kErrors[i].description);
    EXPECT_EQ(error.connection.lock(), pair.wrapped);
  }
  EXPECT_EQ(pair.log.messageCount(), 0U);
}

TEST(XPCConnectionState, DropsErrorsWhenThereIsNoErrorHandler) {
  const ConnectionPair pair;
  pair.wrapped->setErrorHandler(nullptr);
  for (const ConnectionError& error : kErrors) pair.wrapped->handleEvent(error);
  EXPECT_EQ(pair.log.messageCount(), 0U);
  EXPECT_EQ(pair.log.errorCount(), 0U);
}

TEST(XPCConnectionState, CallsTheErrorHandlerOfTheConnectionThatItIsGiven) {
  const ConnectionPair one;
  const ConnectionPair other;
  one.wrapped->invokeErrorHandlerWithObject_connection(kErrors[0], other.wrapped);
  EXPECT_EQ(one.log.errorCount(), 0U);
  EXPECT_EQ(other.log.error(0).connection.lock(), other.wrapped);
}

TEST(XPCConnectionState, IsInvalidWhenTheOtherEndGoes) {
  const ConnectionPair pair;
  pair.plain->cancel();
  const auto error = pair.log.error(0);
  EXPECT_EQ(error.object.kind, ConnectionError::Kind::Invalid);
  EXPECT_FALSE(error.description.empty());
  pair.wrapped->sendMessage("dropped");
  pair.settle();
  EXPECT_EQ(pair.log.errorCount(), 1U);
}

TEST(XPCConnectionState, HasNoNameWithoutAServiceName) {
  const ConnectionPair pair;
  EXPECT_EQ(pair.wrapped->connectionName(), std::nullopt);
  EXPECT_EQ(pair.wrapped->dispatchQueue()->label(), "");
}

TEST(XPCConnectionState, IsNamedAfterItsServiceAndSoIsItsQueue) {
  const ServiceEnvironment environment;
  const auto connection = XPCConnection::initWithServiceName("Test.Service");
  EXPECT_EQ(connection->connectionName(), "Test.Service");
  EXPECT_EQ(connection->dispatchQueue()->label(), "Test.Service");
}

TEST(XPCConnectionState, TellsWhoTheOtherEndIs) {
  const ConnectionPair pair;
  pair.plain->send(Value::dictionary({}));
  static_cast<void>(pair.log.message(0));
  EXPECT_EQ(pair.wrapped->connectionEUID(), Object::numberWithLongLong(geteuid()));
  EXPECT_EQ(pair.wrapped->connectionEGID(), Object::numberWithLongLong(getegid()));
  EXPECT_EQ(pair.wrapped->connectionProcessID(), Object::numberWithLongLong(getpid()));
  EXPECT_EQ(pair.wrapped->connectionAuditSessionID(), Object::numberWithLongLong(std::stoll(readFile("/proc/self/sessionid"))));
}

TEST(XPCConnectionState, ReadsCredentialsWhenItsQueueComesToIt) {
  const ConnectionPair pair;
  std::promise<void> go;
  pair.wrapped->dispatchQueue()->async([going = go.get_future().share()] { going.wait(); });
  auto reading = std::async(std::launch::async, [&] { return pair.wrapped->connectionName(); });
  EXPECT_EQ(reading.wait_for(100ms), std::future_status::timeout);
  go.set_value();
  EXPECT_EQ(reading.get(), std::nullopt);
}

TEST(XPCConnectionState, HoldsEventsBackWhileSuspended) {
  const ConnectionPair pair;
  pair.wrapped->suspend();
  pair.wrapped->suspend();
  pair.settle();
  pair.plain->send(Value::dictionary({}));
  pair.wrapped->resume();
  pair.wrapped->sendMessage("still sends");
  EXPECT_NO_THROW(messageOf(pair.events.at(0)));
  std::this_thread::sleep_for(50ms);  // in which a message let through too early would come
  EXPECT_EQ(pair.log.messageCount(), 0U);
  pair.wrapped->resume();
  EXPECT_EQ(pair.log.message(0).object, Object(Dictionary()));
}

TEST(XPCConnectionState, SaysThatItWasResumedTooOftenAndGoesOn) {
  const CapturedStandardError captured;
  const ConnectionPair pair;
  pair.wrapped->resume();
  pair.plain->send(Value::dictionary({}));
  EXPECT_EQ(pair.log.message(0).object, Object(Dictionary()));
  EXPECT_NE(captured.text().find("not suspended was resumed"), std::string::npos) << captured.text();
}

TEST(XPCConnectionState, DeliversOnTheQueueThatItIsGiven) {
  const ConnectionPair pair;
  pair.settle();
  const std::weak_ptr<SerialQueue> former = pair.wrapped->dispatchQueue();
  const auto queue = SerialQueue::create("another");
  pair.wrapped->setDispatchQueue(queue);
  EXPECT_EQ(pair.wrapped->dispatchQueue(), queue);
  pair.plain->send(Value::dictionary({}));
  EXPECT_TRUE(pair.log.message(0).onItsQueue);
  EXPECT_TRUE(eventually([&] { return former.expired(); })) << "the former queue is let go of";
}

TEST(XPCConnectionState, NeedsAQueueForWhatRunsOnIt) {
  const ConnectionPair pair;
  pair.wrapped->setDispatchQueue(nullptr);
  EXPECT_THROW(pair.wrapped->sendMessage("x"), platform::Exception);
  EXPECT_THROW(static_cast<void>(pair.wrapped->connectionEUID()), platform::Exception);
  pair.plain->send(Value::dictionary({}));
  EXPECT_EQ(pair.log.message(0).object, Object(Dictionary())) << "the channel has a queue of its own";
}

TEST(XPCConnectionState, DoesItsWorkOnTheQueueAfterTheCallReturned) {
  const ConnectionPair pair;
  std::promise<void> go;
  pair.wrapped->dispatchQueue()->async([going = go.get_future().share()] { going.wait(); });
  pair.wrapped->sendMessage("later");
  std::this_thread::sleep_for(50ms);  // in which a message sent too early would come
  EXPECT_EQ(pair.events.count(), 0U);
  go.set_value();
  EXPECT_NO_THROW(messageOf(pair.events.at(0)));
}

}  // namespace
}  // namespace kestrine::test
