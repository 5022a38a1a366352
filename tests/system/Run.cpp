// script/run as a newcomer meets it, on the tree that is being tested.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/foundation/formats/JSON.h"
#include "platform/foundation/value/Dictionary.h"
#include "tests/app/RefusedCalls.h"
#include "tests/app/Sandbox.h"
#include "tests/support/NetworkNamespace.h"

namespace kestrine::test {
namespace {

using testing::HasSubstr;

const std::string kScript = std::string(KESTRINE_SOURCE_DIR) + "/script/run";

std::string buildFolder() { return std::filesystem::path(KESTRINE_COMMAND).parent_path().parent_path(); }

/// The processes whose environment names `folder`, by number: those that the script started, wherever they are now.
std::vector<std::string> processesOf(const std::string& folder) {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (!std::ranges::all_of(name, [](unsigned char c) { return std::isdigit(c) != 0; })) continue;
    std::ifstream file(entry.path() / "environ", std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (text.find(folder) != std::string::npos) found.push_back(name);
  }
  return found;
}

class RunScript : public testing::Test {
 protected:
  RunScript() {
    options.environment = {{"HOME", sandbox.folder("home")}, {"KESTRINE_BUILD_DIR", buildFolder()}, {"TMPDIR", scratch.path()}};
    // Nothing of the surroundings that the script makes for itself.
    for (const char* name : {"XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"}) {
      options.environment[name] = sandbox.folder("mine");
    }
  }

  /// In a session of its own, as in a terminal of its own.
  void run(const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> words = {"setsid", kScript};
    words.insert(words.end(), arguments.begin(), arguments.end());
    script = std::make_unique<Process>(words, options);
    ASSERT_TRUE(script->waitForOutput("Ctrl-C ends", kLongEnough)) << script->output() << script->errorOutput();
  }

  /// The command that the script proposes, run by a shell.
  void makeTheChangeProposed() {
    const std::string output = script->output();
    const auto begin = output.find("  touch ");
    ASSERT_NE(begin, std::string::npos) << output;
    EXPECT_EQ(runToEnd({"sh", "-c", output.substr(begin, output.find('\n', begin) - begin)}).status, 0);
  }

  bool eventuallyChanged(std::ptrdiff_t count) {
    return eventually(
        [&] {
          const std::string output = script->output();
          std::ptrdiff_t found = 0;
          for (auto position = output.find(" changed\n"); position != std::string::npos; position = output.find(" changed\n", position + 1))
            ++found;
          return found >= count;
        },
        kLongEnough);
  }

  void expectNothingLeft() const {
    EXPECT_TRUE(std::filesystem::is_empty(scratch.path()));
    EXPECT_TRUE(eventually([&] { return processesOf(scratch.path() + "/kestrine-run").empty(); }));
    EXPECT_THAT(readFile("/proc/net/unix"), testing::Not(HasSubstr(scratch.path())));
    EXPECT_FALSE(std::filesystem::exists(sandbox.folder("mine")));
  }

