// script/test on a small project whose tests fail, crash, hang and fill the disk, and broken off in every way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>

#include "tests/support/Eventually.h"
#include "tests/system/ScriptProject.h"

// The scripts are the same under a sanitizer.
#ifndef KESTRINE_SANITIZED
namespace kestrine::test {
namespace {

using testing::HasSubstr;

constexpr auto kLongEnough = std::chrono::seconds(60);

const std::string kPresets = R"({"version": 3, "configurePresets": [
  {"name": "release", "generator": "Ninja"}, {"name": "asan", "inherits": "release"}, {"name": "tsan", "inherits": "release"}]})";

/// A project with these lines of CMake about its tests.
ScriptProject projectWith(const std::string& tests) {
  return ScriptProject(
      {{"CMakePresets.json", kPresets},
       {"CMakeLists.txt", "cmake_minimum_required(VERSION 3.25)\nproject(small LANGUAGES NONE)\nenable_testing()\n" + tests}});
}

/// What the script printed last: from the headline over what failed on.
std::string ending(const std::string& output) {
  const auto position = output.rfind("== release: what failed\n");
  return position == std::string::npos ? "" : output.substr(position);
}

TEST(TestScript, NamesWhatFailedCrashedHungAndIsMissingInItsLastLines) {
  const ScriptProject project = projectWith(R"(
    add_test(NAME good COMMAND true)
    add_test(NAME bad COMMAND sh -c "echo 'some.cpp:7: Failure'; echo 'an unexpected answer'; exit 1")
    add_test(NAME crash COMMAND sh -c "kill -SEGV $$")
    add_test(NAME aborted COMMAND sh -c "echo 'terminate called' >&2; kill -ABRT $$")
    add_test(NAME hang COMMAND sh -c "echo 'the last that was heard'; exec sleep 1000")
    set_tests_properties(hang PROPERTIES TIMEOUT 1)
    add_test(NAME missing COMMAND /no/such/program)
  )");
  const Outcome outcome = project.run({"script/test"});
  EXPECT_EQ(outcome.status, 1) << outcome.output << outcome.errorOutput;
  const std::string last = ending(outcome.output);
  EXPECT_THAT(last, testing::ContainsRegex("\nbad [^\n]*: failed\n    some.cpp:7: Failure\n    an unexpected answer\n"));
  EXPECT_THAT(last, testing::ContainsRegex("\ncrash [^\n]*: crashed: segmentation fault\n"));
  EXPECT_THAT(last, testing::ContainsRegex("\naborted [^\n]*: crashed: aborted\n    terminate called\n"));
  EXPECT_THAT(last, testing::ContainsRegex("\nhang [^\n]*: hung: ended at its limit\n    the last that was heard\n"));
  EXPECT_THAT(last, testing::ContainsRegex("\nmissing [^\n]*: could not be started\n"));
  EXPECT_THAT(last, HasSubstr("17% tests passed, 5 tests failed out of 6"));
  EXPECT_THAT(outcome.output, testing::ContainsRegex("\nrelease +built in [0-9]+ s +tested in [0-9]+ s\n"));
  EXPECT_TRUE(std::filesystem::is_empty(project.memory()));
}

TEST(TestScript, RunsTheOptimisedTestsAloneUnlessAskedForMore) {
  const ScriptProject project = projectWith("add_test(NAME good COMMAND true)\n");
  const Outcome outcome = project.run({"script/test"});
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
  EXPECT_THAT(outcome.output, testing::EndsWith("\n"));
  EXPECT_THAT(outcome.output, HasSubstr("\n== release\n100% tests passed, 0 tests failed out of 1\n"));
  EXPECT_TRUE(std::filesystem::exists(project.path("build/release")));
  EXPECT_FALSE(std::filesystem::exists(project.path("build/asan")));
  EXPECT_EQ(project.run({"script/test", "release", "--", "-R", "nothing"}).status, 1) << "no test is no success";
}

