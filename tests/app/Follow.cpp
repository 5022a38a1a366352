// `kestrine follow`, with the flag raised by the test in the service's place, and with the real service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::HasSubstr;
using testing::MatchesRegex;

std::size_t lines(const std::string& text) { return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')); }

class FollowCommand : public testing::Test {
 protected:
  /// Follows and waits until the watch stands: a flag that was raised before is told then.
  void follow(const std::vector<std::string>& options = {}) {
    sandbox.setFlag("1");
    std::vector<std::string> arguments = {"follow"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    follower = std::make_unique<Process>(Sandbox::command(arguments), sandbox.options());
    ASSERT_TRUE(eventually([&] { return sandbox.flag() == Object("0"); }, kLongEnough)) << follower->errorOutput();
  }

  bool eventuallyLines(std::size_t count) {
    return eventually([&] { return lines(follower->output()) >= count; }, kLongEnough);
  }

  Sandbox sandbox;
  std::unique_ptr<Process> follower;
};

TEST_F(FollowCommand, PrintsALineWithTheTimeForEachRaisedFlagAndResetsIt) {
  follow();
  for (std::size_t i = 2; i <= 5; ++i) {
    sandbox.setFlag("1");
    ASSERT_TRUE(eventuallyLines(i)) << follower->output() << follower->errorOutput();
    EXPECT_TRUE(eventually([&] { return sandbox.flag() == Object("0"); }));
  }
  follower->signal(SIGTERM);
  EXPECT_EQ(follower->wait(), 0);
  EXPECT_THAT(follower->output(), MatchesRegex("([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} changed\n){5}"));
}

TEST_F(FollowCommand, PrintsJson) {
  follow({"--json"});
  ASSERT_TRUE(eventuallyLines(2));
  follower->signal(SIGINT);
  EXPECT_EQ(follower->wait(), 0);
  const std::string output = follower->output();
  rapidjson::Document first;
  rapidjson::Document second;
  ASSERT_FALSE(first.Parse(output.substr(0, output.find('\n')).c_str()).HasParseError()) << output;
  ASSERT_FALSE(second.Parse(output.substr(output.find('\n') + 1).c_str()).HasParseError()) << output;
  EXPECT_STREQ(first["service"].GetString(), "not running");
  EXPECT_STREQ(second["flag"].GetString(), "1");
  EXPECT_THAT(second["time"].GetString(), MatchesRegex("[0-9-]+T[0-9:]+\\.[0-9]{3}Z"));
}

TEST_F(FollowCommand, LeavesEveryOtherValueOfTheFlagAlone) {
  follow();
  sandbox.setFlag("2");
  sandbox.setFlag("1");
  ASSERT_TRUE(eventuallyLines(2));
  sandbox.setFlag("yes");
  follower->signal(SIGTERM);
  EXPECT_EQ(follower->wait(), 0);
  EXPECT_EQ(sandbox.flag(), Object("yes"));
}

TEST_F(FollowCommand, EndsWithTheFlagLeftAsItIs) {
  follow();
  follower->signal(SIGINT);
  EXPECT_EQ(follower->wait(), 0);
  sandbox.setFlag("1");
  EXPECT_EQ(sandbox.flag(), Object("1"));
}

TEST_F(FollowCommand, WaitsForAPreferencesFolderThatIsNotThereYet) {
  follower = std::make_unique<Process>(Sandbox::command({"follow"}), sandbox.options());
  ASSERT_TRUE(follower->waitForErrorOutput("the service is not running; 'kestrine start' starts it", kLongEnough));
  sandbox.setFlag("1");
  EXPECT_TRUE(eventuallyLines(1)) << follower->errorOutput();
  EXPECT_TRUE(eventually([&] { return sandbox.flag() == Object("0"); }));
}

TEST_F(FollowCommand, SleepsWhileNothingHappens) {
  follow();
  ASSERT_TRUE(eventuallyLines(1));
  // Context switches are wake-ups: of every thread, but where a sanitizer has a thread of its own, of the first.
  const auto switches = [&] {
    std::string text;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(follower->pid()) + "/task")) {
#ifdef KESTRINE_SANITIZED
      if (task.path().filename() != std::to_string(follower->pid())) continue;
#endif
      const std::string status = readFile(task.path() / "status");
      text += status.substr(status.find("\nvoluntary_ctxt_switches"));
    }
    return text;
  };
  // The echo of its own writing settles first.
  std::string before;
  ASSERT_TRUE(eventually([&] {
    const std::string now = switches();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    before = switches();
    return now == before;
  }));
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_EQ(switches(), before);
}

TEST_F(FollowCommand, RaisesTheFlagAgainWhenNobodyReadsWhatItPrints) {
  sandbox.setFlag("0");
  const std::string script = "exec 3>&1; { '" KESTRINE_COMMAND "' follow; echo \"ended with $?\" >&3; } | read -r line; exit 0";
  Process shell({"bash", "-c", script}, sandbox.options());
  ASSERT_TRUE(shell.waitForErrorOutput("not running", kLongEnough));
  // The reader takes the first line and goes; the second line reaches nobody.
  sandbox.setFlag("1");
  ASSERT_TRUE(eventually([&] { return sandbox.flag() == Object("0"); }, kLongEnough));
  ASSERT_TRUE(eventually(
      [&] {
        if (sandbox.flag() == Object("0")) sandbox.setFlag("1");
        return shell.output().find("ended with 0") != std::string::npos;
      },
      kLongEnough))
      << shell.output() << shell.errorOutput();
  EXPECT_EQ(sandbox.flag(), Object("1"));
}

TEST_F(FollowCommand, SaysThatTheServiceDiedAndFollowsTheNextOne) {
  ASSERT_EQ(sandbox.start().status, 0);
  const pid_t service = sandbox.service();
  follower = std::make_unique<Process>(Sandbox::command({"follow"}), sandbox.options());
  ASSERT_TRUE(follower->waitForErrorOutput("the service runs as process " + std::to_string(service), kLongEnough));
  signalProcess(service, SIGKILL);
  ASSERT_TRUE(follower->waitForErrorOutput("the service (process " + std::to_string(service) + ") has died", kLongEnough));
  ASSERT_EQ(sandbox.start().status, 0);
  writeFile(sandbox.watched() + "/hello", "again");
  EXPECT_TRUE(eventuallyLines(1)) << follower->errorOutput();
  EXPECT_TRUE(follower->waitForErrorOutput("the service runs as process " + std::to_string(sandbox.service()), kLongEnough));
}

}  // namespace
}  // namespace kestrine::test
