#include "xpc/XPCParse.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <limits>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/value/Dictionary.h"

namespace kestrine::test {
namespace {

using platform::Data;
using platform::Date;
using platform::Dictionary;
using platform::FileHandle;
using platform::NumberType;
using platform::Object;
using platform::UUID;
using platform::xpc::Value;

constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
constexpr auto kLeast = std::numeric_limits<std::int64_t>::min();
const UUID::Bytes kBytes = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const Data kData = {std::byte{0}, std::byte{0xFF}, std::byte{7}};

Value sharedMemory() {
  return Value::sharedMemory({.handle = std::make_shared<FileHandle>(memfd_create("shared", MFD_CLOEXEC)), .size = 16});
}

struct Row {
  const char* name;
  Value value;
  Object object;
};

// Names for the printing of failures.
void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

std::string nameOf(const testing::TestParamInfo<Row>& row) { return row.param.name; }

class FromValue : public testing::TestWithParam<Row> {};

TEST_P(FromValue, BecomesTheObject) {
  const Object object = objectWithXPCObject(GetParam().value);
  EXPECT_EQ(object, GetParam().object) << object.description();
}

INSTANTIATE_TEST_SUITE_P(
    XPCParse, FromValue,
    testing::Values(Row{"Dictionary", Value::dictionary({{"a", Value::string("b")}}), Dictionary{{"a", "b"}}},
                    Row{"EmptyDictionary", Value::dictionary({}), Dictionary()},
                    Row{"Array", Value::array({Value::string("b"), Value::int64(1)}), platform::Array{"b", Object::numberWithLongLong(1)}},
                    Row{"EmptyArray", Value::array({}), platform::Array()}, Row{"Date", Value::date(1500000000), Date{1.5}},
                    Row{"DateBefore1970", Value::date(-2500000000), Date{-2.5}}, Row{"Data", Value::data(kData), kData},
                    Row{"EmptyData", Value::data({}), Data()}, Row{"SharedMemory", sharedMemory(), nullptr},
                    Row{"String", Value::string("Grüße"), "Grüße"}, Row{"EmptyString", Value::string(""), ""},
                    Row{"StringThatIsNotUTF8", Value::string("a\xFF"), nullptr},
                    Row{"StringWithASurrogate", Value::string("\xED\xA0\x80"), nullptr}, Row{"UUID", Value::uuid(kBytes), UUID(kBytes)},
                    Row{"True", Value::boolean(true), Object::numberWithBool(true)},
                    Row{"False", Value::boolean(false), Object::numberWithBool(false)},
                    Row{"UInt64", Value::uint64(7), Object::numberWithUnsignedLongLong(7)},
                    Row{"GreatestUInt64", Value::uint64(~std::uint64_t{0}), Object::numberWithUnsignedLongLong(~std::uint64_t{0})},
                    Row{"Int64", Value::int64(-7), Object::numberWithLongLong(-7)},
                    Row{"LeastInt64", Value::int64(kLeast), Object::numberWithLongLong(kLeast)},
                    Row{"Double", Value::real(0.1), Object::numberWithDouble(0.1)}, Row{"Null", Value(), nullptr}),
    nameOf);

class ToValue : public testing::TestWithParam<Row> {};

TEST_P(ToValue, BecomesTheValue) {
  const auto value = newXPCObject(GetParam().object);
  ASSERT_TRUE(value);
  EXPECT_EQ(*value, GetParam().value) << kindName(value->kind());
}

INSTANTIATE_TEST_SUITE_P(
    XPCParse, ToValue,
    testing::Values(Row{"Dictionary", Value::dictionary({{"a", Value::string("b")}}), Dictionary{{"a", "b"}}},
                    Row{"Array", Value::array({Value::string("b"), Value::int64(1)}), platform::Array{"b", Object::numberWithLongLong(1)}},
                    Row{"Date", Value::date(1500000000), Date{1.5}}, Row{"DateTruncatedTowardZero", Value::date(1), Date{0.0000000019}},
                    Row{"DateBefore1970TruncatedTowardZero", Value::date(-1), Date{-0.0000000019}},
                    Row{"DateBeyond", Value::date(kMost), Date{1e300}}, Row{"DateLongBefore", Value::date(kLeast), Date{-1e300}},
                    Row{"DateThatIsNone", Value::date(0), Date{std::numeric_limits<double>::quiet_NaN()}},
                    Row{"Data", Value::data(kData), kData}, Row{"String", Value::string("Grüße"), "Grüße"},
                    Row{"StringUpToItsNUL", Value::string("a"), std::string("a\0b", 3)},
                    Row{"KeyUpToItsNUL", Value::dictionary({{"k", Value::string("v")}}), Dictionary{{std::string("k\0x", 3), "v"}}},
                    Row{"UUID", Value::uuid(kBytes), UUID(kBytes)}, Row{"True", Value::boolean(true), Object::numberWithBool(true)},
                    Row{"FalseAsADouble", Value::real(0), Object::numberWithBool(false)},
                    Row{"CharAsADouble", Value::real(-3), Object::numberWithChar(-3)},
                    Row{"ShortAsADouble", Value::real(300), Object::numberWithShort(300)},
                    Row{"IntAsADouble", Value::real(7), Object::numberWithInt(7)},
                    Row{"FloatAsADouble", Value::real(0.5), Object::numberWithFloat(0.5F)},
                    Row{"Double", Value::real(0.1), Object::numberWithDouble(0.1)},
                    Row{"LongLong", Value::int64(kLeast), Object::numberWithLongLong(kLeast)},
                    Row{"UnsignedLongLong", Value::uint64(~std::uint64_t{0}), Object::numberWithUnsignedLongLong(~std::uint64_t{0})}),
    nameOf);

TEST(XPCParse, TellsABooleanAndThreeSevensApart) {
  const Object object = Dictionary{{"true", Object::numberWithBool(true)},
                                   {"false", Object::numberWithBool(false)},
                                   {"int", Object::numberWithInt(7)},
                                   {"long", Object::numberWithLongLong(7)},
                                   {"unsigned", Object::numberWithUnsignedLongLong(7)}};
  EXPECT_EQ(newXPCObject(object), Value::dictionary({{"true", Value::boolean(true)},
                                                     {"false", Value::real(0.0)},
                                                     {"int", Value::real(7.0)},
                                                     {"long", Value::int64(7)},
                                                     {"unsigned", Value::uint64(7)}}));
}

TEST(XPCParse, KeepsTheTypeCodesOfNumbers) {
  EXPECT_EQ(numberWithXPCObject(Value::boolean(false)).numberType(), NumberType::Bool);
  EXPECT_EQ(numberWithXPCObject(Value::uint64(0)).numberType(), NumberType::UnsignedLongLong);
  EXPECT_EQ(numberWithXPCObject(Value::int64(0)).numberType(), NumberType::LongLong);
  EXPECT_EQ(numberWithXPCObject(Value::real(0)).numberType(), NumberType::Double);
}

TEST(XPCParse, ThrowsARangeExceptionForAnElementBehindOneThatHasNoObject) {
  const Value text = Value::string("x");
  const std::array<Value, 4> failing = {Value::array({text, Value(), text}), Value::array({Value(), text}),
                                        Value::array({Value::string("\xFF"), text}), Value::array({sharedMemory(), text, text})};
  for (const Value& array : failing) {
    for (const Value& value : {array, Value::dictionary({{"nested", array}}), Value::array({array})}) {
      try {
        static_cast<void>(objectWithXPCObject(value));
        FAIL() << "no exception";
      } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "NSRangeException");
      }
    }
  }
}

