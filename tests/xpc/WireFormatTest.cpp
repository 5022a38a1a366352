#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "platform/xpc/value/WireFormat.h"
#include "tests/support/Eventually.h"
#include "tests/xpc/RandomValue.h"
#include "tests/xpc/RawSocket.h"
#include "tests/xpc/ServiceEnvironment.h"

namespace {

using namespace platform::xpc;
using kestrine::test::little32;
using kestrine::test::little64;
using kestrine::test::nullDescriptors;
using platform::Data;
using platform::FileHandle;
using platform::Result;

std::string textOf(const std::vector<std::byte>& bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

Result<Value, WireError> decodeText(const std::string& bytes, std::vector<FileHandle> descriptors = {}) {
  return decode(std::as_bytes(std::span(bytes)), std::move(descriptors));
}

/// The bytes of a value, and the reason when it has none.
std::string encodedOrReason(const Value& value) {
  const auto encoded = encode(value);
  return encoded ? textOf(encoded->bytes) : "refused: " + encoded.error().reason;
}

std::string reasonOf(const Result<Value, WireError>& result) { return result ? "accepted" : result.error().reason; }

TEST(WireFormat, WritesTheDocumentedBytes) {
  const std::vector<std::pair<Value, std::string>> table{
      {Value(), std::string("\0", 1)},
      {Value::boolean(true), std::string("\x01\x01")},
      {Value::boolean(false), std::string("\x01\x00", 2)},
      {Value::int64(-2), "\x02" + std::string("\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF")},
      {Value::uint64(0x0102030405060708U), "\x03" + std::string("\x08\x07\x06\x05\x04\x03\x02\x01")},
      {Value::real(1.0), "\x04" + std::string("\0\0\0\0\0\0\xF0\x3F", 8)},
      {Value::date(1'500'000'000), "\x05" + little64(1'500'000'000)},
      {Value::data(Data{std::byte{0}, std::byte{255}}), "\x06" + std::string("\2\0\0\0\x00\xFF", 6)},
      {Value::string("h\xC3\xA9"), "\x07" + std::string("\3\0\0\0h\xC3\xA9", 7)},
      {Value::uuid({0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}),
       "\x08" + std::string("\0\1\2\3\4\5\6\7\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f", 16)},
      {Value::array({Value(), Value::boolean(true)}), std::string("\x0b\2\0\0\0\0\1\1", 8)},
      {Value::dictionary({{"b", Value()}, {"a", Value()}}), std::string("\x0c\2\0\0\0\1\0\0\0a\0\1\0\0\0b\0", 17)},
  };
  for (const auto& [value, bytes] : table) {
    EXPECT_EQ(encodedOrReason(value), bytes) << kindName(value.kind());
    const auto back = decodeText(bytes);
    ASSERT_TRUE(back) << kindName(value.kind()) << ": " << reasonOf(back);
    EXPECT_EQ(*back, value);
  }
}

TEST(WireFormat, WritesTheMessageThatTheDocumentationShows) {
  const std::string bytes("\x0c\1\0\0\0\1\0\0\0a\2\7\0\0\0\0\0\0\0", 19);
  EXPECT_EQ(encodedOrReason(Value::dictionary({{"a", Value::int64(7)}})), bytes);
}

TEST(WireFormat, WritesDescriptorsInTheOrderOfTheirMention) {
  const auto first = std::make_shared<const FileHandle>(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const auto second = std::make_shared<const FileHandle>(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const auto encoded = encode(Value::array({Value::sharedMemory({.handle = second, .size = 4096}), Value::fileDescriptor(first)}));
  ASSERT_TRUE(encoded);
  EXPECT_EQ(textOf(encoded->bytes), std::string("\x0b\2\0\0\0\x0a", 6) + little64(4096) + "\x09");
  EXPECT_EQ(encoded->descriptors, (std::vector{second, first}));
}

TEST(WireFormat, ReadsBackWhatItWrote) {
  for (unsigned seed = 0; seed < static_cast<unsigned>(kestrine::test::longOrShort(20'000, 2'000)); ++seed) {
    const Value value = kestrine::test::RandomValue(seed, false).next();
    const auto encoded = encode(value);
    ASSERT_TRUE(encoded) << "seed " << seed;
    const auto back = decode(encoded->bytes, {});
    ASSERT_TRUE(back) << "seed " << seed << ": " << reasonOf(back);
    ASSERT_EQ(*back, value) << "seed " << seed;
  }
}

TEST(WireFormat, ReadsBackDescriptorsAsTheSameFiles) {
  const int before = kestrine::test::countOwnDescriptors();
  for (unsigned seed = 0; seed < 500; ++seed) {
    const Value value = kestrine::test::RandomValue(seed, true).next();
    const auto encoded = encode(value);
    if (!encoded) continue;  // more descriptors than a message may hold
    std::vector<FileHandle> duplicates;
    for (const auto& handle : encoded->descriptors) duplicates.emplace_back(fcntl(handle->fileDescriptor(), F_DUPFD_CLOEXEC, 0));
    const auto back = decode(encoded->bytes, std::move(duplicates));
    ASSERT_TRUE(back) << "seed " << seed << ": " << reasonOf(back);
    // Equal bytes again mean equal values, descriptors aside.
    const auto again = encode(*back);
    ASSERT_TRUE(again) << "seed " << seed;
    ASSERT_EQ(textOf(again->bytes), textOf(encoded->bytes)) << "seed " << seed;
    for (std::size_t i = 0; i < again->descriptors.size(); ++i) {
      struct stat sent {};
      struct stat received {};
      ASSERT_EQ(fstat(encoded->descriptors[i]->fileDescriptor(), &sent), 0);
      ASSERT_EQ(fstat(again->descriptors[i]->fileDescriptor(), &received), 0);
      EXPECT_EQ(sent.st_ino, received.st_ino);
    }
  }
  EXPECT_EQ(kestrine::test::countOwnDescriptors(), before);
}

TEST(WireFormat, RefusesEveryMalformedForm) {
  const std::string one = little32(1);
  const std::string key = one + "k";
  const auto nested = [](std::size_t depth) {
    std::string bytes;
    for (std::size_t i = 1; i < depth; ++i) bytes += "\x0b" + little32(1);
    return bytes + std::string("\0", 1);
  };
  const std::vector<std::tuple<std::string, std::string, std::string>> table{
      {"nothing", "", "the value is cut short"},
      {"an unknown kind", "\x0d", "there is no such kind of value"},
      {"the last kind byte", "\xFF", "there is no such kind of value"},
      {"a boolean without its byte", "\x01", "the value is cut short"},
      {"a boolean of 2", "\x01\x02", "a boolean is neither 0 nor 1"},
      {"a number cut short", "\x02" + std::string(7, 'x'), "the value is cut short"},
      {"an unsigned number cut short", "\x03" + std::string(7, 'x'), "the value is cut short"},
      {"a double cut short", "\x04" + std::string(7, 'x'), "the value is cut short"},
      {"a date cut short", "\x05" + std::string(7, 'x'), "the value is cut short"},
      {"data without its length", "\x06" + std::string(3, '\0'), "the value is cut short"},
      {"data shorter than its length", "\x06" + little32(2) + "x", "the value is cut short"},
      {"data of 4 GiB", "\x06\xFF\xFF\xFF\xFFx", "the value is cut short"},
      {"text shorter than its length", "\x07" + little32(2) + "x", "the value is cut short"},
      {"text with a NUL", "\x07" + little32(3) + std::string("a\0b", 3), "a text holds a NUL"},
      {"text that ends in a NUL", "\x07" + little32(2) + std::string("a\0", 2), "a text holds a NUL"},
      {"a UUID cut short", "\x08" + std::string(15, 'x'), "the value is cut short"},
      {"a descriptor that is not there", "\x09", "a descriptor is missing"},
      {"shared memory cut short", "\x0a" + std::string(7, 'x'), "the value is cut short"},
      {"shared memory without its descriptor", "\x0a" + little64(1), "a descriptor is missing"},
      {"an array without its count", "\x0b", "the value is cut short"},
      {"an array of more than follows", "\x0b" + little32(2) + std::string(1, '\0'), "a count is larger than what follows"},
      {"an array of 4 G elements", "\x0b\xFF\xFF\xFF\xFF", "a count is larger than what follows"},
      {"a dictionary of more than follows", "\x0c" + little32(2) + key + std::string(1, '\0'), "a count is larger than what follows"},
      {"a dictionary of 4 G entries", "\x0c\xFF\xFF\xFF\xFF", "a count is larger than what follows"},
      {"a key cut short", "\x0c" + one + little32(9) + "k", "the value is cut short"},
      {"a key with a NUL", "\x0c" + one + one + std::string("\0\0", 2), "a text holds a NUL"},
      {"a key twice", "\x0c" + little32(2) + key + std::string("\0", 1) + key + std::string("\0", 1), "a key appears twice"},
      {"a key twice with another between",
       "\x0c" + little32(3) + key + std::string("\0", 1) + one + "a" + std::string("\0", 1) + key + std::string("\0", 1),
       "a key appears twice"},
      {"an entry without a value", "\x0c" + one + little32(1) + "k", "the value is cut short"},
      {"bytes after the value", std::string("\0\0", 2), "bytes follow the value"},
      {"nesting one beyond the bound", nested(65), "the value is nested too deeply"},
      {"nesting far beyond the bound", nested(1'000'000), "the value is nested too deeply"},
  };
  for (const auto& [name, bytes, reason] : table) {
    EXPECT_EQ(reasonOf(decodeText(bytes)), reason) << name;
  }
  EXPECT_EQ(reasonOf(decodeText(nested(64))), "accepted");
}

TEST(WireFormat, RefusesMoreThanTheBounds) {
  const auto array = [](std::size_t count) { return "\x0b" + little32(count) + std::string(count, '\0'); };
  EXPECT_EQ(reasonOf(decodeText(array(262'143))), "accepted");
  EXPECT_EQ(reasonOf(decodeText(array(262'144))), "there are too many values");
  const std::string twice = "\x0b" + little32(2) + array(200'000) + array(200'000);
  EXPECT_EQ(reasonOf(decodeText(twice)), "there are too many values");
  const auto data = [](std::size_t payload) { return "\x06" + little32(payload - 5) + std::string(payload - 5, 'x'); };
  EXPECT_EQ(reasonOf(decodeText(data(16'777'216))), "accepted");
  EXPECT_EQ(reasonOf(decodeText(data(16'777'217))), "the value is too large");
}

TEST(WireFormat, RefusesDescriptorsThatBelongToNoValueAndClosesThem) {
  const int before = kestrine::test::countOwnDescriptors();
  const std::string one("\x09");
  EXPECT_EQ(reasonOf(decodeText(one, nullDescriptors(2))), "a descriptor belongs to no value");
  EXPECT_EQ(reasonOf(decodeText(std::string("\0", 1), nullDescriptors(1))), "a descriptor belongs to no value");
  EXPECT_EQ(reasonOf(decodeText("\x0b" + little32(2) + "\x09\x09", nullDescriptors(1))), "a descriptor is missing");
  EXPECT_EQ(reasonOf(decodeText("\x0b" + little32(64) + std::string(64, '\x09'), nullDescriptors(64))), "accepted");
  EXPECT_EQ(reasonOf(decodeText("\x0b" + little32(65) + std::string(65, '\x09'), nullDescriptors(65))), "there are too many descriptors");
  EXPECT_EQ(kestrine::test::countOwnDescriptors(), before);
}

TEST(WireFormat, RefusesToWriteMoreThanTheBounds) {
  Value deep;
  for (int i = 1; i < 64; ++i) deep = Value::array({deep});
  EXPECT_TRUE(encode(deep));
  EXPECT_EQ(encodedOrReason(Value::array({deep})), "refused: the message is nested too deeply");
  EXPECT_TRUE(encode(Value::array(Value::Array(262'143))));
  EXPECT_EQ(encodedOrReason(Value::array(Value::Array(262'144))), "refused: the message holds too many values");
  EXPECT_TRUE(encode(Value::data(Data(16'777'216 - 5))));
  EXPECT_EQ(encodedOrReason(Value::data(Data(16'777'216 - 4))), "refused: the message is too large");
  EXPECT_EQ(encodedOrReason(Value::string(std::string(16'777'216, 'x'))), "refused: the message is too large");
  const Value descriptor = Value::fileDescriptor(STDIN_FILENO);
  EXPECT_TRUE(encode(Value::array(Value::Array(64, descriptor))));
  EXPECT_EQ(encodedOrReason(Value::array(Value::Array(65, descriptor))), "refused: the message holds too many descriptors");
}

TEST(WireFormat, SurvivesBytesThatWereChangedAtRandom) {
  std::mt19937_64 random(7);
  int accepted = 0;
  const int rounds = kestrine::test::longOrShort(50'000, 5'000);
  for (int round = 0; round < rounds; ++round) {
    std::string bytes = encodedOrReason(kestrine::test::RandomValue(static_cast<unsigned>(round % 500), false).next());
    for (std::size_t changes = random() % 4; changes > 0; --changes) bytes[random() % bytes.size()] = static_cast<char>(random());
    bytes.resize(random() % 3 == 0 ? random() % (bytes.size() + 1) : bytes.size());
    const auto result = decodeText(bytes);
    if (!result) continue;
    ++accepted;
    // What is accepted is a value like any other: it is written and read again unchanged.
    const auto again = decodeText(encodedOrReason(*result));
    ASSERT_TRUE(again) << "round " << round;
    ASSERT_EQ(*again, *result) << "round " << round;
  }
  EXPECT_GT(accepted, rounds / 10);
  EXPECT_LT(accepted, rounds);
}

}  // namespace