  Sandbox sandbox;
  TemporaryDirectory scratch;
  Process::Options options;
  std::unique_ptr<Process> script;
};

TEST_F(RunScript, ShowsTheFlagBeingRaisedAfterEachResetAndLeavesNothing) {
  run();
  EXPECT_THAT(script->output(), HasSubstr("standing, '" + scratch.path() + "/kestrine-run."));
  for (int i = 1; i <= 3; ++i) {
    makeTheChangeProposed();
    ASSERT_TRUE(eventuallyChanged(i)) << script->output() << script->errorOutput();
  }
  EXPECT_FALSE(processesOf(scratch.path() + "/kestrine-run").empty());
  // What a terminal does on Ctrl-C.
  ASSERT_EQ(kill(-script->pid(), SIGINT), 0);
  EXPECT_EQ(script->wait(), 0) << script->errorOutput();
  expectNothingLeft();
}

TEST_F(RunScript, DoesTheSameWhereTheServiceHasNoListener) {
  options.environment["KESTRINE_SYSTEM_VERSION"] = "10.7.5";
  run();
  for (int i = 1; i <= 2; ++i) {
    makeTheChangeProposed();
    ASSERT_TRUE(eventuallyChanged(i)) << script->output() << script->errorOutput();
  }
  ASSERT_EQ(kill(-script->pid(), SIGINT), 0);
  EXPECT_EQ(script->wait(), 0) << script->errorOutput();
  expectNothingLeft();
}

TEST_F(RunScript, WatchesTheFolderGivenAndLeavesItAlone) {
  run({sandbox.base()});
  makeTheChangeProposed();
  ASSERT_TRUE(eventuallyChanged(1)) << script->errorOutput();
  script->signal(SIGTERM);
  EXPECT_EQ(script->wait(), 0);
  expectNothingLeft();
  EXPECT_TRUE(std::filesystem::exists(sandbox.watched() + "/hello"));
}

TEST_F(RunScript, SaysWhyItCannotWatchAndLeavesNothing) {
  writeFile(sandbox.folder("a file"), "text");
  const Outcome outcome = runToEnd({kScript, sandbox.folder("a file")}, options);
  EXPECT_EQ(outcome.status, 5);
  EXPECT_THAT(outcome.errorOutput, HasSubstr("is no folder"));
  expectNothingLeft();
}

TEST_F(RunScript, ShowsTheOneReportOfAWatchThatCannotStart) {
  if (const std::string refusal = refusalOfNetworkNamespaces(); !refusal.empty())
    GTEST_SKIP() << "left out: script/run --report, " << refusal;
  const Outcome outcome = runToEnd({kScript, "--report"}, options);
  ASSERT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
  // Without a network a line with nothing, then the server's answer.
  const auto second = outcome.output.find("== The same, with a network and a server\n");
  ASSERT_NE(second, std::string::npos) << outcome.output;
  EXPECT_THAT(outcome.output.substr(0, second), HasSubstr("] Error occured....(null)\n"));
  EXPECT_THAT(outcome.output.substr(second), HasSubstr("] Error occured....<LogErrorResponseData: 0x"));
  const auto body = outcome.output.find("POST /KestrineRestService/MAC/ErrorLog.svc/LogError\n{");
  const auto end = outcome.output.find("}\nrequests: 1\n");
  ASSERT_NE(body, std::string::npos) << outcome.output;
  ASSERT_NE(end, std::string::npos) << outcome.output;
  const auto brace = outcome.output.find('{', body);
  EXPECT_EQ(platform::readJSON(outcome.output.substr(brace, end + 1 - brace)),
            platform::Object(platform::Dictionary{{"ErrorClass", "FileWatcher"},
                                                  {"ErrorMethod", "Run Method"},
                                                  {"ErrorMessage", "Exception has occured"},
                                                  {"ComputerID", "a-computer"},
                                                  {"UserID", "a-user"}}));
  EXPECT_THAT(outcome.output.substr(end), HasSubstr("service           running, process "));
  expectNothingLeft();
}

TEST_F(RunScript, EndsAServiceThatIsStuck) {
  run();
  const std::string output = script->output();
  const auto position = output.find("by process ") + 11;
  stopProcess(static_cast<pid_t>(std::stol(output.substr(position))));
  script->signal(SIGTERM);
  EXPECT_EQ(script->wait(kLongEnough), 0);
  expectNothingLeft();
}

TEST_F(RunScript, WorksWithoutARuntimeFolderAndWithoutFanotify) {
  options.clearEnvironment = true;
  options.environment = {{"PATH", "/usr/bin:/bin"}, {"KESTRINE_BUILD_DIR", buildFolder()}, {"TMPDIR", scratch.path()}};
  withRefusedCalls(kFanotify, [&] {
    run();
    EXPECT_THAT(script->output(), HasSubstr("source          inotify\n"));
    makeTheChangeProposed();
    EXPECT_TRUE(eventuallyChanged(1)) << script->errorOutput();
    script->signal(SIGTERM);
    EXPECT_EQ(script->wait(), 0);
  });
  expectNothingLeft();
}

TEST_F(RunScript, WorksForAnOrdinaryUser) {
  if (geteuid() != 0) GTEST_SKIP() << "left out: run as another user, because the tests run as an ordinary one already";
  const std::vector<std::string> asNobody = {"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"};
  std::vector<std::string> probe = asNobody;
  probe.insert(probe.end(), {"test", "-x", KESTRINE_COMMAND, "-a", "-x", kScript});
  if (runToEnd(probe).status != 0) GTEST_SKIP() << "left out: run as an ordinary user, because that user may not read this build";
  ASSERT_EQ(chown(scratch.path().c_str(), 65534, 65534), 0);
  std::vector<std::string> words = asNobody;
  words.push_back(kScript);
  script = std::make_unique<Process>(words, options);
  ASSERT_TRUE(script->waitForOutput("Ctrl-C ends", kLongEnough)) << script->output() << script->errorOutput();
  makeTheChangeProposed();
  EXPECT_TRUE(eventuallyChanged(1)) << script->errorOutput();
  script->signal(SIGINT);
  EXPECT_EQ(script->wait(), 0);
  expectNothingLeft();
}

TEST_F(RunScript, HelpsAndRefusesWhatItDoesNotUnderstand) {
  const Outcome help = runToEnd({kScript, "--help"}, options);
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.output, HasSubstr("script/run [BASE]"));
  EXPECT_EQ(runToEnd({kScript, "--fast"}, options).status, 2);
  EXPECT_EQ(runToEnd({kScript, "a", "b"}, options).status, 2);
  EXPECT_EQ(runToEnd({kScript, "--report", "a"}, options).status, 2);
  expectNothingLeft();
}

}  // namespace
}  // namespace kestrine::test
