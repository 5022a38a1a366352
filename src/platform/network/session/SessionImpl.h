#pragma once

#include <map>
#include <mutex>

#include "platform/network/session/SessionTask.h"
#include "platform/network/session/URLSession.h"

namespace platform {

/// What is behind a session, for the room's own use too: a connection of the older interface is a session whose delegate is called
/// somewhere else than on an operation queue.
struct URLSession::Impl {
  static std::shared_ptr<URLSession> make(const URLSessionConfiguration& configuration, const std::shared_ptr<URLSessionDelegate>& delegate,
                                          std::shared_ptr<OperationQueue> queue, network::Executor executor);

  std::shared_ptr<network::SessionCore> core;
  std::weak_ptr<URLSessionDelegate> delegate;
  std::shared_ptr<OperationQueue> queue;
  network::Executor executor;

  std::mutex mutex;
  std::uint64_t lastIdentifier = 0;
  bool invalidated = false;
  /// The session's delegate was told that it is invalid.
  bool ended = false;
  /// Tasks that were resumed and whose end was not told yet.
  std::size_t running = 0;
  std::map<std::uint64_t, std::weak_ptr<URLSessionTask>> tasks;

  std::shared_ptr<URLSessionTask> makeTask(const std::shared_ptr<URLSession>& session, network::SessionTask::Plan plan);
  void tally(URLSession& session, bool runs);
  void forget(std::uint64_t identifier);
  void invalidate(URLSession& session);
  /// With nothing left to run: the end of an invalidated session.
  void tellIfEnded(URLSession& session);
};

}  // namespace platform
