#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/CapturedStandardError.h"
#include "tests/xpctoolkit/ConnectionPair.h"

namespace kestrine::test {
namespace {

using platform::CapturedStandardError;
using platform::Dictionary;
using platform::Object;
using platform::xpc::Value;

Value textEntry(const std::string& key, const std::string& text) { return Value::dictionary({{key, Value::string(text)}}); }

TEST(XPCConnectionMessages, SendsAStringUnderContents) {
  const ConnectionPair pair;
  pair.wrapped->sendMessage("hello");
  EXPECT_EQ(messageOf(pair.events.at(0)), textEntry("contents", "hello"));
}

TEST(XPCConnectionMessages, SendsWhateverIsNoDictionaryUnderContents) {
  const ConnectionPair pair;
  const std::vector<std::pair<Object, Value>> table = {
      {Object::numberWithInt(7), Value::real(7)},
      {platform::Array{"a"}, Value::array({Value::string("a")})},
      {platform::Data{std::byte{1}}, Value::data({std::byte{1}})},
      {platform::Date{1.5}, Value::date(1500000000)},
  };
  for (std::size_t i = 0; i < table.size(); ++i) {
    pair.wrapped->sendMessage(table[i].first);
    EXPECT_EQ(messageOf(pair.events.at(i)), Value::dictionary({{"contents", table[i].second}})) << i;
  }
  pair.wrapped->sendMessage(Object::null());
  EXPECT_EQ(messageOf(pair.events.at(table.size())), Value::dictionary({})) << "null has no value";
}

TEST(XPCConnectionMessages, SendsADictionaryAsItIs) {
  const ConnectionPair pair;
  pair.wrapped->sendMessage(Dictionary{{"a", "b"}, {"contents", "not wrapped again"}});
  EXPECT_EQ(messageOf(pair.events.at(0)), Value::dictionary({{"a", Value::string("b")}, {"contents", Value::string("not wrapped again")}}));
}

TEST(XPCConnectionMessages, HandsOverMessagesAsObjectsWithTheConnectionOnItsQueue) {
  const ConnectionPair pair;
  pair.plain->send(Value::dictionary({{"n", Value::uint64(7)}, {"null", Value()}}));
  const auto message = pair.log.message(0);
  EXPECT_EQ(message.object, Object(Dictionary{{"n", Object::numberWithUnsignedLongLong(7)}}));
  EXPECT_EQ(message.connection.lock(), pair.wrapped);
  EXPECT_TRUE(message.onItsQueue);
}

TEST(XPCConnectionMessages, KeepsTheOrderBothWays) {
  const ConnectionPair pair;
  const int count = longOrShort(2000, 300);
  for (int i = 0; i < count; ++i) {
    pair.wrapped->sendMessage(Object::numberWithLongLong(i));
    pair.plain->send(Value::dictionary({{"i", Value::int64(i)}}));
  }
  for (int i = 0; i < count; ++i) {
    const auto index = static_cast<std::size_t>(i);
    ASSERT_EQ(messageOf(pair.events.at(index)), Value::dictionary({{"contents", Value::int64(i)}}));
    ASSERT_EQ(pair.log.message(index).object.objectForKey("i").longLongValue(), i);
  }
}

TEST(XPCConnectionMessages, LogsADebugLineAndHandsItToNobody) {
  const CapturedStandardError captured;
  const ConnectionPair pair;
  pair.plain->send(Value::dictionary({{"XPCDebugLog", Value::string("as told")}, {"other", Value::string("key")}}));
  pair.plain->send(Value::dictionary({{"XPCDebugLog", Value::array({Value::int64(1)})}}));
  pair.plain->send(textEntry("after", "it"));
  EXPECT_EQ(pair.log.message(0).object, Object(Dictionary{{"after", "it"}}));
  EXPECT_EQ(pair.log.messageCount(), 1U);
  EXPECT_NE(captured.text().find("] LOG: as told\n"), std::string::npos) << captured.text();
  EXPECT_NE(captured.text().find("] LOG: (\n    1\n)\n"), std::string::npos) << captured.text();
}

TEST(XPCConnectionMessages, HandsOverADebugLineThatConvertsToNothing) {
  const ConnectionPair pair;
  pair.plain->send(Value::dictionary({{"XPCDebugLog", Value()}}));
  EXPECT_EQ(pair.log.message(0).object, Object(Dictionary()));
}

TEST(XPCConnectionMessages, SendsALogLine) {
  const ConnectionPair pair;
  pair.wrapped->_sendLog("a line");
  EXPECT_EQ(messageOf(pair.events.at(0)), textEntry("XPCDebugLog", "a line"));
  EXPECT_THROW(pair.wrapped->_sendLog(nullptr), platform::Exception);
}

TEST(XPCConnectionMessages, HandsOverNilForAnEventThatNoObjectStandsFor) {
  const ConnectionPair pair;
  pair.wrapped->handleEvent(Value());
  ASSERT_EQ(pair.log.messageCount(), 1U);
  EXPECT_TRUE(pair.log.message(0).object.isNil());
}

TEST(XPCConnectionMessages, FailsOnAMessageThatIsNoDictionary) {
  const ConnectionPair pair;
  EXPECT_THROW(pair.wrapped->handleEvent(Value::string("x")), platform::Exception);
  EXPECT_EQ(pair.log.messageCount(), 0U);
}

TEST(XPCConnectionMessages, DropsAMessageThatCannotBeConvertedAndGoesOn) {
  const CapturedStandardError captured;
  const ConnectionPair pair;
  const Value text = Value::string("x");
  pair.plain->send(Value::dictionary({{"list", Value::array({text, Value(), text})}}));
  pair.plain->send(textEntry("next", "one"));
  EXPECT_EQ(pair.log.message(0).object, Object(Dictionary{{"next", "one"}}));
  EXPECT_NE(captured.text().find("NSRangeException"), std::string::npos) << captured.text();
}

TEST(XPCConnectionMessages, DropsMessagesWhenThereIsNoEventHandler) {
  const ConnectionPair pair;
  pair.wrapped->setEventHandler(nullptr);
  EXPECT_NO_THROW(pair.wrapped->handleEvent(textEntry("a", "b")));
  EXPECT_EQ(pair.log.messageCount(), 0U);
}

TEST(XPCConnectionMessages, GoesOnWhenTheHandlerThrowsAnything) {
  const CapturedStandardError captured;
  const ConnectionPair pair;
  pair.wrapped->setEventHandler([](const Object&, const std::shared_ptr<XPCConnection>& connection) {
    connection->sendMessage("I throw");
    throw 7;  // NOLINT(misc-throw-by-value-catch-by-reference,hicpp-exception-baseclass): what a handler must not do and may do
  });
  for (std::size_t i = 0; i < 3; ++i) {
    pair.plain->send(Value::dictionary({}));
    EXPECT_EQ(messageOf(pair.events.at(i)), textEntry("contents", "I throw"));
  }
}

TEST(XPCConnectionMessages, LogsThatNilCannotBeSent) {
  const CapturedStandardError captured;
  const ConnectionPair pair;
  pair.wrapped->sendMessage(nullptr);
  pair.wrapped->sendMessage("next");
  EXPECT_EQ(messageOf(pair.events.at(0)), textEntry("contents", "next"));
  EXPECT_NE(captured.text().find("nil cannot be sent"), std::string::npos) << captured.text();
}

TEST(XPCConnectionMessages, LogsWhatTheChannelCannotCarryAndGoesOn) {
  const CapturedStandardError captured;
  const ConnectionPair pair;
  pair.wrapped->sendMessage(platform::Data(std::size_t{100} << 20U));
  pair.wrapped->sendMessage("next");
  EXPECT_EQ(messageOf(pair.events.at(0)), textEntry("contents", "next"));
  EXPECT_NE(captured.text().find("NSInvalidArgumentException"), std::string::npos) << captured.text();
}

TEST(XPCConnectionMessages, HasNoObjectForSharedMemory) {
  const ConnectionPair pair;
  const auto file = std::make_shared<platform::FileHandle>(memfd_create("shared", MFD_CLOEXEC));
  pair.plain->send(Value::dictionary({{"memory", Value::sharedMemory({.handle = file, .size = 1})}, {"a", Value::string("b")}}));
  EXPECT_EQ(pair.log.message(0).object, Object(Dictionary{{"a", "b"}}));
}

}  // namespace
}  // namespace kestrine::test
