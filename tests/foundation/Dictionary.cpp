#include "platform/foundation/value/Dictionary.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <stdexcept>

#include "tests/support/Eventually.h"

namespace platform {
namespace {

std::vector<std::string> keysOf(const Dictionary& dictionary) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : dictionary) keys.push_back(key);
  return keys;
}

TEST(Dictionary, IsInTheByteOrderOfItsKeys) {
  const Dictionary dictionary{{"b", "1"}, {"\xC3\xA9", "2"}, {"B", "3"}, {"", "4"}, {"bb", "5"}};
  EXPECT_EQ(keysOf(dictionary), (std::vector<std::string>{"", "B", "b", "bb", "\xC3\xA9"}));
  EXPECT_EQ(dictionary.at("bb"), Object("5"));
  EXPECT_EQ(dictionary.find("c"), dictionary.end());
  EXPECT_THROW((void)dictionary.at("c"), std::out_of_range);
}

TEST(Dictionary, KeepsTheFirstOfEqualKeysWhenPutInAndTheLastWhenAssigned) {
  Dictionary dictionary{{"a", "first"}, {"a", "second"}};
  EXPECT_EQ(dictionary.at("a"), Object("first"));
  EXPECT_FALSE(dictionary.emplace("a", "third").second);
  EXPECT_EQ(dictionary.at("a"), Object("first"));
  EXPECT_FALSE(dictionary.insert_or_assign("a", "fourth").second);
  EXPECT_EQ(dictionary.at("a"), Object("fourth"));
  EXPECT_EQ(dictionary.size(), 1U);
  EXPECT_EQ(Dictionary::withEntries({{"a", "first"}, {"b", "b"}, {"a", "last"}}), (Dictionary{{"a", "last"}, {"b", "b"}}));
}

TEST(Dictionary, LeavesWhatIsNotPutInWithItsOwner) {
  Dictionary dictionary{{"a", "there"}};
  std::string key = "a";
  dictionary.emplace(std::move(key), "again");
  EXPECT_EQ(key, "a");  // NOLINT(bugprone-use-after-move): what is asked
}

TEST(Dictionary, TakesEntriesInAnyOrder) {
  std::mt19937 random(20261121);
  for (const std::size_t count : {0U, 1U, 2U, 23U, 24U, 25U, 26U, 1000U}) {
    std::vector<Dictionary::value_type> entries;
    std::map<std::string, std::string> expected;
    for (std::size_t i = 0; i < count; ++i) {
      const std::string key = std::to_string(random() % (count + count / 2 + 1));
      const std::string value = std::to_string(i);
      entries.emplace_back(key, value);
      expected[key] = value;
    }
    const Dictionary dictionary = Dictionary::withEntries(std::move(entries));
    ASSERT_EQ(dictionary.size(), expected.size()) << count;
    EXPECT_TRUE(std::ranges::equal(dictionary, expected, [](const auto& a, const auto& b) {
      return a.first == b.first && a.second.stringValue() == b.second;
    })) << count;
  }
}

TEST(Dictionary, DoesWhatAMapDoes) {
  std::mt19937 random(1);
  Dictionary dictionary;
  std::map<std::string, Object> expected;
  for (int i = 0; i < 5000; ++i) {
    const std::string key = std::to_string(random() % 200);
    const Object value = Object::numberWithInt(i);
    switch (random() % 4) {
      case 0:
        EXPECT_EQ(dictionary.emplace(key, value).second, expected.emplace(key, value).second);
        break;
      case 1:
        EXPECT_EQ(dictionary.insert_or_assign(key, value).second, expected.insert_or_assign(key, value).second);
        break;
      case 2:
        EXPECT_EQ(dictionary.erase(key), expected.erase(key));
        break;
      default:
        dictionary[key] = value;
        expected[key] = value;
    }
    ASSERT_EQ(dictionary.count(key), expected.count(key));
  }
  EXPECT_TRUE(
      std::ranges::equal(dictionary, expected, [](const auto& a, const auto& b) { return a.first == b.first && a.second == b.second; }));
}

// With each entry moving those behind it, this would take minutes.
TEST(Dictionary, TakesManyEntriesInNoOrderAtTheCostOfSorting) {
  const int count = kestrine::test::longOrShort(1'000'000, 100'000);
  std::vector<Dictionary::value_type> entries;
  for (int i = count; i > 0; --i) entries.emplace_back(std::to_string(i), Object::numberWithInt(i));
  EXPECT_EQ(Dictionary::withEntries(std::move(entries)).size(), static_cast<std::size_t>(count));
}

}  // namespace
}  // namespace platform
