#include "platform/concurrency/loop/Block.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/concurrency/queue/OperationQueue.h"
#include "platform/concurrency/queue/SerialQueue.h"

namespace kestrine::test {
namespace {

using platform::Block;

static_assert(std::is_nothrow_move_constructible_v<Block> && std::is_nothrow_move_assignable_v<Block>);
static_assert(!std::is_copy_constructible_v<Block>);
static_assert(!std::is_convertible_v<int, Block> && !std::is_convertible_v<std::function<void(int)>, Block>);

TEST(Block, RunsWhatItWasMadeFrom) {
  int calls = 0;
  const auto lambda = [&calls] { ++calls; };
  const std::function<void()> function = lambda;
  Block fromLambda = lambda;
  Block fromFunction = function;
  Block returning = [&calls] { return ++calls; };
  fromLambda();
  fromFunction();
  returning();
  EXPECT_EQ(calls, 3);
  EXPECT_TRUE(fromLambda);
}

TEST(Block, OwnsWhatCanOnlyBeMoved) {
  auto owned = std::make_unique<int>(7);
  const int* const place = owned.get();
  std::unique_ptr<int> taken;
  Block block = [owned = std::move(owned), &taken]() mutable { taken = std::move(owned); };
  Block moved = std::move(block);
  moved();
  EXPECT_EQ(taken.get(), place);
}

TEST(Block, IsEmptyWhenItWasMadeFromNothing) {
  Block blocks[] = {Block(), nullptr, std::function<void()>(), static_cast<void (*)()>(nullptr)};
  for (Block& block : blocks) {
    EXPECT_FALSE(block);
    EXPECT_NO_THROW(block());
  }
}

TEST(Block, LetsGoOfWhatItOwnsWhenItEnds) {
  const auto held = std::make_shared<int>(0);
  {
    Block block = [held] {};
    EXPECT_EQ(held.use_count(), 2);
    block = nullptr;
    EXPECT_EQ(held.use_count(), 1);
    block = [held] {};
  }
  EXPECT_EQ(held.use_count(), 1);
}

TEST(Block, LetsAnExceptionOut) {
  Block block = [] { throw std::runtime_error("out"); };
  EXPECT_THROW(block(), std::runtime_error);
}

TEST(Block, BringsWhatItOwnsThroughEveryQueue) {
  std::string seen;
  const auto writing = [&seen](std::string text) {
    return [&seen, text = std::make_unique<std::string>(std::move(text))] { seen += *text; };
  };
  platform::RunLoop::current()->perform(writing("loop "));
  platform::mainQueue()->async(writing("main "));
  platform::RunLoop::main()->run();
  const auto serial = platform::SerialQueue::create();
  serial->async(writing("serial "));
  serial->sync([] {});
  const auto operations = platform::OperationQueue::create();
  operations->addOperationWithBlock(writing("operation"));
  operations->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(seen, "loop main serial operation");
}

}  // namespace
}  // namespace kestrine::test
