#pragma once

#include <memory>

#include "platform/network/session/SessionTask.h"
#include "platform/network/session/SessionTasks.h"
#include "platform/network/session/URLSession.h"
#include "platform/network/session/URLSessionDelegate.h"

namespace platform {

/// What is behind a session, for the room's own use too: a connection of the older interface is a session whose delegate is called
/// somewhere else than on an operation queue.
struct URLSession::Impl {
  static std::shared_ptr<URLSession> make(const URLSessionConfiguration& configuration, const std::shared_ptr<URLSessionDelegate>& delegate,
                                          std::shared_ptr<OperationQueue> queue, network::Executor executor);

  Impl(const URLSessionConfiguration& configuration, const std::shared_ptr<URLSessionDelegate>& delegate,
       std::shared_ptr<OperationQueue> queue, network::Executor executor);

  const std::shared_ptr<network::SessionCore> core;
  const std::weak_ptr<URLSessionDelegate> delegate;
  const std::shared_ptr<OperationQueue> queue;
  const network::Executor executor;
  /// Set by its constructor, and valid as long as this.
  URLSession* session = nullptr;
  network::SessionTasks tasks;

  std::shared_ptr<URLSessionTask> makeTask(network::SessionTask::Plan plan);

 private:
  void tellEnd();
};

}  // namespace platform
