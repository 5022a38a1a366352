// The report of a watch that could not be started, as the product's server gets it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/services/ProductServer.h"
#include "tests/support/KernelFilter.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/watcher/WatcherFixture.h"
#include "watcher/FileWatcherServiceXPC.h"

namespace kestrine::test {
namespace {

using platform::Dictionary;
using platform::Object;
using testing::ElementsAre;
using testing::MatchesRegex;
using testing::StartsWith;

const std::vector<std::string> kOutcomes = {"Error occured....", "the failure could not be reported"};

class FailureReport : public WatcherTest {
 protected:
  /// Fails to start a watch with these preferences besides the base path, and returns what became of the report.
  static std::vector<std::string> report(Dictionary preferences) {
    preferences.emplace("kestrinePathKey", "/Users/a b");
    EXPECT_TRUE(defaults().setPersistentDomain_forName(preferences, kSharedDomain));
    CapturedLog log;
    FileWatcherServiceXPC controller;
    controller.initFileWatcher();
    // Nothing but the log tells that the report has ended. The log is captured in a file, which can be read meanwhile.
    EXPECT_TRUE(served([] {
      platform::flushLog();
      const std::string soFar = readFile("/proc/self/fd/2");
      return std::ranges::any_of(kOutcomes, [&](const std::string& outcome) { return soFar.find(outcome) != std::string::npos; });
    }));
    serveFor(0.2);
    const std::vector<std::string> texts = log.end();
    EXPECT_EQ(statusSection("watches").back().objectForKey("state"), Object("failed"));
    EXPECT_TRUE(statusOnDisk().isNil());
    return beginningWith(kOutcomes, texts);
  }
  static Dictionary fixedTexts() {
    return {{"ErrorClass", "FileWatcher"}, {"ErrorMethod", "Run Method"}, {"ErrorMessage", "Exception has occured"}};
  }
};

TEST_F(FailureReport, IsOneRequestWithFixedTextsAndTheIdentifiersOfThePreferences) {
  inRestNetwork([] {
    for (const char* system : {"14.0", "10.9.5", "10.7.5"}) {
      setenv("KESTRINE_SYSTEM_VERSION", system, 1);
      ProductServer server;
      EXPECT_THAT(report({{"computerIdKey", "c-1"}, {"userIdKey", "u-1"}, {"other", "x"}}),
                  ElementsAre(MatchesRegex("Error occured\\.\\.\\.\\.<LogErrorResponseData: 0x[0-9a-f]+>")));
      const auto requests = server.requests();
      ASSERT_EQ(requests.size(), 1U);
      EXPECT_EQ(requests[0].method, "POST");
      EXPECT_EQ(requests[0].target, "/KestrineRestService/MAC/ErrorLog.svc/LogError");
      Dictionary body = fixedTexts();
      body.emplace("ComputerID", "c-1");
      body.emplace("UserID", "u-1");
      EXPECT_EQ(platform::readJSON(requests[0].body), Object(body));
    }
  });
}

TEST_F(FailureReport, LeavesOutIdentifiersThatThePreferencesLack) {
  inRestNetwork([] {
    ProductServer server;
    report({});
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_EQ(platform::readJSON(server.requests()[0].body), Object(fixedTexts()));
  });
}

TEST_F(FailureReport, IsOnlyLoggedWhenItCannotBeDelivered) {
  inRestNetwork([] {
    EXPECT_THAT(report({}), ElementsAre(StartsWith("Error occured....Error Domain=NSURLErrorDomain Code=-1004 ")));
    ProductServer server;
    server.setAnswer("MAC/ErrorLog.svc/LogError", "no JSON");
    EXPECT_THAT(report({}), ElementsAre(StartsWith("Error occured....Error Domain=")));
  });
}

TEST_F(FailureReport, WithoutANetworkIsOneLineWithNothing) {
  inNetworkNamespace([] {
    CapturedLog log;
    FileWatcherServiceXPC controller;
    controller.setIAppsPrefs(Dictionary{});
    controller.logErrorMethod(platform::Exception("a name", "a reason"));
    // The first line is the operation's own, which logs what it is about to send.
    EXPECT_THAT(log.end(), ElementsAre(StartsWith("{\n    ErrorClass = FileWatcher;\n"), "Error occured....(null)"));
  });
}

TEST_F(FailureReport, ThatCannotBeMadeOn10_7IsLogged) {
  inRestNetwork([] {
    setenv("KESTRINE_SYSTEM_VERSION", "10.7.5", 1);
    ProductServer server;
    EXPECT_THAT(report({{"userIdKey", "u-1"}}), ElementsAre(StartsWith("the failure could not be reported: NSInvalidArgumentException: ")));
    EXPECT_TRUE(server.requests().empty());
  });
}

TEST_F(FailureReport, ThatFindsNoThreadIsLogged) {
  if (!withoutThreads([] {})) GTEST_SKIP() << "left out: a system without threads left, because this kernel takes no filter";
  inRestNetwork([] {
    setBasePath("/Users/a b");
    const ProductServer server;
    CapturedLog log;
    platform::NSLog("the log has its thread");
    withoutThreads([] {
      FileWatcherServiceXPC controller;
      controller.initFileWatcher();
    });
    EXPECT_THAT(beginningWith(kOutcomes, log.end()), ElementsAre(StartsWith("the failure could not be reported: ")));
  });
}

}  // namespace
}  // namespace kestrine::test