TEST(XPCParse, SkipsElementsWithoutAnObjectAtTheEndOfAnArray) {
  const Value text = Value::string("x");
  EXPECT_EQ(arrayWithContentsOfXPCObject(Value::array({text, text, Value()})), Object(platform::Array{"x", "x"}));
  EXPECT_EQ(arrayWithContentsOfXPCObject(Value::array({text, Value(), Value()})), Object(platform::Array{"x"}));
  EXPECT_EQ(arrayWithContentsOfXPCObject(Value::array({Value(), sharedMemory()})), Object(platform::Array{}));
}

TEST(XPCParse, CompactsAnArrayOnTheWayOut) {
  const auto closed = std::make_shared<const FileHandle>();
  EXPECT_EQ(newXPCObject(platform::Array{nullptr, "a", Object::null(), closed, "b"}),
            Value::array({Value::string("a"), Value::string("b")}));
}

TEST(XPCParse, DropsEntriesWithoutAnObject) {
  const Value value = Value::dictionary({{"null", Value()},
                                         {"memory", sharedMemory()},
                                         {"text", Value::string("\xC3")},
                                         {"bad key \xFF", Value::string("fine")},
                                         {"kept", Value::string("fine")}});
  EXPECT_EQ(dictionaryWithContentsOfXPCObject(value), Object(Dictionary{{"kept", "fine"}}));
}

