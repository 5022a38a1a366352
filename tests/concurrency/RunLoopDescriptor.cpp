#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/FileHandle.h"

namespace kestrine::test {
namespace {

using platform::FileHandle;
using platform::RunLoop;
using platform::RunLoopDescriptor;

struct SocketPair {
  SocketPair() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    near = FileHandle(ends[0]);
    far = FileHandle(ends[1]);
  }
  FileHandle near;
  FileHandle far;
};

char readOne(const FileHandle& handle) {
  char byte = 0;
  EXPECT_EQ(read(handle.fileDescriptor(), &byte, 1), 1);
  return byte;
}

void writeText(const FileHandle& handle, std::string_view text) {
  EXPECT_EQ(write(handle.fileDescriptor(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

TEST(RunLoopDescriptor, IsCalledAgainUntilEverythingIsRead) {
  SocketPair pair;
  std::string text;
  std::shared_ptr<RunLoopDescriptor> item;
  item = RunLoopDescriptor::create(pair.near.fileDescriptor(), EPOLLIN, [&](unsigned ready) {
    EXPECT_EQ(ready, static_cast<unsigned>(EPOLLIN));
    text += readOne(pair.near);
    if (text.size() == 5) item->invalidate();
  });
  RunLoop::current()->add(item);
  std::thread writer([&] { writeText(pair.far, "hello"); });
  RunLoop::current()->run();
  writer.join();
  EXPECT_EQ(text, "hello");
}

TEST(RunLoopDescriptor, TellsAHangUpThatNobodyAskedFor) {
  SocketPair pair;
  unsigned seen = 0;
  std::shared_ptr<RunLoopDescriptor> item;
  item = RunLoopDescriptor::create(pair.near.fileDescriptor(), 0, [&](unsigned ready) {
    seen = ready;
    item->invalidate();
  });
  RunLoop::current()->add(item);
  pair.far.closeFile();
  RunLoop::current()->run();
  EXPECT_TRUE(seen & EPOLLHUP);
}

TEST(RunLoopDescriptor, TellsOnlyTheEventsAskedFor) {
  SocketPair pair;
  writeText(pair.far, "x");
  std::vector<unsigned> seen;
  const auto item = RunLoopDescriptor::create(pair.near.fileDescriptor(), EPOLLOUT, [&](unsigned ready) { seen.push_back(ready); });
  RunLoop::current()->add(item);
  RunLoop::current()->runFor(0);
  item->setEvents(EPOLLIN | EPOLLOUT);
  RunLoop::current()->runFor(0);
  item->setEvents(0);
  RunLoop::current()->runFor(0);
  EXPECT_EQ(seen, std::vector<unsigned>({EPOLLOUT, EPOLLIN | EPOLLOUT}));
  item->invalidate();
}

TEST(RunLoopDescriptor, TakesItsEventsFromAnotherThreadWhileTheLoopSleeps) {
  SocketPair pair;
  std::shared_ptr<RunLoopDescriptor> item;
  item = RunLoopDescriptor::create(pair.near.fileDescriptor(), EPOLLIN, [&](unsigned ready) {
    EXPECT_TRUE(ready & EPOLLOUT);
    item->invalidate();
  });
  RunLoop::current()->add(item);
  std::thread other([&] { item->setEvents(EPOLLOUT); });
  RunLoop::current()->run();
  other.join();
}

TEST(RunLoopDescriptor, UsesTheEventsThatWereSetBeforeItWasAdded) {
  SocketPair pair;
  unsigned seen = 0;
  const auto item = RunLoopDescriptor::create(pair.near.fileDescriptor(), EPOLLIN, [&](unsigned ready) { seen = ready; });
  item->setEvents(EPOLLOUT);
  RunLoop::current()->add(item);
  RunLoop::current()->runFor(0);
  EXPECT_EQ(seen, static_cast<unsigned>(EPOLLOUT));
  item->invalidate();
}

TEST(RunLoopDescriptor, CanBeScheduledAnewWithANewItem) {
  const FileHandle event(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
  for (int round = 0; round < 3; ++round) {
    int calls = 0;
    std::shared_ptr<RunLoopDescriptor> item;
    item = RunLoopDescriptor::create(event.fileDescriptor(), EPOLLIN, [&](unsigned) {
      ++calls;
      item->invalidate();
    });
    RunLoop::current()->add(item);
    RunLoop::current()->run();
    EXPECT_EQ(calls, 1);
  }
}

TEST(RunLoopDescriptor, RefusesWhatCannotBeWatched) {
  const FileHandle plain(memfd_create("a plain file", MFD_CLOEXEC));
  ASSERT_TRUE(plain.isOpen());
  for (const int descriptor : {-1, plain.fileDescriptor()}) {
    const auto item = RunLoopDescriptor::create(descriptor, EPOLLIN, [](unsigned) {});
    EXPECT_THROW(RunLoop::current()->add(item), platform::Exception);
    RunLoop::current()->run();
  }
  SocketPair pair;
  const auto first = RunLoopDescriptor::create(pair.near.fileDescriptor(), EPOLLIN, [](unsigned) {});
  const auto second = RunLoopDescriptor::create(pair.near.fileDescriptor(), EPOLLIN, [](unsigned) {});
  RunLoop::current()->add(first);
  EXPECT_THROW(RunLoop::current()->add(second), platform::Exception);
  first->invalidate();
  RunLoop::current()->add(second);
  second->invalidate();
}

TEST(RunLoopDescriptor, KeepsNoStaleEventForARunInsideACallback) {
  // Both are ready in one turn; the first callback's inner run serves the second, which must not be told again that it is readable.
  SocketPair pairs[2];
  std::shared_ptr<RunLoopDescriptor> items[2];
  int reads = 0;
  for (int i = 0; i < 2; ++i) {
    writeText(pairs[i].far, "x");
    items[i] = RunLoopDescriptor::create(pairs[i].near.fileDescriptor(), EPOLLIN, [&, i](unsigned) {
      char byte = 0;
      EXPECT_EQ(read(pairs[i].near.fileDescriptor(), &byte, 1), 1);
      if (++reads == 1) RunLoop::current()->runFor(0);
    });
    RunLoop::current()->add(items[i]);
  }
  RunLoop::current()->runFor(0.01);
  EXPECT_EQ(reads, 2);
  for (const auto& item : items) item->invalidate();
}

TEST(RunLoopDescriptor, GivesEachOfManyReadyDescriptorsItsTurn) {
  std::vector<FileHandle> events;
  std::vector<std::shared_ptr<RunLoopDescriptor>> items;
  std::vector<int> calls(200, 0);
  for (std::size_t i = 0; i < calls.size(); ++i) {
    events.emplace_back(eventfd(1, EFD_CLOEXEC));
    items.push_back(RunLoopDescriptor::create(events.back().fileDescriptor(), EPOLLIN, [&calls, i](unsigned) { ++calls[i]; }));
    RunLoop::current()->add(items.back());
  }
  bool blockRan = false;
  for (int turn = 0; turn < 8; ++turn) RunLoop::current()->runFor(0);
  RunLoop::current()->perform([&] { blockRan = true; });
  RunLoop::current()->runFor(0);
  for (const int count : calls) EXPECT_GE(count, 1);
  EXPECT_TRUE(blockRan);
  for (const auto& item : items) item->invalidate();
}

}  // namespace
}  // namespace kestrine::test