TEST(TestScript, LetsNothingPassThatTheQuickLintFinds) {
  const ScriptProject project = projectWith("add_test(NAME good COMMAND true)\n");
  project.write("script/lint", "#!/bin/sh\necho 'x.cpp:1: a fault'\necho 'FAILED  rooms'\nexit 1\n");
  const Outcome outcome = project.run({"script/test", "all"});
  EXPECT_EQ(outcome.status, 1) << outcome.output;
  const auto told = outcome.output.rfind("== script/lint quick: FAILED\nx.cpp:1: a fault\n");
  ASSERT_NE(told, std::string::npos) << outcome.output;
  for (const char* preset : {"release", "asan", "tsan"}) {
    EXPECT_THAT(outcome.output, testing::ContainsRegex(std::string("\n") + preset + " +built in [0-9]+ s"));
  }
}

TEST(TestScript, SaysInOneLineThatTheDiskIsFull) {
  const std::vector<std::string> unshare = {"unshare", "--mount", "--map-root-user"};
  std::vector<std::string> words = unshare;
  words.emplace_back("true");
  if (runToEnd(words).status != 0) GTEST_SKIP() << "left out: a full disk, because this machine refuses mount namespaces";
  const ScriptProject project = projectWith(R"(add_test(NAME fill COMMAND sh -c "head -c 40m /dev/zero >fill"))");
  makeFolder(project.path("build"));
  words = unshare;
  words.insert(words.end(), {"sh", "-c", "mount -t tmpfs -o size=32m none build && script/test"});
  const Outcome outcome = project.run(words);
  EXPECT_EQ(outcome.status, 1) << outcome.output << outcome.errorOutput;
  EXPECT_THAT(outcome.output, testing::ContainsRegex("\nscript/test: the disk is full: [^\n]*/build has 0 left[^\n]*\n$"));
  EXPECT_TRUE(std::filesystem::is_empty(project.memory()));
}

pid_t childOf(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
  pid_t child = 0;
  file >> child;
  return child;
}

struct End {
  const char* name;
  int signal;
  /// How far below the process that the user sees.
  int depth;
  int status;
};

class TestScriptBrokenOff : public testing::TestWithParam<End> {};

TEST_P(TestScriptBrokenOff, LeavesNothing) {
  const ScriptProject project = projectWith(R"(
    add_test(NAME life COMMAND sh -c "mkdir -p $TMPDIR/a/b; chmod 0 $TMPDIR/a/b
      setsid sh -c 'trap \"\" TERM HUP INT; touch \"$0\"; sleep 1000; sleep 1000' ${CMAKE_SOURCE_DIR}/started & sleep 1000"))");
  std::vector<std::string> words = {"script/test"};
  Process script(words, project.options());
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(project.path("started")); }, kLongEnough)) << script.output();
  EXPECT_GT(project.processes(), 4U);
  EXPECT_FALSE(std::filesystem::is_empty(project.memory()));
  pid_t target = script.pid();
  for (int i = 0; i < GetParam().depth; ++i) target = childOf(target);
  ASSERT_GT(target, 1);
  ASSERT_EQ(kill(target, GetParam().signal), 0);
  EXPECT_EQ(script.wait(kLongEnough), GetParam().status) << script.output() << script.errorOutput();
  EXPECT_TRUE(eventually([&] { return project.processes() == 0 && std::filesystem::is_empty(project.memory()); }, kLongEnough));
}

INSTANTIATE_TEST_SUITE_P(TestScript, TestScriptBrokenOff,
                         testing::Values(End{"ByCtrlC", SIGINT, 0, 130}, End{"ByTheTerminal", SIGHUP, 0, 129},
                                         End{"ByRequest", SIGTERM, 0, 143}, End{"ByForce", SIGKILL, 0, 137},
                                         End{"ByForceToItsGuardian", SIGKILL, 1, 137}, End{"ByForceToItsShell", SIGKILL, 2, 137}),
                         [](const auto& end) { return end.param.name; });

}  // namespace
}  // namespace kestrine::test
#endif
