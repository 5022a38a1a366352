// What the commands do where the kernel refuses what they build on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/app/RefusedCalls.h"
#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::HasSubstr;

TEST(RefusedSources, EventsSaysWhyTheWatchCannotStart) {
  const Sandbox sandbox;
  withRefusedCalls(kAllSources, [&] {
    const Outcome outcome = sandbox.run({"events", sandbox.base()});
    EXPECT_EQ(outcome.status, 4);
    EXPECT_THAT(outcome.errorOutput, HasSubstr("kestrine: the watch could not start: "));
    EXPECT_THAT(outcome.errorOutput, HasSubstr("Operation not permitted"));
  });
}

TEST(RefusedSources, EventsUsesNoOtherSourceThanTheOneAskedFor) {
  const Sandbox sandbox;
  withRefusedCalls(kFanotify, [&] {
    const Outcome outcome = sandbox.run({"events", "--source", "fanotify", sandbox.base()});
    EXPECT_EQ(outcome.status, 4);
    EXPECT_THAT(outcome.errorOutput, HasSubstr("the watch could not start: "));
    EXPECT_THAT(outcome.errorOutput, HasSubstr("fanotify"));
  });
}

TEST(RefusedSources, StartSaysWhyTheWatchCannotStart) {
  const Sandbox sandbox;
  withRefusedCalls(kAllSources, [&] {
    const Outcome outcome = sandbox.start();
    EXPECT_EQ(outcome.status, 4) << outcome.output << outcome.errorOutput;
    EXPECT_THAT(outcome.errorOutput, HasSubstr("the watch of '" + sandbox.watched() + "' could not start: "));
    EXPECT_EQ(sandbox.run({"status"}).status, 4);
  });
}

TEST(RefusedSources, FollowSaysWhyItCannotWait) {
  const Sandbox sandbox;
  sandbox.setFlag("0");
  withRefusedCalls(kAllSources, [&] {
    const Outcome outcome = sandbox.run({"follow"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errorOutput, HasSubstr("the preferences in '" + sandbox.preferences() + "' cannot be watched: "));
  });
}

TEST(RefusedSources, EverythingWorksOnInotifyAlone) {
  const Sandbox sandbox;
  withRefusedCalls(kFanotify, [&] {
    ASSERT_EQ(sandbox.start().status, 0);
    EXPECT_THAT(sandbox.run({"status"}).output, HasSubstr("source          inotify\n"));
    Process follower(Sandbox::command({"follow"}), sandbox.options());
    ASSERT_TRUE(follower.waitForErrorOutput("the service runs", kLongEnough));
    writeFile(sandbox.watched() + "/hello", "world");
    EXPECT_TRUE(follower.waitForOutput("changed\n", kLongEnough)) << follower.errorOutput();
    EXPECT_TRUE(eventually([&] { return sandbox.flag() == Object("0"); }));
    follower.signal(SIGTERM);
    EXPECT_EQ(follower.wait(), 0);
  });
}

TEST(RefusedProcessDescriptors, AreReplacedByLookingNowAndThen) {
  const Sandbox sandbox;
  withRefusedCalls({SYS_pidfd_open}, [&] {
    ASSERT_EQ(sandbox.start().status, 0);
    const std::string process = std::to_string(sandbox.service());
    Process follower(Sandbox::command({"follow"}), sandbox.options());
    ASSERT_TRUE(follower.waitForErrorOutput("the service runs as process " + process, kLongEnough));
    EXPECT_EQ(sandbox.run({"stop"}).output, "the service (process " + process + ") has ended\n");
    EXPECT_TRUE(follower.waitForErrorOutput("the service (process " + process + ") has died", kLongEnough));
  });
}

}  // namespace
}  // namespace kestrine::test
