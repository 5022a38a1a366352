#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <limits>

#include "platform/foundation/base/Exception.h"
#include "platform/xpc/value/Value.h"
#include "tests/xpc/ServiceEnvironment.h"

namespace {

using platform::Data;
using platform::Exception;
using platform::FileHandle;
using platform::xpc::Value;

/// One value of each kind, with the kind's name.
std::vector<std::pair<std::string, Value>> oneOfEach() {
  const auto handle = std::make_shared<const FileHandle>(open("/dev/null", O_RDONLY | O_CLOEXEC));
  return {{"null", Value()},
          {"bool", Value::boolean(true)},
          {"int64", Value::int64(1)},
          {"uint64", Value::uint64(1)},
          {"double", Value::real(1)},
          {"date", Value::date(1)},
          {"data", Value::data(Data{std::byte{'1'}})},
          {"string", Value::string("1")},
          {"uuid", Value::uuid({1})},
          {"file descriptor", Value::fileDescriptor(handle)},
          {"shared memory", Value::sharedMemory({.handle = handle, .size = 1})},
          {"array", Value::array({Value::int64(1)})},
          {"dictionary", Value::dictionary({{"1", Value::int64(1)}})}};
}

TEST(Value, IsEqualToItsCopyAndToNoValueOfAnotherKind) {
  const auto values = oneOfEach();
  for (const auto& [name, value] : values) {
    for (const auto& [otherName, other] : values) EXPECT_EQ(value == other, name == otherName) << name << " and " << otherName;
    EXPECT_EQ(platform::xpc::kindName(value.kind()), name);
  }
}

TEST(Value, ComparesByContentNotByIdentity) {
  const auto make = [](std::int64_t last) {
    return Value::dictionary({{"list", Value::array({Value::string("a"), Value::data(Data{std::byte{1}}), Value::int64(last)})}});
  };
  EXPECT_EQ(make(7), make(7));
  EXPECT_FALSE(make(7) == make(8));
  EXPECT_FALSE(Value::dictionary({{"a", Value()}}) == Value::dictionary({{"b", Value()}}));
  EXPECT_FALSE(Value::array({Value()}) == Value::array({Value(), Value()}));
}

TEST(Value, ComparesDoublesByTheirBits) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(Value::real(nan), Value::real(nan));
  EXPECT_FALSE(Value::real(0.0) == Value::real(-0.0));
}

TEST(Value, OfDescriptorsIsEqualOnlyForTheSameHandle) {
  const Value first = Value::fileDescriptor(STDIN_FILENO);
  EXPECT_EQ(first, Value(first));
  EXPECT_FALSE(first == Value::fileDescriptor(STDIN_FILENO));
}

TEST(Value, RefusesToBeAskedForAnotherKind) {
  const std::vector<std::pair<std::string, std::function<void(const Value&)>>> questions{
      {"bool", [](const Value& v) { static_cast<void>(v.boolValue()); }},
      {"int64", [](const Value& v) { static_cast<void>(v.int64Value()); }},
      {"uint64", [](const Value& v) { static_cast<void>(v.uint64Value()); }},
      {"double", [](const Value& v) { static_cast<void>(v.doubleValue()); }},
      {"date", [](const Value& v) { static_cast<void>(v.dateValue()); }},
      {"data", [](const Value& v) { static_cast<void>(v.dataValue()); }},
      {"string", [](const Value& v) { static_cast<void>(v.stringValue()); }},
      {"uuid", [](const Value& v) { static_cast<void>(v.uuidValue()); }},
      {"file descriptor", [](const Value& v) { static_cast<void>(v.fileDescriptorValue()); }},
      {"shared memory", [](const Value& v) { static_cast<void>(v.sharedMemoryValue()); }},
      {"array", [](const Value& v) { static_cast<void>(v.arrayValue()); }},
      {"dictionary", [](const Value& v) { static_cast<void>(v.dictionaryValue()); }},
  };
  for (const auto& [name, value] : oneOfEach()) {
    for (const auto& [question, ask] : questions) {
      if (name == question) {
        EXPECT_NO_THROW(ask(value)) << name;
      } else {
        EXPECT_THROW(ask(value), Exception) << name << " asked for " << question;
      }
    }
  }
}

TEST(Value, RefusesTextAndKeysWithANul) {
  EXPECT_THROW(Value::string(std::string("a\0b", 3)), Exception);
  EXPECT_THROW(Value::dictionary({{std::string("a\0b", 3), Value()}}), Exception);
  EXPECT_EQ(Value::string("").stringValue(), "");
}

TEST(Value, RefusesDescriptorsThatAreNotOpen) {
  EXPECT_THROW(Value::fileDescriptor(-1), Exception);
  EXPECT_THROW(Value::fileDescriptor(std::make_shared<const FileHandle>()), Exception);
  EXPECT_THROW(Value::fileDescriptor(nullptr), Exception);
  EXPECT_THROW(Value::sharedMemory({}), Exception);
}

TEST(Value, DuplicatesTheDescriptorItIsMadeOfAndClosesItsOwn) {
  const int before = kestrine::test::countOwnDescriptors();
  {
    const FileHandle original(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const Value value = Value::fileDescriptor(original.fileDescriptor());
    EXPECT_NE(value.fileDescriptorValue()->fileDescriptor(), original.fileDescriptor());
    const FileHandle copy = value.duplicateFileDescriptor();
    EXPECT_EQ(fcntl(copy.fileDescriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(value.fileDescriptorValue()->fileDescriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(kestrine::test::countOwnDescriptors(), before + 3);
  }
  EXPECT_EQ(kestrine::test::countOwnDescriptors(), before);
}

TEST(Value, FindsEntriesByKey) {
  const Value value = Value::dictionary({{"a", Value::int64(7)}});
  ASSERT_NE(value.find("a"), nullptr);
  EXPECT_EQ(value.find("a")->int64Value(), 7);
  EXPECT_EQ(value.find("b"), nullptr);
  EXPECT_THROW(static_cast<void>(Value().find("a")), Exception);
}

}  // namespace
