#include <gtest/gtest.h>

#include <filesystem>

#include "platform/foundation/process/NeverReleased.h"
#include "tests/xpctoolkit/ConnectionPair.h"

namespace kestrine::test {
namespace {

using platform::NeverReleased;
using platform::Object;
using platform::SerialQueue;
using platform::xpc::ConnectionError;
using platform::xpc::Value;

std::ptrdiff_t threads() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), std::filesystem::directory_iterator());
}

/// A handler that holds what the pointer watches.
template <class Handler>
Handler holding(std::weak_ptr<int>& watch) {
  auto held = std::make_shared<int>(7);
  watch = held;
  return [held](const auto&...) {};
}

TEST(XPCConnectionLifetime, CancelsItsConnectionWhenItIsDestroyed) {
  ConnectionPair pair;
  const std::weak_ptr<platform::xpc::Connection> connection = pair.wrapped->connection();
  pair.settle();
  pair.wrapped = nullptr;
  EXPECT_EQ(errorKind(pair.events.at(0)), ConnectionError::Kind::Invalid) << "the other end is told";
  EXPECT_TRUE(eventually([&] { return connection.expired(); }));
  EXPECT_EQ(pair.log.errorCount(), 0U) << "its own handler is not";
}

TEST(XPCConnectionLifetime, IsKeptByNobodyButItsOwnerAndItsWork) {
  ConnectionPair pair;
  std::weak_ptr<XPCConnection> connection = pair.wrapped;
  pair.wrapped->sendMessage("the last");
  pair.wrapped = nullptr;
  EXPECT_TRUE(eventually([&] { return connection.expired(); }));
}

TEST(XPCConnectionLifetime, NeverReleasesItsQueueAndHandlers) {
  ConnectionPair pair(false);
  std::weak_ptr<int> event;
  std::weak_ptr<int> error;
  pair.wrapped->setEventHandler(holding<XPCConnection::EventHandler>(event));
  pair.wrapped->setErrorHandler(holding<XPCConnection::ErrorHandler>(error));
  const std::weak_ptr<SerialQueue> queue = pair.wrapped->dispatchQueue();
  const std::size_t before = NeverReleased::registry().count();
  pair.settle();
  pair.wrapped = nullptr;
  // The resuming of the connection may have held it until now.
  EXPECT_TRUE(eventually([&] { return NeverReleased::registry().count() == before + 3; }));
  EXPECT_FALSE(event.expired());
  EXPECT_FALSE(error.expired());
  EXPECT_FALSE(queue.expired());
}

TEST(XPCConnectionLifetime, ReleasesHandlersThatAreReplaced) {
  const ConnectionPair pair(false);
  std::weak_ptr<int> event;
  std::weak_ptr<int> error;
  pair.wrapped->setEventHandler(holding<XPCConnection::EventHandler>(event));
  pair.wrapped->setErrorHandler(holding<XPCConnection::ErrorHandler>(error));
  pair.wrapped->setEventHandler(nullptr);
  pair.wrapped->setErrorHandler(nullptr);
  EXPECT_TRUE(event.expired());
  EXPECT_TRUE(error.expired());
  EXPECT_FALSE(pair.wrapped->eventHandler());
  EXPECT_FALSE(pair.wrapped->errorHandler());
}

TEST(XPCConnectionLifetime, MayEndInItsOwnHandler) {
  ConnectionPair pair(false);
  const std::weak_ptr<XPCConnection> watch = pair.wrapped;
  pair.settle();
  pair.wrapped->setEventHandler([&pair](const Object&, const std::shared_ptr<XPCConnection>&) { pair.wrapped = nullptr; });
  pair.plain->send(Value::dictionary({}));
  EXPECT_EQ(errorKind(pair.events.at(0)), ConnectionError::Kind::Invalid);
  EXPECT_TRUE(watch.expired());
}

TEST(XPCConnectionLifetime, LeavesNoThreadAndNoDescriptorOfTenThousandConnections) {
  const auto visit = [](int i) {
    ConnectionPair pair;
    pair.plain->send(Value::dictionary({{"i", Value::int64(i)}}));
    return pair.log.message(0).object.objectForKey("i").longLongValue() == i;
  };
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(visit(i));
  const int descriptors = countOwnDescriptors();
  const auto atFirst = threads();
  const int count = longOrShort(10'000, 500);
  for (int i = 0; i < count; ++i) ASSERT_TRUE(visit(i));
  // The platform parks four threads at most, and has two of its own.
  constexpr std::ptrdiff_t kParked = 4;
  EXPECT_TRUE(eventually([&] { return countOwnDescriptors() <= descriptors; })) << countOwnDescriptors() << " and before " << descriptors;
  EXPECT_TRUE(eventually([&] { return threads() <= atFirst + kParked; })) << threads() << " and before " << atFirst;
}

}  // namespace
}  // namespace kestrine::test
