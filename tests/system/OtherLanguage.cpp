// A client that has nothing in common with this code but docs/protocol.md starts the service and the watch.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/system/WatcherFixture.h"

namespace kestrine::test {
namespace {

using testing::HasSubstr;

class OtherLanguage : public WatcherService {
 protected:
  static Outcome run(const std::string& action) {
    return runToEnd({"/usr/bin/env", "python3", KESTRINE_SOURCE_DIR "/tests/system/protocol_client.py", action}, {},
                    std::chrono::seconds(150));
  }

  /// The whole job by way of `action`: the client starts the service, the service the watch, and a change raises the flag.
  void startsAWatchBy(const std::string& action) {
    setBasePath(base());
    const Outcome first = run(action);
    ASSERT_EQ(first.status, 0) << first.errorOutput << first.output;
    const std::string pid = std::to_string(servicePid());
    EXPECT_THAT(first.output, HasSubstr("started the service\n"));
    EXPECT_THAT(first.output, HasSubstr("greeted by " + pid + "\n"));
    EXPECT_THAT(first.output, HasSubstr("the service has "));
    ASSERT_TRUE(eventuallyStanding({1})) << log();
    writeFile(in("file"), "text");
    EXPECT_TRUE(eventuallyFlagged());

    // The service is there now, and the status is told in the same words.
    const Outcome second = run("status");
    ASSERT_EQ(second.status, 0) << second.errorOutput;
    EXPECT_THAT(second.output, HasSubstr("process " + pid + ", "));
    EXPECT_THAT(second.output, HasSubstr("\n1 watches\n"));
  }
};

TEST_F(OtherLanguage, StartsTheWatcherByAnObjectLevelCallAndPassesADescriptor) { startsAWatchBy("call"); }

TEST_F(OtherLanguage, StartsTheWatcherByAnyMessageOn10_7AndPassesADescriptor) {
  setenv("KESTRINE_SYSTEM_VERSION", "10.7.5", 1);
  startsAWatchBy("message");
}

TEST_F(OtherLanguage, IsServedByAServiceThatRunsAlready) {
  setBasePath(base());
  startService();
  for (const std::int64_t watches : {1, 2}) {
    const Outcome outcome = run("call");
    ASSERT_EQ(outcome.status, 0) << outcome.errorOutput << outcome.output;
    EXPECT_EQ(outcome.output.find("started the service"), std::string::npos);
    EXPECT_THAT(outcome.output, HasSubstr("greeted by " + std::to_string(service().pid()) + "\n"));
    // The watch of the client that is gone ends when that of the next one stands.
    ASSERT_TRUE(eventuallyStanding({watches})) << log();
  }
}

TEST_F(OtherLanguage, MessagesThatAreNoCallsStartNothingWhereThereAreCalls) {
  setBasePath(base());
  startService();
  const Outcome outcome = run("ignored");
  EXPECT_EQ(outcome.status, 0) << outcome.errorOutput << outcome.output;
  EXPECT_THAT(outcome.output, HasSubstr("the service has closed the pipe\n"));
  const Outcome status = run("status");
  EXPECT_THAT(status.output, HasSubstr("\n0 watches\n"));
}

}  // namespace
}  // namespace kestrine::test
