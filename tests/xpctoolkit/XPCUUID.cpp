#include "xpc/XPCUUID.h"

#include <gtest/gtest.h>

#include <set>

#include "platform/foundation/base/Exception.h"

namespace kestrine::test {
namespace {

using platform::Object;
using platform::UUID;
using platform::xpc::Value;

const UUID::Bytes kBytes = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10};
constexpr const char* kText = "01234567-89AB-CDEF-FEDC-BA9876543210";
constexpr const char* kDescription = "<XPCUUID 01234567-89AB-CDEF-FEDC-BA9876543210>";

/// Something of another class that has a description.
struct Described {
  std::string text;
  [[nodiscard]] std::string description() const { return text; }
};

TEST(XPCUUID, ShowsItsTextAndItsDescription) {
  const XPCUUID uuid{UUID(kBytes)};
  EXPECT_EQ(uuid.string(), kText);
  EXPECT_EQ(uuid.description(), kDescription);
  EXPECT_EQ(uuid.uuidRef(), UUID(kBytes));
}

TEST(XPCUUID, IsANewOneEachTime) {
  std::set<std::string> texts;
  for (int i = 0; i < 1000; ++i) texts.insert(XPCUUID::uuid().string());
  EXPECT_EQ(texts.size(), 1000U);
  EXPECT_EQ(texts.begin()->size(), 36U);
}

TEST(XPCUUID, IsEqualToAWrapperOfTheSameBytesAndHashesAlike) {
  const XPCUUID one{UUID(kBytes)};
  const XPCUUID same{UUID(kBytes)};
  EXPECT_TRUE(one.isEqual(same));
  EXPECT_EQ(one, same);
  EXPECT_EQ(one.hash(), same.hash());
}

TEST(XPCUUID, DiffersFromAWrapperOfOtherBytes) {
  const XPCUUID one{UUID(kBytes)};
  for (std::size_t i = 0; i < kBytes.size(); ++i) {
    UUID::Bytes bytes = kBytes;
    bytes[i] = static_cast<std::uint8_t>(bytes[i] ^ 1U);
    const XPCUUID other{UUID(bytes)};
    EXPECT_FALSE(one.isEqual(other)) << i;
    EXPECT_NE(one.hash(), other.hash()) << i;
  }
}

TEST(XPCUUID, IsEqualToWhateverHasTheSameDescription) {
  const XPCUUID uuid{UUID(kBytes)};
  EXPECT_TRUE(uuid.isEqual(Described{kDescription}));
  EXPECT_FALSE(uuid.isEqual(Described{kText}));
  EXPECT_TRUE(uuid.isEqual(Object(kDescription)));
  EXPECT_FALSE(uuid.isEqual(Object(kText)));
  EXPECT_TRUE(uuid.isEqual(Object(UUID(kBytes)))) << "as which it is held in an object";
  EXPECT_FALSE(uuid.isEqual(Object(UUID())));
  EXPECT_FALSE(uuid.isEqual(Object()));
}

TEST(XPCUUID, KeepsItsBytesInOrderOnTheWayThroughAValue) {
  const Value value = XPCUUID{UUID(kBytes)}.newXPCObject();
  ASSERT_EQ(value.kind(), Value::Kind::UUID);
  EXPECT_EQ(value.uuidValue(), kBytes);
  EXPECT_EQ(XPCUUID::uuidWithXPCObject(value).uuidRef().bytes(), kBytes);
}

TEST(XPCUUID, LeavesTheKindOfTheValueToItsAccessor) {
  EXPECT_THROW(static_cast<void>(XPCUUID::uuidWithXPCObject(Value::string(kText))), platform::Exception);
}

}  // namespace
}  // namespace kestrine::test
