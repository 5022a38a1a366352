#include "platform/fsevents/engine/EnginePool.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "platform/foundation/base/AllSignalsBlocked.h"
#include "platform/foundation/log/Log.h"
#include "platform/fsevents/engine/LeftThreads.h"

namespace platform::fsevents {

bool EnginePool::start() {
  LeftThreads::collect();
  try {
    if (!run(std::make_shared<StreamEngine>(shared_, weak_from_this()))) return false;
  } catch (const std::system_error& error) {
    shared_->status->setError(std::string("no thread to watch with: ") + error.what());
    return false;
  }
  // The first comes first, and the others are there when it stands.
  for (std::size_t i = 0; i < engines().size(); ++i) {
    const std::optional<bool> standing = engines()[i]->requests().waitStanding();
    if (!standing.value_or(true)) {
      stop();
      return false;
    }
  }
  return true;
}

bool EnginePool::run(const std::shared_ptr<StreamEngine>& engine) {
  const MutexLock lock(mutex_);
  if (isStopped_) return false;
  collect();
  const AllSignalsBlocked blocked;
  running_.push_back({engine, std::thread([engine] { engine->run(); })});
  return true;
}

std::shared_ptr<StreamEngine> EnginePool::begin(EnginePlace place, std::string& error) {
  error.clear();
  try {
    auto engine = std::make_shared<StreamEngine>(shared_, std::move(place));
    if (run(engine)) return engine;
  } catch (const std::system_error& failure) {
    error = std::string("there is no thread to watch it with: ") + failure.what();
  }
  return nullptr;
}

void EnginePool::end(const std::shared_ptr<StreamEngine>& engine) {
  engine->requestStop();
  engine->leave();
}

void EnginePool::collect() {
  for (Running& each : running_) {
    if (each.engine->requests().hasEnded()) each.thread.join();
  }
  std::erase_if(running_, [](const Running& each) { return !each.thread.joinable(); });
}

std::vector<std::shared_ptr<StreamEngine>> EnginePool::engines() {
  const MutexLock lock(mutex_);
  std::vector<std::shared_ptr<StreamEngine>> all;
  for (const Running& each : running_) all.push_back(each.engine);
  return all;
}

void EnginePool::stop() {
  std::vector<Running> ending;
  {
    const MutexLock lock(mutex_);
    isStopped_ = true;
    ending.swap(running_);
  }
  for (const Running& each : ending) each.engine->requestStop();
  const auto deadline = std::chrono::steady_clock::now() + kStopPatience;
  std::size_t left = 0;
  for (Running& each : ending) {
    if (each.engine->requests().waitEnded(deadline)) {
      each.thread.join();
    } else {
      ++left;
      each.engine->leaveBehind();
      LeftThreads::leave(std::move(each.thread), [engine = each.engine] { return engine->requests().hasEnded(); });
    }
    each.engine->leave();
  }
  shared_->watch->stop();
  if (left > 0) NSLog("FSEventStream: stopped without waiting for a file system that does not answer");
}

std::vector<EnginePool::Flush> EnginePool::requestFlush() {
  std::vector<Flush> flushes;
  for (std::shared_ptr<StreamEngine>& engine : engines()) {
    const std::uint64_t ticket = engine->requests().requestFlush();
    flushes.push_back({std::move(engine), ticket});
  }
  return flushes;
}

bool EnginePool::waitFlushed(const std::vector<Flush>& flushes, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (const Flush& flush : flushes) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (!flush.engine->requests().waitFlushed(flush.ticket, std::max(left, std::chrono::milliseconds(0)))) return false;
  }
  return true;
}

}  // namespace platform::fsevents
