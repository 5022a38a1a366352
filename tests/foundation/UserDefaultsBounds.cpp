// What may be written is what can be read: a value that is too large is refused alone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/formats/PropertyList.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Object;
using platform::UserDefaults;
using Kind = platform::PreferencesError::Kind;

Object levels(int count) {
  Object value("deep");
  for (int i = 0; i < count; ++i) value = Array{value};
  return value;
}

TEST(UserDefaultsBounds, RefuseTheDepthThatTheDomainAroundItMakesTooDeep) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  try {
    defaults.setObject_forKey(levels(128), "too deep");
    ADD_FAILURE() << "taken";
  } catch (const platform::Exception& refusal) {
    EXPECT_THAT(refusal.reason(), testing::HasSubstr("under the key \"too deep\""));
  }
  defaults.setObject_forKey(levels(127), "deep");
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(UserDefaults("domain", folder.path()).objectForKey("deep"), levels(127));
}

TEST(UserDefaultsBounds, RefuseTheValueThatMakesMoreThanAMillion) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  // With the domain itself and the array a million.
  const Object many = Array(999998, Object::numberWithBool(true));
  defaults.setObject_forKey(many, "many");
  ASSERT_TRUE(defaults.synchronize());
  EXPECT_EQ(UserDefaults("domain", folder.path()).objectForKey("many").count(), 999998U);
  defaults.setObject_forKey("one more", "more");
  EXPECT_FALSE(defaults.synchronize());
  ASSERT_TRUE(defaults.lastError());
  EXPECT_EQ(defaults.lastError()->kind, Kind::TooLarge);
  EXPECT_TRUE(defaults.objectForKey("more").isNil());
  defaults.removeObjectForKey("many");
  defaults.setObject_forKey("one more", "more");
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_FALSE(defaults.lastError());
  EXPECT_EQ(UserDefaults("domain", folder.path()).persistentDomainForName("domain"), Object(Dictionary{{"more", Object("one more")}}));
}

TEST(UserDefaultsBounds, RefuseALargeTextAloneAndBlockNoLaterKey) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  defaults.setObject_forKey("old", "large");
  ASSERT_TRUE(defaults.synchronize());
  defaults.setObject_forKey("1", "before");
  defaults.setObject_forKey(std::string(platform::kPropertyListMaximumSize, 'x'), "large");
  defaults.setObject_forKey("2", "after");
  EXPECT_FALSE(defaults.synchronize());
  ASSERT_TRUE(defaults.lastError());
  EXPECT_EQ(defaults.lastError()->kind, Kind::TooLarge);
  EXPECT_THAT(defaults.lastError()->reason, testing::HasSubstr("the value of \"large\" is refused"));
  EXPECT_EQ(UserDefaults("domain", folder.path()).persistentDomainForName("domain"),
            Object(Dictionary{{"after", Object("2")}, {"before", Object("1")}, {"large", Object("old")}}));
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(defaults.objectForKey("large"), Object("old"));
}

TEST(UserDefaultsBounds, TakeWhatFitsInTheOrderInWhichItWasSet) {
  const TemporaryDirectory folder;
  UserDefaults defaults("domain", folder.path());
  const std::string half(9U << 20U, 'x');
  defaults.setObject_forKey(half, "z first");
  defaults.setObject_forKey(half + "y", "a second");
  defaults.setObject_forKey("small", "third");
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_THAT(defaults.lastError()->reason, testing::HasSubstr("\"a second\""));
  UserDefaults reader("domain", folder.path());
  EXPECT_EQ(reader.objectForKey("z first").stringView().size(), half.size());
  EXPECT_TRUE(reader.objectForKey("a second").isNil());
  EXPECT_EQ(reader.objectForKey("third"), Object("small"));
}

TEST(UserDefaultsBounds, LetADomainOfSmallValuesBeChanged) {
  const TemporaryDirectory folder;
  std::string text = "<plist><dict><key>many</key>";
  for (int level = 0; level < 100; ++level) text += "<array>";
  for (int i = 0; i < 200000; ++i) text += "<true/>";
  for (int level = 0; level < 100; ++level) text += "</array>";
  writeFile(folder / "domain.plist", text + "</dict></plist>");
  UserDefaults defaults("domain", folder.path());
  const Object before = defaults.objectForKey("many");
  ASSERT_FALSE(before.isNil());
  defaults.setObject_forKey("value", "key");
  EXPECT_TRUE(defaults.synchronize());
  UserDefaults reader("domain", folder.path());
  EXPECT_EQ(reader.objectForKey("many"), before);
  EXPECT_EQ(reader.objectForKey("key"), Object("value"));
}

}  // namespace
}  // namespace kestrine::test