TEST(XPCParse, DropsEntriesWithoutAValue) {
  const Object object = Dictionary{{"nil", nullptr}, {"null", Object::null()}, {"kept", "fine"}};
  EXPECT_EQ(newXPCObject(object), Value::dictionary({{"kept", Value::string("fine")}}));
}

TEST(XPCParse, HasNothingForNilNullAndAClosedHandle) {
  EXPECT_EQ(newXPCObject(Object()), std::nullopt);
  EXPECT_EQ(newXPCObject(Object::null()), std::nullopt);
  EXPECT_EQ(newXPCObject(std::make_shared<const FileHandle>()), std::nullopt);
}

TEST(XPCParse, ConvertsNestedContainersBothWays) {
  const Object object = Dictionary{{"list", platform::Array{Dictionary{{"deep", platform::Array{"x", Date{1.5}}}}}}};
  const Value value = Value::dictionary(
      {{"list", Value::array({Value::dictionary({{"deep", Value::array({Value::string("x"), Value::date(1500000000)})}})})}});
  EXPECT_EQ(newXPCObject(object), value);
  EXPECT_EQ(objectWithXPCObject(value), object);
}

TEST(XPCParse, BringsADateThereAndBack) {
  const auto value = newXPCObject(Date{1.5});
  EXPECT_EQ(value, Value::date(1500000000));
  EXPECT_EQ(dateWithXPCObject(*value), Object(Date{1.5}));
}

TEST(XPCParse, HasNilForAValueOfAnotherKindThanTheClass) {
  const Value text = Value::string("x");
  EXPECT_TRUE(dictionaryWithContentsOfXPCObject(text).isNil());
  EXPECT_TRUE(arrayWithContentsOfXPCObject(text).isNil());
  EXPECT_TRUE(dateWithXPCObject(text).isNil());
  EXPECT_TRUE(dataWithXPCObject(text).isNil());
  EXPECT_TRUE(dataWithXPCObject(sharedMemory()).isNil());
  EXPECT_TRUE(stringWithXPCObject(Value::data(kData)).isNil());
  EXPECT_TRUE(numberWithXPCObject(text).isNil());
  EXPECT_TRUE(fileHandleWithXPCObject(text).isNil());
}

TEST(XPCParse, DuplicatesDescriptorsBothWaysAndClosesTheDuplicates) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const FileHandle reading(ends[0]);
  auto writing = std::make_shared<FileHandle>(ends[1]);
  {
    const auto value = newXPCObject(std::shared_ptr<const FileHandle>(writing));
    ASSERT_TRUE(value);
    writing->closeFile();
    Object object = objectWithXPCObject(*value);
    ASSERT_EQ(object.kind(), Object::Kind::FileHandle);
    const int descriptor = object.fileHandleValue()->fileDescriptor();
    EXPECT_NE(descriptor, value->fileDescriptorValue()->fileDescriptor());
    EXPECT_EQ(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(write(descriptor, "x", 1), 1);
    object = nullptr;
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "closed with its object";
  }
  std::array<char, 2> bytes{};
  EXPECT_EQ(read(reading.fileDescriptor(), bytes.data(), bytes.size()), 1);
  EXPECT_EQ(read(reading.fileDescriptor(), bytes.data(), bytes.size()), 0) << "no writer is left";
}

}  // namespace
}  // namespace kestrine::test
