#include "platform/foundation/log/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <sstream>
#include <thread>

#include "platform/foundation/base/ApplicationIdentifier.h"
#include "tests/foundation/CapturedStandardError.h"

namespace platform {
namespace {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

TEST(Log, WritesThePlatformsLineForm) {
  const CapturedStandardError captured;
  setApplicationIdentifier("Ostrabyte.Test");
  NSLog("some text");
  const std::regex form(R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) Ostrabyte\.Test\[(\d+):(\d+)\] some text\n)");
  std::smatch match;
  const std::string text = captured.text();
  ASSERT_TRUE(std::regex_match(text, match, form)) << text;
  EXPECT_EQ(match[2], std::to_string(getpid()));
  EXPECT_EQ(match[3], std::to_string(gettid()));
}

bool lineTellsTheTimeOfAZone() {
  setenv("TZ", "XXX-5:45", 1);
  const CapturedStandardError captured;
  const std::time_t before = std::time(nullptr);
  NSLog("x");
  const std::time_t after = std::time(nullptr);
  std::tm parts{};
  const std::string text = captured.text();
  if (strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts) == nullptr) return false;
  const std::time_t told = timegm(&parts) - (5 * 3600 + 45 * 60);
  return told >= before && told <= after;
}

/// In a process of its own, since the time zone is read when the log begins.
TEST(LogDeathTest, TellsTheLocalTimeOfTheCall) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(lineTellsTheTimeOfAZone() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(Log, NamesTheThreadThatLogged) {
  const CapturedStandardError captured;
  pid_t thread = 0;
  std::thread([&thread] {
    thread = gettid();
    NSLog("from elsewhere");
  }).join();
  EXPECT_THAT(captured.text(), testing::HasSubstr(":" + std::to_string(thread) + "] from elsewhere\n"));
}

TEST(Log, KeepsLineEndsAndBytesOfTheText) {
  const CapturedStandardError captured;
  NSLog("one\ntwo \xFF %s %n %@");
  NSLog("");
  const auto lines = linesOf(captured.text());
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_THAT(lines[0], testing::EndsWith("] one"));
  EXPECT_EQ(lines[1], "two \xFF %s %n %@");
  EXPECT_THAT(lines[2], testing::EndsWith("] "));
}

TEST(Log, HasWrittenEverythingWhenFlushReturns) {
  const CapturedStandardError captured;
  for (int round = 0; round < 50; ++round) {
    NSLog("round " + std::to_string(round) + ".");
    EXPECT_THAT(captured.text(), testing::HasSubstr("round " + std::to_string(round) + "."));
  }
}

TEST(Log, FlushesAtOnceWhenNothingWasLogged) {
  flushLog();
  const CapturedStandardError captured;
  EXPECT_EQ(captured.text(), "");
}

TEST(Log, KeepsTheOrderOfEachThread) {
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  const CapturedStandardError captured;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) NSLog("t" + std::to_string(t) + " " + std::to_string(i));
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : linesOf(captured.text())) {
    const std::size_t at = line.find("] t");
    ASSERT_NE(at, std::string::npos) << line;
    std::istringstream rest(line.substr(at + 3));
    std::size_t thread = 0;
    int number = -1;
    rest >> thread >> number;
    EXPECT_EQ(number, next.at(thread)++) << line;
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
}

TEST(Log, RefusesALineLargerThanItsQueueAndSaysSo) {
  const CapturedStandardError captured;
  NSLog(std::string((4U << 20U) + 1, 'x'));
  NSLog("after");
  const std::string text = captured.text();
  EXPECT_THAT(text, testing::HasSubstr("] dropped 1 log lines\n"));
  EXPECT_THAT(text, testing::HasSubstr("] after\n"));
  EXPECT_THAT(text, testing::Not(testing::HasSubstr("xxx")));
}

}  // namespace
}  // namespace platform
