#include "platform/foundation/value/Object.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <thread>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {
namespace {

using Kind = Object::Kind;

template <class Act>
std::string nameOfException(Act act) {
  try {
    act();
  } catch (const Exception& exception) {
    EXPECT_FALSE(exception.reason().empty());
    return exception.name();
  }
  return "nothing was thrown";
}

Object someFileHandle() { return std::make_shared<const FileHandle>(open("/dev/null", O_RDONLY | O_CLOEXEC)); }

Object copyOf(const Object& object) { return object; }

TEST(Object, IsNilWhenNothingIsSaid) {
  EXPECT_EQ(Object().kind(), Kind::Nil);
  EXPECT_TRUE(Object().isNil());
  EXPECT_TRUE(Object(nullptr).isNil());
  EXPECT_FALSE(Object());
  EXPECT_TRUE(Object("x"));
}

TEST(Object, IsNilWhenMadeFromANullPointer) {
  EXPECT_TRUE(Object(static_cast<const char*>(nullptr)).isNil());
  EXPECT_TRUE(Object(std::shared_ptr<const FileHandle>()).isNil());
}

TEST(Object, KnowsItsKind) {
  EXPECT_EQ(Object::null().kind(), Kind::Null);
  EXPECT_TRUE(Object::null().isNull());
  EXPECT_EQ(Object::numberWithInt(1).kind(), Kind::Number);
  EXPECT_EQ(Object(std::string("text")).kind(), Kind::String);
  EXPECT_EQ(Object(std::string_view("text")).kind(), Kind::String);
  EXPECT_EQ(Object("text").kind(), Kind::String);
  EXPECT_EQ(Object(Data{std::byte{1}}).kind(), Kind::Data);
  EXPECT_EQ(Object(Date{1.5}).kind(), Kind::Date);
  EXPECT_EQ(Object(UUID::random()).kind(), Kind::UUID);
  EXPECT_EQ(someFileHandle().kind(), Kind::FileHandle);
  EXPECT_EQ(Object(Array{}).kind(), Kind::Array);
  EXPECT_EQ(Object(Dictionary{}).kind(), Kind::Dictionary);
}

TEST(Object, KeepsNilNullAndEmptyTextApart) {
  EXPECT_FALSE(Object() == Object::null());
  EXPECT_FALSE(Object() == Object(""));
  EXPECT_FALSE(Object::null() == Object(""));
  EXPECT_EQ(Object::null(), Object::null());
  EXPECT_EQ(Object(), Object(nullptr));
}

TEST(Object, GivesBackWhatItWasMadeFrom) {
  const UUID uuid = UUID::random();
  const Data data = {std::byte{0}, std::byte{255}};
  EXPECT_EQ(Object("text").stringValue(), "text");
  EXPECT_EQ(Object(std::string("a\0b", 3)).stringValue(), std::string("a\0b", 3));
  EXPECT_EQ(Object(data).dataValue(), data);
  EXPECT_EQ(Object(Date{-1.25}).dateValue(), Date{-1.25});
  EXPECT_EQ(Object(uuid).uuidValue(), uuid);
  EXPECT_EQ(Object(Array{"a", Object()}).arrayValue().size(), 2U);
  EXPECT_EQ(Object(Dictionary{{"k", "v"}}).dictionaryValue().at("k"), Object("v"));
  const auto handle = std::make_shared<const FileHandle>(open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(Object(handle).fileHandleValue(), handle);
}

TEST(Object, AnswersEmptyOrZeroWhenNilIsAsked) {
  const Object nil;
  EXPECT_EQ(nil.stringValue(), "");
  EXPECT_TRUE(nil.dataValue().empty());
  EXPECT_EQ(nil.dateValue(), Date{0});
  EXPECT_EQ(nil.uuidValue(), UUID());
  EXPECT_EQ(nil.fileHandleValue(), nullptr);
  EXPECT_TRUE(nil.arrayValue().empty());
  EXPECT_TRUE(nil.dictionaryValue().empty());
  EXPECT_TRUE(nil.objectForKey("k").isNil());
  EXPECT_TRUE(nil.objectAtIndex(7).isNil());
  EXPECT_EQ(nil.count(), 0U);
}

TEST(Object, ThrowsWhenAskedForWhatItsKindDoesNotHave) {
  struct Question {
    std::vector<Kind> kindsThatAnswer;
    std::function<void(const Object&)> ask;
  };
  const std::vector<Question> questions = {
      {{Kind::String}, [](const Object& object) { (void)object.stringValue(); }},
      {{Kind::Data}, [](const Object& object) { (void)object.dataValue(); }},
      {{Kind::Date}, [](const Object& object) { (void)object.dateValue(); }},
      {{Kind::UUID}, [](const Object& object) { (void)object.uuidValue(); }},
      {{Kind::FileHandle}, [](const Object& object) { (void)object.fileHandleValue(); }},
      {{Kind::Array}, [](const Object& object) { (void)object.arrayValue(); }},
      {{Kind::Array}, [](const Object& object) { (void)object.objectAtIndex(0); }},
      {{Kind::Dictionary}, [](const Object& object) { (void)object.dictionaryValue(); }},
      {{Kind::Dictionary}, [](const Object& object) { (void)object.objectForKey("k"); }},
      {{Kind::Array, Kind::Dictionary}, [](const Object& object) { (void)object.count(); }},
      {{Kind::Number}, [](const Object& object) { (void)object.numberType(); }},
      {{Kind::Number, Kind::String}, [](const Object& object) { (void)object.boolValue(); }},
      {{Kind::Number, Kind::String}, [](const Object& object) { (void)object.intValue(); }},
      {{Kind::Number, Kind::String}, [](const Object& object) { (void)object.longLongValue(); }},
      {{Kind::Number, Kind::String}, [](const Object& object) { (void)object.unsignedLongLongValue(); }},
      {{Kind::Number, Kind::String}, [](const Object& object) { (void)object.doubleValue(); }},
  };
  const std::vector<Object> objects = {Object::null(),   Object::numberWithInt(1), "text", Data{}, Date{}, UUID(), someFileHandle(),
                                       Array{"element"}, Object(Dictionary{})};
  for (const Object& object : objects) {
    for (const Question& question : questions) {
      SCOPED_TRACE(object.description() + ", question " + std::to_string(&question - questions.data()));
      const bool answers = std::ranges::find(question.kindsThatAnswer, object.kind()) != question.kindsThatAnswer.end();
      EXPECT_EQ(nameOfException([&] { question.ask(object); }), answers ? "nothing was thrown" : "NSInvalidArgumentException");
    }
  }
}

TEST(Object, FindsEntriesByKey) {
  const Object object = Dictionary{{"a", Object::numberWithInt(1)}, {"", "empty key"}};
  EXPECT_EQ(object.objectForKey("a"), Object::numberWithInt(1));
  EXPECT_EQ(object.objectForKey(""), Object("empty key"));
  EXPECT_TRUE(object.objectForKey("b").isNil());
  EXPECT_EQ(object.count(), 2U);
}

TEST(Object, FindsElementsByIndexAndRefusesOthers) {
  const Object object = Array{"a", "b"};
  EXPECT_EQ(object.objectAtIndex(1), Object("b"));
  EXPECT_EQ(object.count(), 2U);
  EXPECT_EQ(nameOfException([&] { (void)object.objectAtIndex(2); }), "NSRangeException");
  EXPECT_EQ(nameOfException([&] { (void)Object(Array{}).objectAtIndex(0); }), "NSRangeException");
}

TEST(Object, ComparesByValue) {
  EXPECT_EQ(Object("text"), Object(std::string("text")));
  EXPECT_FALSE(Object("text") == Object("Text"));
  EXPECT_EQ(Object(Data{std::byte{1}}), Object(Data{std::byte{1}}));
  EXPECT_FALSE(Object(Data{std::byte{1}}) == Object(Data{std::byte{2}}));
  EXPECT_EQ(Object(Date{1}), Object(Date{1}));
  EXPECT_FALSE(Object(Date{1}) == Object(Date{1.5}));
  const Object nested = Dictionary{{"k", Array{"a", Object::null(), Dictionary{{"x", Object::numberWithDouble(0.5)}}}}};
  const Object same = Dictionary{{"k", Array{"a", Object::null(), Dictionary{{"x", Object::numberWithDouble(0.5)}}}}};
  const Object other = Dictionary{{"k", Array{"a", Object::null(), Dictionary{{"x", Object::numberWithFloat(0.5F)}}}}};
  EXPECT_EQ(nested, same);
  EXPECT_FALSE(nested == other);
  EXPECT_FALSE(Object(Array{}) == Object(Dictionary{}));
  EXPECT_FALSE(Object("1") == Object::numberWithInt(1));
}

TEST(Object, ComparesFileHandlesByIdentity) {
  const Object one = someFileHandle();
  const Object copy = copyOf(one);
  EXPECT_EQ(one, copy);
  EXPECT_FALSE(one == someFileHandle());
}

TEST(Object, EqualsItsCopyEvenWhenItIsNotANumber) {
  const Object nan = Object::numberWithDouble(std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(nan, Object(nan));
  EXPECT_FALSE(nan == Object::numberWithDouble(0));
}

TEST(Object, SharesWhatIsLarge) {
  const Object text = std::string(100, 'x');
  const Object copy = copyOf(text);
  EXPECT_EQ(&text.stringValue(), &copy.stringValue());
  const Object array = Array{text};
  const Object arrayCopy = copyOf(array);
  EXPECT_EQ(&array.arrayValue(), &arrayCopy.arrayValue());
}

TEST(Object, KeepsReferencesValidWhileACopyLives) {
  Object copy;
  const std::string* text = nullptr;
  {
    const Object object = std::string(100, 'y');
    text = &object.stringValue();
    copy = object;
  }
  EXPECT_EQ(*text, std::string(100, 'y'));
}

TEST(Object, MayBeReadThroughCopiesOnManyThreads) {
  const Object object = Dictionary{{"k", Array{"a", Object::numberWithInt(1)}}};
  std::vector<std::thread> threads;
  std::vector<int> good(4, 0);
  threads.reserve(good.size());
  for (int& counter : good) {
    threads.emplace_back([copy = object, &counter] {
      for (int i = 0; i < 1000; ++i) {
        const Object again = copyOf(copy);
        if (again.objectForKey("k").objectAtIndex(0).stringValue() == "a") ++counter;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(good, (std::vector<int>{1000, 1000, 1000, 1000}));
}

TEST(Object, KeepsDictionaryKeysInByteOrder) {
  std::string order;
  const Object object = Dictionary{{"b", ""}, {"B", ""}, {"a", ""}, {"\xC3\xA9", ""}, {"", ""}};
  for (const auto& [key, value] : object.dictionaryValue()) order += key + ",";
  EXPECT_EQ(order, ",B,a,b,\xC3\xA9,");
}

}  // namespace
}  // namespace platform
