#include "platform/concurrency/loop/ThreadLoops.h"

#include <unistd.h>

#include <utility>

namespace platform {

namespace {

/// The loop of a thread other than the main one, abandoned when the thread ends.
struct ThreadLoop {
  std::shared_ptr<EventLoop> loop;
  ~ThreadLoop();
};

thread_local ThreadLoop threadLoop;
/// Trivially destroyed, so that it can be asked while the thread's other objects are being destroyed.
thread_local bool threadEnded = false;

ThreadLoop::~ThreadLoop() {
  threadEnded = true;
  if (const auto ended = std::exchange(loop, nullptr)) ended->abandon();
}

bool isMainThread() {
  static thread_local const bool is = getpid() == gettid();
  return is;
}

}  // namespace

const std::shared_ptr<EventLoop>& mainEventLoop() {
  static const auto& loop = *new std::shared_ptr<EventLoop>(std::make_shared<EventLoop>());
  return loop;
}

std::shared_ptr<EventLoop> currentEventLoop() {
  if (isMainThread()) return mainEventLoop();
  if (threadEnded) {
    // Something of the thread's own is destroyed after its loop and asks for one: it gets a loop that lets go of everything.
    auto loop = std::make_shared<EventLoop>();
    loop->abandon();
    return loop;
  }
  if (!threadLoop.loop) threadLoop.loop = std::make_shared<EventLoop>();
  return threadLoop.loop;
}

EventLoop* existingEventLoop() {
  if (isMainThread()) return mainEventLoop().get();
  return threadEnded ? nullptr : threadLoop.loop.get();
}

void abandonCurrentLoop() {
  if (isMainThread() || threadEnded) return;
  if (const auto left = std::exchange(threadLoop.loop, nullptr)) left->abandon();
}

}  // namespace platform
