#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/value/Dictionary.h"
#include "platform/xpc/value/ObjectConversion.h"

namespace {

using namespace platform;
using xpc::objectWithValue;
using xpc::Value;
using xpc::valueWithObject;

TEST(ObjectConversion, KeepsEveryKindThatBothSidesHave) {
  const auto handle = Value::fileDescriptor(0).fileDescriptorValue();
  const UUID uuid = UUID::random();
  const std::vector<std::pair<Object, Value>> table{
      {Object::null(), Value()},
      {Object::numberWithBool(true), Value::boolean(true)},
      {Object::numberWithBool(false), Value::boolean(false)},
      {Object::numberWithLongLong(-7), Value::int64(-7)},
      {Object::numberWithUnsignedLongLong(std::numeric_limits<std::uint64_t>::max()),
       Value::uint64(std::numeric_limits<std::uint64_t>::max())},
      {Object::numberWithDouble(0.1), Value::real(0.1)},
      {Object("text"), Value::string("text")},
      {Object(Data{std::byte{7}}), Value::data(Data{std::byte{7}})},
      {Object(Date{1.5}), Value::date(1'500'000'000)},
      {Object(uuid), Value::uuid(uuid.bytes())},
      {Object(handle), Value::fileDescriptor(handle)},
      {Object(Array{Object("a"), Object::null()}), Value::array({Value::string("a"), Value()})},
      {Object(Dictionary{{"k", Object("v")}}), Value::dictionary({{"k", Value::string("v")}})},
  };
  for (const auto& [object, value] : table) {
    EXPECT_EQ(valueWithObject(object), value) << kindName(value.kind());
    EXPECT_EQ(objectWithValue(value), object) << kindName(value.kind());
  }
}

TEST(ObjectConversion, WidensTheNumbersThatTheChannelDoesNotHave) {
  EXPECT_EQ(valueWithObject(Object::numberWithChar(-1)), Value::int64(-1));
  EXPECT_EQ(valueWithObject(Object::numberWithShort(-2)), Value::int64(-2));
  EXPECT_EQ(valueWithObject(Object::numberWithInt(-3)), Value::int64(-3));
  EXPECT_EQ(valueWithObject(Object::numberWithFloat(0.5F)), Value::real(0.5));
}

TEST(ObjectConversion, TurnsNilAndSharedMemoryIntoNothing) {
  EXPECT_EQ(valueWithObject(Object()), Value());
  EXPECT_EQ(valueWithObject(Object(Array{Object()})), Value::array({Value()}));
  const Value memory = Value::sharedMemory({.handle = Value::fileDescriptor(0).fileDescriptorValue(), .size = 1});
  EXPECT_TRUE(objectWithValue(memory).isNil());
  EXPECT_EQ(objectWithValue(Value::array({memory, Value::string("a")})), Object(Array{Object::null(), Object("a")}));
  EXPECT_EQ(objectWithValue(Value::dictionary({{"m", memory}})), Object(Dictionary{{"m", Object::null()}}));
}

TEST(ObjectConversion, KeepsDatesWithinWhatTheChannelCanSay) {
  EXPECT_EQ(valueWithObject(Object(Date{-0.25})), Value::date(-250'000'000));
  EXPECT_EQ(valueWithObject(Object(Date{1e300})), Value::date(std::numeric_limits<std::int64_t>::max()));
  EXPECT_EQ(valueWithObject(Object(Date{-1e300})), Value::date(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(valueWithObject(Object(Date{std::nan("")})), Value::date(0));
}

TEST(ObjectConversion, RefusesTextWithANul) {
  EXPECT_THROW(static_cast<void>(valueWithObject(Object(std::string("a\0b", 3)))), Exception);
  EXPECT_THROW(static_cast<void>(valueWithObject(Object(Dictionary{{std::string("a\0b", 3), Object("v")}}))), Exception);
}

}  // namespace
