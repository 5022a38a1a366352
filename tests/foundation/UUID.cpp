#include "platform/foundation/value/UUID.h"

#include <gtest/gtest.h>

#include <set>

namespace platform {
namespace {

TEST(UUID, IsZeroWhenNothingIsSaid) {
  EXPECT_EQ(UUID().bytes(), UUID::Bytes{});
  EXPECT_EQ(UUID().string(), "00000000-0000-0000-0000-000000000000");
}

TEST(UUID, IsWrittenInUpperCaseInNetworkOrder) {
  const UUID uuid({0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0, 0x0f, 0xed, 0xcb, 0xa9, 0x87, 0x65, 0x43, 0x21});
  EXPECT_EQ(uuid.string(), "12345678-9ABC-DEF0-0FED-CBA987654321");
}

TEST(UUID, KeepsItsBytes) {
  const UUID::Bytes bytes = {255, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  EXPECT_EQ(UUID(bytes).bytes(), bytes);
  EXPECT_EQ(UUID(bytes), UUID(bytes));
  EXPECT_LT(UUID(), UUID(bytes));
}

TEST(UUID, RandomIsOfVersionFourAndNeverTheSame) {
  std::set<UUID> seen;
  for (int i = 0; i < 1000; ++i) {
    const UUID uuid = UUID::random();
    EXPECT_EQ(uuid.bytes()[6] >> 4, 4) << uuid.string();
    EXPECT_EQ(uuid.bytes()[8] >> 6, 2) << uuid.string();
    EXPECT_TRUE(seen.insert(uuid).second);
  }
}

}  // namespace
}  // namespace platform
