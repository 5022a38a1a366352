// A base text whose URL has no path: a watch that cannot start, and no watch of something else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

#include "tests/system/WatcherFixture.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::HasSubstr;
using testing::Not;

class NoFolder : public WatcherService, public testing::WithParamInterface<std::tuple<std::string, std::string>> {
 protected:
  void SetUp() override {
    const auto& [version, source] = GetParam();
    if (!useSource(source)) GTEST_SKIP() << "left out: " << source << ", because the kernel has it not";
    setValue("userIdKey", "u-1");
    setValue("computerIdKey", "c-1");
  }
  void setValue(const std::string& key, const std::string& value) {
    platform::UserDefaults preferences("Ostrabyte.Kestrine", folder("config/Preferences"));
    preferences.setObject_forKey(value, key);
    ASSERT_TRUE(preferences.synchronize());
  }
};

INSTANTIATE_TEST_SUITE_P(Everywhere, NoFolder,
                         testing::Combine(testing::Values("14.0.0", "10.7.5"), testing::Values("fanotify", "inotify")),
                         [](const auto& row) {
                           return (std::get<0>(row.param) == "10.7.5" ? "Messages_" : "Listener_") + std::get<1>(row.param);
                         });

TEST_P(NoFolder, FailsOnceForEachCallAndWatchesNothing) {
  const auto& [version, source] = GetParam();
  setBasePath("?x");
  startService({}, {{"KESTRINE_SYSTEM_VERSION", version}});
  constexpr const char* kTexts[] = {"?x", "#x", "mailto:me", "x:y", "/a%00b", "/"};
  std::vector<std::unique_ptr<Application>> applications;
  for (const char* text : kTexts) {
    setBasePath(text);
    applications.push_back(std::make_unique<Application>());
    applications.back()->callToFileWatcher();
    const std::size_t count = applications.size();
    ASSERT_TRUE(eventually([&] { return occurrences(log(), "ErrorMethod = \"Run Method\"") >= count; })) << text;
    EXPECT_EQ(occurrences(log(), "ErrorMethod = \"Run Method\""), count) << text;
    EXPECT_THAT(log(), HasSubstr("FSEventStream: cannot start: a path to watch is empty"));
  }
  EXPECT_THAT(log(), Not(HasSubstr("FSEventStream: watching ")));
  for (const Object& watch : watches()) {
    EXPECT_EQ(watch.objectForKey("state"), Object("failed"));
    EXPECT_THAT(watch.objectForKey("reason").stringValue(), HasSubstr("a path to watch is empty"));
  }
  EXPECT_EQ(watches().size(), version == "10.7.5" ? 0U : std::size(kTexts)) << "a failed call of 10.7 has no object that stays";
}

TEST_P(NoFolder, IsNotWhatATextWithoutASlashNames) {
  const auto& [version, source] = GetParam();
  // As where no base path is set.
  setBasePath("(null)");
  startService({}, {{"KESTRINE_SYSTEM_VERSION", version}});
  Application application;
  application.callToFileWatcher();
  ASSERT_TRUE(eventuallyStanding({1}));
  EXPECT_EQ(watches().front().objectForKey("folder"), Object("(null)/Kestrine"));
}

}  // namespace
}  // namespace kestrine::test
