#include "tests/support/RunAgain.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "tests/support/Process.h"

namespace kestrine::test {

std::vector<std::string> wordsOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

void runTestAgain(const std::vector<std::string>& way, const std::map<std::string, std::string>& environment,
                  std::chrono::milliseconds limit) {
  runTestAgain(way, std::filesystem::read_symlink("/proc/self/exe").string(), environment, limit);
}

void runTestAgain(const std::vector<std::string>& way, const std::string& program, const std::map<std::string, std::string>& environment,
                  std::chrono::milliseconds limit) {
  const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
  // One test, whatever part of them this process was given.
  std::vector<std::string> command = wordsOf("env -u GTEST_TOTAL_SHARDS -u GTEST_SHARD_INDEX -u GTEST_SHARD_STATUS_FILE -u GTEST_OUTPUT");
  command.insert(command.end(), way.begin(), way.end());
  command.insert(command.end(), {program, fmt::format("--gtest_filter={}.{}", test.test_suite_name(), test.name())});
  const Outcome outcome = runToEnd(command, {.environment = environment}, limit);
  if (outcome.output.find("[  SKIPPED ] 1 test") != std::string::npos) GTEST_SKIP() << outcome.output;
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
  EXPECT_NE(outcome.output.find("[  PASSED  ] 1 test."), std::string::npos) << "the test did not run:\n" << outcome.output;
}

}  // namespace kestrine::test
