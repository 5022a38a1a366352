// What `kestrine events` says of what it cannot tell.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/app/Sandbox.h"

namespace kestrine::test {
namespace {

struct LimitedSource {
  std::string name;
  std::string limit;
};
const LimitedSource kLimitedSources[] = {{"fanotify", "max_fanotify_marks"}, {"inotify", "max_inotify_watches"}};

/// The command with few marks to give out, in a user namespace where the limit may be changed.
class EventsLosses : public testing::Test {
 protected:
  void SetUp() override {
    const Outcome possible = runToEnd({"unshare", "-Ur", "sh", "-c", "echo 4 > /proc/sys/user/max_fanotify_marks"}, sandbox.options());
    if (possible.status != 0) GTEST_SKIP() << "left out: a limit of marks, because there are no user namespaces: " << possible.errorOutput;
    makeFolder(tree());
    for (char name = '0'; name <= '9'; ++name) makeFolder(tree() + "/" + name);
  }
  [[nodiscard]] std::string tree() const { return sandbox.folder("tree"); }

  void watch(const LimitedSource& source, const std::vector<std::string>& options) {
    std::vector<std::string> words = {"unshare", "-Ur", "sh", "-c", "echo 4 > /proc/sys/user/" + source.limit + R"( && exec "$@")", "sh"};
    std::vector<std::string> arguments = {"events", "--source", source.name, "--latency", "0.01"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.push_back(tree());
    for (std::string& word : Sandbox::command(arguments)) words.push_back(std::move(word));
    watcher = std::make_unique<Process>(words, sandbox.options());
  }
  void raiseLimit(const LimitedSource& source) const {
    const Outcome raised = runToEnd({"nsenter", "-U", "--preserve-credentials", "-t", std::to_string(watcher->pid()), "sh", "-c",
                                     "echo 1000 > /proc/sys/user/" + source.limit},
                                    sandbox.options());
    ASSERT_EQ(raised.status, 0) << raised.errorOutput;
  }
  void end() const {
    watcher->signal(SIGTERM);
    EXPECT_EQ(watcher->wait(), 0) << watcher->errorOutput();
  }

  Sandbox sandbox;
  std::unique_ptr<Process> watcher;
};

TEST_F(EventsLosses, BeginWithReasonAndRemedyAndEndAsObjects) {
  for (const LimitedSource& source : kLimitedSources) {
    SCOPED_TRACE(source.name);
    watch(source, {"--json"});
    ASSERT_TRUE(watcher->waitForOutput(R"({"loss": {"path": ")" + tree() + R"(", "reason": ")", kLongEnough))
        << watcher->output() << watcher->errorOutput();
    EXPECT_TRUE(watcher->waitForOutput(
        "user." + source.limit + " = 4\", \"remedy\": \"raise it with: sysctl user." + source.limit + "=N\"}}\n", kLongEnough))
        << watcher->output();
    EXPECT_TRUE(watcher->waitForOutput("MustScanSubDirs", kLongEnough)) << watcher->output();
    raiseLimit(source);
    EXPECT_TRUE(watcher->waitForOutput(R"({"recovered": {"path": ")" + tree() + "\"}}\n", kLongEnough)) << watcher->output();
    end();
    EXPECT_LT(watcher->output().find("{\"ready\": true"), watcher->output().find("{\"loss\": "));
    EXPECT_LT(watcher->output().find("{\"loss\": "), watcher->output().find("{\"recovered\": "));
  }
}

TEST_F(EventsLosses, AreLinesOnStandardErrorForPeople) {
  const LimitedSource& source = kLimitedSources[1];
  watch(source, {});
  EXPECT_TRUE(watcher->waitForErrorOutput("\nlost " + tree() + ": ", kLongEnough)) << watcher->errorOutput();
  raiseLimit(source);
  EXPECT_TRUE(watcher->waitForErrorOutput("\nrecovered " + tree() + "\n", kLongEnough)) << watcher->errorOutput();
  end();
  EXPECT_THAT(watcher->output(), testing::Not(testing::HasSubstr("recovered")));
}

}  // namespace
}  // namespace kestrine::test
