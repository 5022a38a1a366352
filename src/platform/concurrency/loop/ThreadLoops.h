#pragma once

#include <memory>

#include "platform/concurrency/loop/EventLoop.h"

namespace platform {

// Which thread has which loop. Threads: any.

/// The main thread's loop as this room sees it; never destroyed.
const std::shared_ptr<EventLoop>& mainEventLoop();
/// The calling thread's loop, made on first use.
std::shared_ptr<EventLoop> currentEventLoop();
/// The calling thread's loop, or nothing while it has none.
EventLoop* existingEventLoop();
/// Abandons the calling thread's loop, if it has one that is not the main one; the next to ask for one gets a new one.
void abandonCurrentLoop();

}  // namespace platform
