#pragma once

#include <memory>
#include <utility>

#include "contract/FileWatcherXpcServiceProtocol.h"
#include "platform/foundation/base/Mutex.h"

namespace kestrine {

class FileWatcherServiceXPC;
class WatchClient;

/// The object that the service exports on one connection. Owns the controller of the watch that was asked for last.
/// Threads: any. Each call that watches occupies its own thread.
class FileWatcherXpcService : public FileWatcherXpcServiceProtocol {
 public:
  /// `client` asks for the watches; without one they are kept for ever.
  explicit FileWatcherXpcService(std::shared_ptr<const WatchClient> client = nullptr) : client_(std::move(client)) {}

  /// Starts a new controller, which replaces the former one, and runs the calling thread's run loop for as long as its watch lasts. Returns
  /// at once when no watch could be started. The former watch goes on until the new one stands or has failed, and tells what it has seen.
  void callToFileWatcher() override;

  [[nodiscard]] std::shared_ptr<FileWatcherServiceXPC> fileWatcherController() const;
  /// Ends the former controller's watch, which tells what it has seen, and destroys it before it returns, unless somebody else holds it.
  void setFileWatcherController(std::shared_ptr<FileWatcherServiceXPC> controller);

 private:
  std::shared_ptr<FileWatcherServiceXPC> exchangeController(std::shared_ptr<FileWatcherServiceXPC> controller);

  const std::shared_ptr<const WatchClient> client_;
  mutable platform::Mutex mutex_;
  std::shared_ptr<FileWatcherServiceXPC> fileWatcherController_ GUARDED_BY(mutex_);
};

}  // namespace kestrine
