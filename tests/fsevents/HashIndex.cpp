#include "platform/fsevents/event/HashIndex.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

namespace platform::fsevents {
namespace {

std::uint32_t find(const HashIndex& index, std::uint32_t hash, std::uint32_t number) {
  return index.find(hash, [number](std::uint32_t candidate) { return candidate == number; });
}

TEST(HashIndex, FindsNothingWhileItIsEmpty) {
  HashIndex index;
  EXPECT_EQ(find(index, 7, 0), HashIndex::kNone);
  index.erase(7, 0);
  EXPECT_EQ(find(index, 7, 0), HashIndex::kNone);
}

TEST(HashIndex, TellsThingsOfOneHashApart) {
  HashIndex index;
  for (std::uint32_t number = 0; number < 10; ++number) index.insert(42, number);
  for (std::uint32_t number = 0; number < 10; ++number) EXPECT_EQ(find(index, 42, number), number);
  EXPECT_EQ(find(index, 42, 10), HashIndex::kNone);
}

TEST(HashIndex, AsksOnlyAboutThingsOfTheWantedHash) {
  HashIndex index;
  // 1 and 65 have the same place in the smallest table.
  index.insert(1, 100);
  index.insert(65, 200);
  std::set<std::uint32_t> asked;
  const auto found = index.find(65, [&](std::uint32_t candidate) { return asked.insert(candidate).second; });
  EXPECT_EQ(found, 200U);
  EXPECT_EQ(asked, std::set<std::uint32_t>{200});
}

TEST(HashIndex, ForgetsEverythingWhenItIsCleared) {
  HashIndex index;
  for (std::uint32_t number = 0; number < 1000; ++number) index.insert(number * 17, number);
  index.clear();
  for (std::uint32_t number = 0; number < 1000; ++number) EXPECT_EQ(find(index, number * 17, number), HashIndex::kNone);
  index.insert(17, 1);
  EXPECT_EQ(find(index, 17, 1), 1U);
}

// Few places, so that runs of taken slots are long, wrap round the table's end, and are broken by erasing in the middle of them.
TEST(HashIndex, AgreesWithAMapWhateverIsInsertedAndErased) {
  std::mt19937 random(20261122);
  HashIndex index;
  std::map<std::uint32_t, std::uint32_t> hashes;
  std::uint32_t fresh = 0;
  for (int step = 0; step < 20000; ++step) {
    // Grows to some hundreds and shrinks again, several times.
    const bool grows = (step / 2500) % 2 == 0 ? random() % 4 != 0 : random() % 4 == 0;
    if (grows || hashes.empty()) {
      const std::uint32_t hash =
          random() % 2 == 0 ? static_cast<std::uint32_t>(random() % 8) : 0xFFFFFFF8U + static_cast<std::uint32_t>(random() % 8);
      index.insert(hash, fresh);
      hashes[fresh++] = hash;
    } else {
      const auto victim = std::next(hashes.begin(), static_cast<std::ptrdiff_t>(random() % std::min<std::size_t>(hashes.size(), 50)));
      index.erase(victim->second, victim->first);
      ASSERT_EQ(find(index, victim->second, victim->first), HashIndex::kNone);
      hashes.erase(victim);
    }
    if (step % 97 != 0) continue;
    for (const auto& [number, hash] : hashes) ASSERT_EQ(find(index, hash, number), number) << "after " << step << " steps";
  }
}

}  // namespace
}  // namespace platform::fsevents
