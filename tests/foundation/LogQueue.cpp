#include "platform/foundation/log/LogQueue.h"

#include <gtest/gtest.h>

#include <thread>

namespace platform {
namespace {

LogLine lineOf(std::string text) {
  LogLine line;
  line.text = std::move(text);
  return line;
}

TEST(LogQueue, HandsLinesOverInOrder) {
  LogQueue queue;
  queue.push(lineOf("a"));
  queue.push(lineOf("b"));
  const LogQueue::Batch batch = queue.take();
  ASSERT_EQ(batch.lines.size(), 2U);
  EXPECT_EQ(batch.lines[0].text, "a");
  EXPECT_EQ(batch.lines[1].text, "b");
  EXPECT_EQ(batch.dropped, 0U);
  EXPECT_FALSE(batch.destination);
}

TEST(LogQueue, CountsWhatIsBeyondTheNumberOfLines) {
  LogQueue queue;
  for (int i = 0; i < 4100; ++i) queue.push(lineOf("x"));
  LogQueue::Batch batch = queue.take();
  EXPECT_EQ(batch.lines.size(), 4096U);
  EXPECT_EQ(batch.dropped, 4U);
  queue.push(lineOf("room again"));
  batch = queue.take();
  EXPECT_EQ(batch.lines.size(), 1U);
  EXPECT_EQ(batch.dropped, 0U);
}

TEST(LogQueue, CountsWhatIsBeyondTheNumberOfBytes) {
  LogQueue queue;
  for (int i = 0; i < 5; ++i) queue.push(lineOf(std::string(1U << 20U, 'x')));
  LogQueue::Batch batch = queue.take();
  EXPECT_EQ(batch.lines.size(), 4U);
  EXPECT_EQ(batch.dropped, 1U);
  queue.push(lineOf(std::string(4U << 20U, 'x')));
  batch = queue.take();
  EXPECT_EQ(batch.lines.size(), 1U);
}

TEST(LogQueue, WaitsForSomethingToDo) {
  LogQueue queue;
  std::thread pusher([&queue] { queue.push(lineOf("late")); });
  EXPECT_EQ(queue.take().lines.at(0).text, "late");
  pusher.join();
}

TEST(LogQueue, HandsTheDestinationOverOnce) {
  LogQueue queue;
  queue.setDestination({.syslog = true, .file = "f", .fileLimit = 1});
  const LogQueue::Batch batch = queue.take();
  ASSERT_TRUE(batch.destination);
  EXPECT_TRUE(batch.destination->syslog);
  EXPECT_EQ(batch.destination->file, "f");
  queue.push(lineOf("x"));
  EXPECT_FALSE(queue.take().destination);
}

TEST(LogQueue, WaitingEndsWhenWhatWasPushedBeforeIsDone) {
  LogQueue queue;
  queue.waitUntilWritten(std::nullopt);
  queue.push(lineOf("a"));
  static_cast<void>(queue.take());
  std::thread writer([&queue] { queue.done(); });
  queue.waitUntilWritten(std::nullopt);
  writer.join();
  // What was pushed since then is still waited for, as long as the limit says.
  queue.push(lineOf("b"));
  queue.waitUntilWritten(0);
  EXPECT_EQ(queue.take().lines.at(0).text, "b");
}

}  // namespace
}  // namespace platform
