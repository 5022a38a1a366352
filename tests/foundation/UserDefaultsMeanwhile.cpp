// Who edits the file without the lock while a writer flushes its own loses nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/foundation/FlushControl.h"
#include "tests/foundation/UserDefaultsHelper.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::Dictionary;
using platform::Object;
using platform::UserDefaults;

class UserDefaultsMeanwhile : public testing::TestWithParam<bool> {
 protected:
  UserDefaultsMeanwhile() {
    FlushControl::reset();
    defaults_.setObject_forKey("old", "key");
    EXPECT_TRUE(defaults_.synchronize());
  }
  ~UserDefaultsMeanwhile() override { FlushControl::reset(); }

  /// While the next file is flushed, the domain becomes this one key: edited where it stands, or replaced.
  void editMeanwhile(const std::string& key, const std::string& value) {
    edit_ = [this, text = "<plist><dict><key>" + key + "</key><string>" + value + "</string></dict></plist>"] {
      const std::string path = folder_ / "domain.plist";
      writeFile(GetParam() ? path : path + ".new", text);
      if (!GetParam()) std::rename((path + ".new").c_str(), path.c_str());
    };
    FlushControl::beforeFile = &edit_;
  }
  Object domain() { return UserDefaults("domain", folder_.path()).persistentDomainForName("domain"); }

  std::function<void()> edit_;
  const TemporaryDirectory folder_;
  UserDefaults defaults_{"domain", folder_.path()};
};
INSTANTIATE_TEST_SUITE_P(, UserDefaultsMeanwhile, testing::Bool(),
                         [](const auto& parameter) { return std::string(parameter.param ? "EditedWhereItStands" : "Replaced"); });

TEST_P(UserDefaultsMeanwhile, KeepWhatSynchronizeFindsWhenItIsReady) {
  editMeanwhile("edited", "meanwhile");
  defaults_.setObject_forKey("new", "key");
  EXPECT_TRUE(defaults_.synchronize());
  EXPECT_EQ(domain(), Object(Dictionary{{"edited", Object("meanwhile")}, {"key", Object("new")}}));
  EXPECT_THAT(namesIn(folder_.path()), testing::ElementsAre("domain.plist", "domain.plist.lock"));
}

TEST_P(UserDefaultsMeanwhile, KeepWhatAnExchangeFindsWhenItIsReady) {
  editMeanwhile("key", "old");
  int asked = 0;
  bool failed = true;
  const auto decide = [&asked](const Object& value) { return Object(value.stringValue() + " " + std::to_string(++asked)); };
  EXPECT_EQ(defaults_.exchange("key", decide, &failed), Object("old"));
  EXPECT_FALSE(failed);
  EXPECT_EQ(domain(), Object(Dictionary{{"key", Object("old 1")}}));

  editMeanwhile("key", "edited");
  EXPECT_EQ(defaults_.exchange("key", decide, &failed), Object("old 1"));
  EXPECT_TRUE(failed);
  EXPECT_EQ(asked, 2);
  EXPECT_EQ(domain(), Object(Dictionary{{"key", Object("edited")}}));
  EXPECT_THAT(namesIn(folder_.path()), testing::ElementsAre("domain.plist", "domain.plist.lock"));
}

}  // namespace
}  // namespace kestrine::test
