// script/lint on copies with faults put in for the purpose.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "tests/support/Eventually.h"
#include "tests/system/ScriptProject.h"

// The scripts are the same under a sanitizer.
#ifndef KESTRINE_SANITIZED
namespace kestrine::test {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

bool has(const std::string& program) { return runToEnd({"sh", "-c", "command -v " + program}).status == 0; }

TEST(LintScript, NamesEachKindOfFaultQuickly) {
  if (!has("clang-format")) GTEST_SKIP() << "left out: what script/lint quick finds, because clang-format is not installed";
  const TemporaryDirectory copy;
  copyProject(copy.path());
  Process::Options options;
  options.directory = copy.path();
  const Outcome sound = runToEnd({"script/lint", "quick"}, options, std::chrono::minutes(5));
  EXPECT_EQ(sound.status, 0) << sound.output << sound.errorOutput;

  const std::string base = copy / "src/platform/foundation/base";
  writeFile(base + "/Arrow.cpp", "#include \"platform/foundation/value/Object.h\"\n");
  writeFile(base + "/Curl.cpp", "#include <curl/curl.h>\n");
  writeFile(copy / "src/watcher/Epoll.cpp", "#include <sys/epoll.h>\n");
  writeFile(base + "/Format.cpp", "int  twoBlanks = 2;\n");
  std::string lines;
  for (int i = 0; i < 501; ++i) lines += "//\n";
  writeFile(base + "/Long.cpp", lines);
  writeFile(base + "/Word.cpp", "// TODO later\n");
  writeFile(copy / "script/broken", "#!/usr/bin/env bash\nif true; then\n");
  const Outcome outcome = runToEnd({"script/lint", "quick"}, options, std::chrono::minutes(5));
  EXPECT_EQ(outcome.status, 1);
  const std::string room = "src/platform/foundation/base";
  EXPECT_THAT(outcome.output, HasSubstr(room + "/Arrow.cpp:1: platform_foundation_base may not use platform_foundation_value"));
  EXPECT_THAT(outcome.output, HasSubstr(room + "/Curl.cpp:1: may not include <curl/curl.h>"));
  EXPECT_THAT(outcome.output, HasSubstr("src/watcher/Epoll.cpp:1: may not include <sys/epoll.h>"));
  EXPECT_THAT(outcome.output, HasSubstr(room + "/Format.cpp:1: not as clang-format has it"));
  EXPECT_THAT(outcome.output, HasSubstr(room + "/Long.cpp: 501 lines"));
  EXPECT_THAT(outcome.output, HasSubstr(room + "/Word.cpp:1: TODO"));
  EXPECT_THAT(outcome.output, HasSubstr("script/broken: line"));
  EXPECT_THAT(outcome.output, HasSubstr("5 checks failed"));
}

/// A project of two rooms with the real settings, without tests.
std::map<std::string, std::string> smallProject() {
  std::map<std::string, std::string> files = {
      {".gitignore", "/build/\n/memory/\n"},
      {"CMakeLists.txt", R"(cmake_minimum_required(VERSION 3.25)
project(small LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
list(APPEND CMAKE_MODULE_PATH "${PROJECT_SOURCE_DIR}/cmake")
include(CompilerSettings)
include(Rooms)
add_library(kestrine_pch STATIC cmake/Precompiled.cpp)
target_link_libraries(kestrine_pch PRIVATE kestrine_compile)
target_precompile_headers(kestrine_pch PRIVATE <cstddef>)
add_custom_target(kestrine_test_pch)
add_subdirectory(src/low)
add_subdirectory(src/high)
)"},
      {"src/low/CMakeLists.txt", "kestrine_room(low)\n"},
      {"src/low/Low.h", "#pragma once\n\nint low(int number);\n"},
      {"src/low/Low.cpp", "#include \"low/Low.h\"\n\nint low(int number) { return number - 1; }\n"},
      {"src/low/Other.cpp", "int other(int number);\nint other(int number) { return number; }\n"},
      {"src/high/CMakeLists.txt", "kestrine_room(high USES low)\n"},
      {"src/high/High.cpp", "#include \"low/Low.h\"\n\nint high(int number);\nint high(int number) { return low(number) + 1; }\n"},
      {"tests/defects/run", "#!/bin/sh\nexit 0\n"}};
  for (const char* name : {"cmake/CompilerSettings.cmake", "cmake/Rooms.cmake", "cmake/Precompiled.cpp", "CMakePresets.json", ".clang-tidy",
                           ".clang-format"}) {
    files[name] = readFile(std::string(KESTRINE_SOURCE_DIR) + "/" + name);
  }
  return files;
}

class LintScriptAnalysis : public testing::Test {
 protected:
  void SetUp() override {
    if (!has("clang-tidy") || !has("clang-format")) GTEST_SKIP() << "left out: script/lint's analysis, because clang-tidy is not installed";
    const Outcome outcome = project.run({"sh", "-c",
                                         "git init -q -b main && git add -A && "
                                         "git -c user.name=n -c user.email=e@localhost -c commit.gpgsign=false commit -qm first"});
    ASSERT_EQ(outcome.status, 0) << outcome.errorOutput;
  }

  /// How much was found clean and is remembered.
  [[nodiscard]] std::ptrdiff_t clean() const {
    std::error_code none;
    return std::distance(std::filesystem::directory_iterator(project.path("build/lint"), none), {});
  }

  ScriptProject project{smallProject()};
};

TEST_F(LintScriptAnalysis, LooksAtWhatChangedAndAtAHeaderThroughAFileThatIncludesIt) {
  Outcome outcome = project.run({"script/lint"});
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
  EXPECT_THAT(outcome.output, HasSubstr("no source has changed\n"));

  project.write("src/low/Low.h", "#pragma once\n\nint low(int number);\ninline int* none() { return 0; }\n");
  outcome = project.run({"script/lint"});
  EXPECT_EQ(outcome.status, 1) << outcome.output;
  EXPECT_THAT(outcome.output, HasSubstr("src/low/Low.h: through src/low/Low.cpp\n"));
  EXPECT_THAT(outcome.output, HasSubstr("looking at 3 of 3;"));
  EXPECT_THAT(outcome.output, ContainsRegex("src/low/Low.h:4:[0-9]+: error: use nullptr"));

  project.write("src/low/Low.h", "#pragma once\n\nint low(int number);\ninline int* none() { return nullptr; }\n");
  outcome = project.run({"script/lint"});
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  outcome = project.run({"script/lint"});
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_THAT(outcome.output, HasSubstr("looking at 0 of 3;"));
}

TEST_F(LintScriptAnalysis, LooksAtEverythingOnceAndAgainAtWhatIncludesAChange) {
  Outcome outcome = project.run({"script/lint", "all"});
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
  EXPECT_THAT(outcome.output, Not(HasSubstr("looking at 0 of")));
  outcome = project.run({"script/lint", "all"});
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_THAT(outcome.output, HasSubstr("looking at 0 of"));

  // A warning of one compiler only, in a file of its own; the group it is in and each compiler look again, and at nothing else.
  project.write("src/low/Other.cpp",
                "int other(int number);\nint other(int number) {\n  int number2 = number;\n  return number2 = number2;\n}\n");
  outcome = project.run({"script/lint", "all"});
  EXPECT_EQ(outcome.status, 1) << outcome.output;
  EXPECT_THAT(outcome.output, HasSubstr("looking at 3 of"));
  EXPECT_THAT(outcome.output, ContainsRegex("FAILED  clang\\+\\+ src/low/Other.cpp\n"));
}

TEST_F(LintScriptAnalysis, GoesOnWhereItWasStopped) {
  // A clang-tidy that stays at one of its files until it is told to go on.
  project.write("bin/clang-tidy", R"(#!/bin/sh
[ "$1" != --version ] || exit 0
for unit; do :; done
case $unit in *High*) [ -e go ] || { touch waits; exec sleep 1000; } ;; esac
)");
  Process::Options options = project.options();
  options.environment["PATH"] = project.path("bin") + ":/usr/local/bin:/usr/bin:/bin";
  const std::vector<std::string> words = {"script/lint", "src/low/Low.cpp", "src/low/Other.cpp", "src/high/High.cpp"};
  Process lint(words, options);
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(project.path("waits")) && clean() >= 2; }, std::chrono::minutes(2)))
      << lint.output() << lint.errorOutput();
  lint.signal(SIGINT);
  EXPECT_EQ(lint.wait(), 130);
  EXPECT_TRUE(eventually([&] { return project.processes() == 0; }));

  const auto before = clean();
  project.write("go", "");
  const Outcome outcome = runToEnd(words, options, std::chrono::minutes(2));
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
  EXPECT_THAT(outcome.output, HasSubstr("looking at " + std::to_string(9 - before) + " of 9;"));
  EXPECT_EQ(clean(), 9);
}

}  // namespace
}  // namespace kestrine::test
#endif
