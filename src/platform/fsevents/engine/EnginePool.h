#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/base/Mutex.h"
#include "platform/fsevents/engine/StreamEngine.h"

namespace platform::fsevents {

/// The engines of one started stream, each with its thread. Starting and stopping wait for engines that get on, and not for those that hang
/// in a file system: such a thread is left behind and ends by itself when the file system answers. Threads: any thread may call anything
/// but `start` and `stop`, which are not called at the same time and not by an engine.
class EnginePool : public std::enable_shared_from_this<EnginePool> {
 public:
  /// How long `stop` waits for all engines together.
  static constexpr std::chrono::seconds kStopPatience{2};

  explicit EnginePool(std::shared_ptr<EngineShared> shared) : shared_(std::move(shared)) {}
  ~EnginePool() { stop(); }
  EnginePool(const EnginePool&) = delete;
  EnginePool& operator=(const EnginePool&) = delete;

  /// Begins with the first engine, which begins the others, and returns when all stand or hang; false, with the reason in the status, when
  /// one cannot.
  bool start();
  void stop();

  /// Another engine. Nothing when the stream is being stopped, or, with `error` saying so, when there is no thread or descriptor to be had.
  std::shared_ptr<StreamEngine> begin(EnginePlace place, std::string& error);
  /// The engine is needed no longer; does not wait for it.
  void end(const std::shared_ptr<StreamEngine>& engine);

  struct Flush {
    std::shared_ptr<StreamEngine> engine;
    std::uint64_t ticket = 0;
  };
  /// Asks all engines for everything that has changed until now.
  std::vector<Flush> requestFlush();
  /// Whether all of it has been offered, or never will be. Waits for that, or for `limit`.
  static bool waitFlushed(const std::vector<Flush>& flushes, std::chrono::milliseconds limit);

 private:
  struct Running {
    std::shared_ptr<StreamEngine> engine;
    std::thread thread;
  };
  /// False when the stream is being stopped. Throws std::system_error where there is no thread.
  bool run(const std::shared_ptr<StreamEngine>& engine) EXCLUDES(mutex_);
  [[nodiscard]] std::vector<std::shared_ptr<StreamEngine>> engines() EXCLUDES(mutex_);
  void collect() REQUIRES(mutex_);

  const std::shared_ptr<EngineShared> shared_;
  Mutex mutex_;
  std::vector<Running> running_ GUARDED_BY(mutex_);
  bool isStopped_ GUARDED_BY(mutex_) = false;
};

}  // namespace platform::fsevents
