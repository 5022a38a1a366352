// What an Object does about texts and dictionaries of texts to be cheap, and that nobody can tell.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"
#include "platform/foundation/value/Object.h"

namespace platform {
namespace {

using namespace std::string_literals;

const std::string kLong(1000, 'x');

constexpr std::array kTexts = {ConstantKeyText{"", "empty key"}, ConstantKeyText{"A", ""}, ConstantKeyText{"B", "caf\xC3\xA9 \"quoted\"\n"},
                               ConstantKeyText{"a", "2"}};
const Dictionary kSameTexts = {{"", "empty key"}, {"A", ""}, {"B", "caf\xC3\xA9 \"quoted\"\n"}, {"a", "2"}};

TEST(ObjectText, IsTheSameHoweverItWasMade) {
  for (const std::string& text : {""s, "short"s, kLong, "a\0b"s}) {
    const Object ofString = text;
    const Object ofView = std::string_view(text);
    EXPECT_EQ(ofString, ofView);
    for (const Object& object : {ofString, ofView}) {
      EXPECT_EQ(object.stringView(), text);
      EXPECT_EQ(object.stringValue(), text);
      EXPECT_EQ(object.stringView(), text);
    }
  }
}

TEST(ObjectText, StaysWhereItIsWhileACopyLives) {
  for (const Object& made : {Object(kLong), Object(std::string_view(kLong))}) {
    Object copy;
    const std::string* text = nullptr;
    {
      const Object object = made;
      copy = object;
      text = &object.stringValue();
    }
    EXPECT_EQ(text, &copy.stringValue());
    EXPECT_EQ(*text, kLong);
  }
}

TEST(ObjectText, AnswersAsTextOfNothingAndOfOtherKinds) {
  EXPECT_EQ(Object().stringView(), "");
  EXPECT_THROW((void)Object::numberWithInt(1).stringView(), Exception);
}

TEST(ObjectText, IsMadeOnceWhenManyThreadsAsk) {
  for (int round = 0; round < 200; ++round) {
    const Object text = std::string_view(kLong);
    const Object table = Object::dictionaryOfTexts(kTexts);
    constexpr int kThreads = 4;
    std::array<const std::string*, kThreads> texts{};
    std::array<const Dictionary*, kThreads> dictionaries{};
    std::atomic<bool> go = false;
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i, text, table] {
        while (!go) std::this_thread::yield();
        texts[i] = &text.stringValue();
        dictionaries[i] = &table.dictionaryValue();
      });
    }
    go = true;
    for (std::thread& thread : threads) thread.join();
    for (std::size_t i = 0; i < kThreads; ++i) {
      EXPECT_EQ(texts[i], &text.stringValue());
      EXPECT_EQ(dictionaries[i], &table.dictionaryValue());
    }
  }
}

TEST(DictionaryOfTexts, IsADictionaryLikeAnyOther) {
  const Object table = Object::dictionaryOfTexts(kTexts);
  const Object same = kSameTexts;
  EXPECT_TRUE(table.isDictionary());
  EXPECT_EQ(table.kind(), Object::Kind::Dictionary);
  EXPECT_EQ(table.count(), 4U);
  EXPECT_EQ(table.objectForKey("a"), Object("2"));
  EXPECT_EQ(table.objectForKey("A"), Object(""));
  EXPECT_TRUE(table.objectForKey("C").isNil());
  EXPECT_EQ(table.dictionaryValue(), kSameTexts);
  EXPECT_EQ(table.description(), same.description());
  EXPECT_EQ(table, same);
  EXPECT_EQ(same, table);
  EXPECT_EQ(table, Object::dictionaryOfTexts(kTexts));
  EXPECT_FALSE(table == Object::dictionaryOfTexts(std::span(kTexts).first(3)));
  EXPECT_FALSE(table == Object("2"));
  EXPECT_THROW((void)table.stringValue(), Exception);
  EXPECT_NE(table.textTable(), nullptr);
  EXPECT_EQ(same.textTable(), nullptr);
}

TEST(DictionaryOfTexts, IsWrittenLikeAnyOther) {
  const Object table = Object::dictionaryOfTexts(kTexts);
  EXPECT_EQ(jsonText(table), jsonText(kSameTexts));
  EXPECT_EQ(prettyJSONText(Array{table}), prettyJSONText(Array{kSameTexts}));
  EXPECT_EQ(readJSON(prettyJSONText(table)), table);
  EXPECT_EQ(prettyJSONText(Object::dictionaryOfTexts({})), "{}");
  const std::array invalid = {ConstantKeyText{"key", "\xFF"}};
  EXPECT_THROW((void)jsonText(Object::dictionaryOfTexts(invalid)), Exception);
}

TEST(DictionaryOfTexts, KeepsItsTextsWhenTheirOwnerIsGone) {
  Object table;
  {
    std::string text = kLong;
    table = Object::dictionaryOfTexts(std::array{ConstantKeyText{"key", text}});
    text.assign(text.size(), 'y');
  }
  EXPECT_EQ(table.objectForKey("key"), Object(kLong));
}

TEST(DictionaryOfTexts, RefusesKeysOutOfOrder) {
  EXPECT_THROW((void)Object::dictionaryOfTexts(std::array{ConstantKeyText{"b", ""}, ConstantKeyText{"a", ""}}), Exception);
  EXPECT_THROW((void)Object::dictionaryOfTexts(std::array{ConstantKeyText{"a", ""}, ConstantKeyText{"a", ""}}), Exception);
}

}  // namespace
}  // namespace platform
