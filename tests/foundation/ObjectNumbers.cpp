#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/foundation/value/Object.h"

namespace platform {
namespace {

constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kHighestUnsigned = std::numeric_limits<std::uint64_t>::max();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
const double kNaN = std::nan("");

TEST(ObjectNumbers, RememberTheirTypeCode) {
  EXPECT_EQ(static_cast<char>(Object::numberWithBool(true).numberType()), 'B');
  EXPECT_EQ(static_cast<char>(Object::numberWithChar(7).numberType()), 'c');
  EXPECT_EQ(static_cast<char>(Object::numberWithShort(7).numberType()), 's');
  EXPECT_EQ(static_cast<char>(Object::numberWithInt(7).numberType()), 'i');
  EXPECT_EQ(static_cast<char>(Object::numberWithLongLong(7).numberType()), 'q');
  EXPECT_EQ(static_cast<char>(Object::numberWithUnsignedLongLong(7).numberType()), 'Q');
  EXPECT_EQ(static_cast<char>(Object::numberWithFloat(7).numberType()), 'f');
  EXPECT_EQ(static_cast<char>(Object::numberWithDouble(7).numberType()), 'd');
}

TEST(ObjectNumbers, OfDifferentTypeCodesAreDifferent) {
  const std::vector<Object> sevens = {Object::numberWithBool(true), Object::numberWithChar(1),     Object::numberWithShort(1),
                                      Object::numberWithInt(1),     Object::numberWithLongLong(1), Object::numberWithUnsignedLongLong(1),
                                      Object::numberWithFloat(1),   Object::numberWithDouble(1)};
  for (std::size_t i = 0; i < sevens.size(); ++i) {
    for (std::size_t j = 0; j < sevens.size(); ++j) EXPECT_EQ(sevens[i] == sevens[j], i == j) << i << " and " << j;
  }
}

TEST(ObjectNumbers, KeepTheirWholeRange) {
  EXPECT_EQ(Object::numberWithLongLong(kLowest).longLongValue(), kLowest);
  EXPECT_EQ(Object::numberWithLongLong(kHighest).longLongValue(), kHighest);
  EXPECT_EQ(Object::numberWithUnsignedLongLong(kHighestUnsigned).unsignedLongLongValue(), kHighestUnsigned);
  EXPECT_EQ(Object::numberWithDouble(0.1).doubleValue(), 0.1);
  EXPECT_EQ(Object::numberWithFloat(0.1F).doubleValue(), static_cast<double>(0.1F));
  EXPECT_EQ(Object::numberWithChar(-128).intValue(), -128);
  EXPECT_EQ(Object::numberWithShort(-32768).intValue(), -32768);
}

TEST(ObjectNumbers, ConvertAsCDoes) {
  EXPECT_EQ(Object::numberWithDouble(-1.9).intValue(), -1);
  EXPECT_EQ(Object::numberWithDouble(1.9).longLongValue(), 1);
  EXPECT_EQ(Object::numberWithLongLong(0x1'0000'0005).intValue(), 5);
  EXPECT_EQ(Object::numberWithInt(-1).unsignedLongLongValue(), kHighestUnsigned);
  EXPECT_EQ(Object::numberWithUnsignedLongLong(kHighestUnsigned).longLongValue(), -1);
  EXPECT_EQ(Object::numberWithBool(true).intValue(), 1);
  EXPECT_EQ(Object::numberWithBool(false).doubleValue(), 0.0);
  EXPECT_TRUE(Object::numberWithDouble(0.5).boolValue());
  EXPECT_TRUE(Object::numberWithInt(-1).boolValue());
  EXPECT_FALSE(Object::numberWithUnsignedLongLong(0).boolValue());
  EXPECT_FALSE(Object::numberWithDouble(-0.0).boolValue());
}

TEST(ObjectNumbers, GiveTheNearestIntegerWhereCGivesNone) {
  EXPECT_EQ(Object::numberWithDouble(1e300).longLongValue(), kHighest);
  EXPECT_EQ(Object::numberWithDouble(-1e300).longLongValue(), kLowest);
  EXPECT_EQ(Object::numberWithDouble(9223372036854775808.0).longLongValue(), kHighest);
  EXPECT_EQ(Object::numberWithDouble(-9223372036854775808.0).longLongValue(), kLowest);
  EXPECT_EQ(Object::numberWithDouble(kInfinity).intValue(), 2147483647);
  EXPECT_EQ(Object::numberWithDouble(-kInfinity).intValue(), -2147483648);
  EXPECT_EQ(Object::numberWithDouble(2147483647.5).intValue(), 2147483647);
  EXPECT_EQ(Object::numberWithDouble(18446744073709551616.0).unsignedLongLongValue(), kHighestUnsigned);
  EXPECT_EQ(Object::numberWithDouble(9223372036854775808.0).unsignedLongLongValue(), 9223372036854775808U);
  EXPECT_EQ(Object::numberWithDouble(-1.0).unsignedLongLongValue(), kHighestUnsigned);
  EXPECT_EQ(Object::numberWithDouble(kNaN).longLongValue(), 0);
  EXPECT_EQ(Object::numberWithDouble(kNaN).unsignedLongLongValue(), 0U);
  EXPECT_EQ(Object::numberWithFloat(std::nanf("")).intValue(), 0);
}

TEST(ObjectNumbers, AreZeroForNil) {
  const Object nil;
  EXPECT_EQ(static_cast<char>(nil.numberType()), '\0');
  EXPECT_FALSE(nil.boolValue());
  EXPECT_EQ(nil.intValue(), 0);
  EXPECT_EQ(nil.longLongValue(), 0);
  EXPECT_EQ(nil.unsignedLongLongValue(), 0U);
  EXPECT_EQ(nil.doubleValue(), 0.0);
}

struct TextCase {
  std::string text;
  std::int64_t integer;
  double real;
};

TEST(ObjectNumbers, AreReadFromTheStartOfText) {
  const std::vector<TextCase> cases = {
      {"", 0, 0},       {"7", 7, 7},   {"-7", -7, -7},     {"+7", 7, 7},      {" \t\n42abc", 42, 42}, {"abc", 0, 0},  {"-", 0, 0},
      {"+-3", 0, 0},    {"- 3", 0, 0}, {"3.75x", 3, 3.75}, {".5", 0, 0.5},    {"-.5", 0, -0.5},       {"5.", 5, 5},   {".", 0, 0},
      {"1e3", 1, 1000}, {"1e", 1, 1},  {"1e+", 1, 1},      {"1e-2", 1, 0.01}, {"2E2z", 2, 200},       {"0x10", 0, 0}, {"inf", 0, 0},
      {"nan", 0, 0},    {"007", 7, 7}, {"1,5", 1, 1},      {"1 2", 1, 1},     {"--1", 0, 0},
  };
  for (const TextCase& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(Object(c.text).longLongValue(), c.integer);
    EXPECT_EQ(Object(c.text).intValue(), c.integer);
    EXPECT_EQ(Object(c.text).unsignedLongLongValue(), static_cast<std::uint64_t>(c.integer));
    EXPECT_EQ(Object(c.text).doubleValue(), c.real);
  }
}

TEST(ObjectNumbers, FromTextThatDoesNotFitAreTheNearest) {
  EXPECT_EQ(Object("2147483648").intValue(), 2147483647);
  EXPECT_EQ(Object("-2147483649").intValue(), -2147483648);
  EXPECT_EQ(Object("9223372036854775807").longLongValue(), kHighest);
  EXPECT_EQ(Object("9223372036854775808").longLongValue(), kHighest);
  EXPECT_EQ(Object("-99999999999999999999").longLongValue(), kLowest);
  EXPECT_EQ(Object("18446744073709551615").unsignedLongLongValue(), kHighestUnsigned);
  EXPECT_EQ(Object("18446744073709551616").unsignedLongLongValue(), kHighestUnsigned);
  EXPECT_EQ(Object("1e999").doubleValue(), kInfinity);
  EXPECT_EQ(Object("-1e999").doubleValue(), -kInfinity);
  EXPECT_EQ(Object("1e-999").doubleValue(), 0.0);
}

TEST(ObjectNumbers, AreTrueForTextThatSaysSo) {
  for (const char* text : {"1", "YES", "yes", "y", "T", "true", " 2", "+3", "-1", "0001", "-0Y"})
    EXPECT_TRUE(Object(text).boolValue()) << text;
  for (const char* text : {"", "0", "NO", "no", "false", "-0", "abc", "n1", "0x1", "--1", "000"})
    EXPECT_FALSE(Object(text).boolValue()) << text;
}

}  // namespace
}  // namespace platform
