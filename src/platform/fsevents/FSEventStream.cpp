#include "platform/fsevents/FSEventStream.h"

#include <fmt/format.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/process/StatusRegistry.h"
#include "platform/foundation/value/Dictionary.h"
#include "platform/fsevents/EventClock.h"
#include "platform/fsevents/StreamEngine.h"

namespace platform {
namespace {

using fsevents::BatchReceiver;
using fsevents::EngineConfiguration;
using fsevents::StreamEngine;
using fsevents::StreamStatus;

/// How often a flush from another thread looks whether the run loop that it waits for still runs.
constexpr std::chrono::milliseconds kFlushLook(50);

FSEventStream::Source chosenSource(FSEventStream::Source source) {
  if (source != FSEventStream::Source::Automatic) return source;
  const char* value = std::getenv("KESTRINE_FSEVENTS_SOURCE");  // NOLINT(concurrency-mt-unsafe): set before the process has threads
  const std::string_view text = value == nullptr ? "" : value;
  if (text == "fanotify") return FSEventStream::Source::Fanotify;
  if (text == "inotify") return FSEventStream::Source::Inotify;
  return source;
}

enum class State { Created, Started, Stopped, Invalid };

const char* nameOf(State state) {
  switch (state) {
    case State::Created:
      return "created";
    case State::Started:
      return "started";
    case State::Stopped:
      return "stopped";
    case State::Invalid:
      break;
  }
  return "invalid";
}

}  // namespace

/// Joins the engine's thread, which offers batches, and the run loop's, which handles them: one batch at a time goes across.
class FSEventStream::Impl final : public BatchReceiver, public std::enable_shared_from_this<FSEventStream::Impl> {
 public:
  Impl(FSEventStream& stream, Callback callback, EngineConfiguration configuration)
      : stream_(stream), callback_(std::move(callback)), configuration_(std::move(configuration)) {}

  void schedule(const std::shared_ptr<RunLoop>& runLoop);
  bool start();
  void stop() { end(State::Stopped); }
  void invalidate();
  void flushSync();
  FSEventStreamEventId flushAsync();
  bool setExclusionPaths(std::vector<std::string> paths);
  [[nodiscard]] Object status() const;
  [[nodiscard]] std::string description() const;
  [[nodiscard]] const EngineConfiguration& configuration() const { return configuration_; }
  [[nodiscard]] FSEventStreamEventId latestId() const;

  void registerStatus() {
    registration_ = StatusRegistry::shared().add("streams", [this] { return status(); });
  }
  void unregisterStatus() { registration_ = {}; }

  bool isFree() override;
  void offer(std::vector<FSEvent> batch) override;

 private:
  void end(State next);
  void deliver();
  [[nodiscard]] bool isDelivering() const { return deliverer_ == std::this_thread::get_id(); }

  FSEventStream& stream_;
  const Callback callback_;
  EngineConfiguration configuration_;
  StreamStatus status_;

  /// Held while the stream is started and stopped; never while a batch is handled.
  std::mutex control_;
  std::shared_ptr<StreamEngine> engine_;
  StatusRegistry::Registration registration_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  State state_ = State::Created;
  std::shared_ptr<RunLoop> runLoop_;
  std::shared_ptr<RunLoopSource> source_;
  std::optional<std::vector<FSEvent>> waiting_;
  std::thread::id deliverer_;
  FSEventStreamEventId latestId_ = 0;
};

void FSEventStream::Impl::schedule(const std::shared_ptr<RunLoop>& runLoop) {
  std::shared_ptr<RunLoopSource> former;
  std::shared_ptr<RunLoopSource> source;
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::Invalid || !runLoop) return;
    // The source may outlive the stream by the moment in which the loop lets go of it.
    source = RunLoopSource::create([weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->deliver();
    });
    former = std::exchange(source_, source);
    runLoop_ = runLoop;
  }
  if (former) former->invalidate();
  runLoop->add(source);
  const std::lock_guard lock(mutex_);
  if (waiting_) source->signal();
}

bool FSEventStream::Impl::start() {
  const std::lock_guard control(control_);
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::Started) return true;
    if (state_ == State::Invalid) return false;
    if (!source_ || configuration_.paths.empty()) {
      status_.setError(configuration_.paths.empty() ? "no path to watch was given" : "the stream is not scheduled on a run loop");
      NSLog("FSEventStream: cannot start: " + status_.error());
      return false;
    }
  }
  auto engine = std::make_shared<StreamEngine>(configuration_, status_, *this);
  if (!engine->start()) {
    NSLog("FSEventStream: cannot start: " + status_.error());
    return false;
  }
  status_.setError("");
  NSLog(fmt::format("FSEventStream: watching {} folders by {}", status_.foldersMarked.load(), status_.sources()));
  const std::lock_guard lock(mutex_);
  engine_ = std::move(engine);
  state_ = State::Started;
  return true;
}

void FSEventStream::Impl::end(State next) {
  const std::lock_guard control(control_);
  std::shared_ptr<StreamEngine> engine;
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::Started || next == State::Invalid) state_ = next;
    engine = std::exchange(engine_, nullptr);
  }
  if (engine) engine->stop();
  std::unique_lock lock(mutex_);
  waiting_.reset();
  // Woken flushes find the stream stopped.
  changed_.notify_all();
  changed_.wait(lock, [this] { return deliverer_ == std::thread::id() || isDelivering(); });
}

void FSEventStream::Impl::invalidate() {
  end(State::Invalid);
  std::shared_ptr<RunLoopSource> source;
  {
    const std::lock_guard lock(mutex_);
    source = std::exchange(source_, nullptr);
    runLoop_.reset();
  }
  if (source) source->invalidate();
}

bool FSEventStream::Impl::isFree() {
  const std::lock_guard lock(mutex_);
  return !waiting_ && deliverer_ == std::thread::id();
}

void FSEventStream::Impl::offer(std::vector<FSEvent> batch) {
  const std::lock_guard lock(mutex_);
  waiting_ = std::move(batch);
  if (source_) source_->signal();
  changed_.notify_all();
}

void FSEventStream::Impl::deliver() {
  std::vector<FSEvent> batch;
  {
    const std::lock_guard lock(mutex_);
    if (!waiting_ || deliverer_ != std::thread::id()) return;
    batch = *std::exchange(waiting_, std::nullopt);
    deliverer_ = std::this_thread::get_id();
    latestId_ = batch.back().id;
  }
  status_.eventsDelivered += batch.size();
  ++status_.deliveries;
  // The callback may destroy the stream, and may throw: the next batch must find the way free either way.
  const auto self = shared_from_this();
  struct Done {
    Impl& impl;
    ~Done() {
      std::shared_ptr<StreamEngine> engine;
      {
        const std::lock_guard lock(impl.mutex_);
        impl.deliverer_ = std::thread::id();
        engine = impl.engine_;
        impl.changed_.notify_all();
      }
      if (engine) engine->engineMayOffer();
    }
  } const done{*self};
  callback_(stream_, batch);
}

void FSEventStream::Impl::flushSync() {
  std::shared_ptr<StreamEngine> engine;
  std::shared_ptr<RunLoop> runLoop;
  {
    const std::lock_guard lock(mutex_);
    engine = engine_;
    runLoop = runLoop_;
    if (!engine || isDelivering()) return;
  }
  const std::uint64_t ticket = engine->requestFlush();
  const bool here = runLoop && runLoop->isCurrent();
  while (true) {
    const bool flushed = engine->waitFlushed(ticket, here ? std::chrono::milliseconds(1) : kFlushLook);
    if (here) deliver();
    std::unique_lock lock(mutex_);
    const bool idle = !waiting_ && deliverer_ == std::thread::id();
    if (engine_ != engine || (flushed && idle)) return;
    if (!here && !runLoop->isRunning()) return;
    if (flushed && !here) changed_.wait_for(lock, kFlushLook);
  }
}

FSEventStreamEventId FSEventStream::Impl::flushAsync() {
  std::shared_ptr<StreamEngine> engine;
  {
    const std::lock_guard lock(mutex_);
    engine = engine_;
  }
  if (engine) engine->requestFlush();
  return latestId();
}

bool FSEventStream::Impl::setExclusionPaths(std::vector<std::string> paths) {
  const std::lock_guard lock(mutex_);
  if (state_ != State::Created) return false;
  configuration_.exclusions = std::move(paths);
  return true;
}

FSEventStreamEventId FSEventStream::Impl::latestId() const {
  const std::lock_guard lock(mutex_);
  return latestId_;
}

Object FSEventStream::Impl::status() const {
  Array paths;
  for (const std::string& path : configuration_.paths) paths.emplace_back(path);
  Dictionary entries{{"paths", std::move(paths)}};
  {
    const std::lock_guard lock(mutex_);
    entries["state"] = nameOf(state_);
  }
  status_.describe(entries);
  return entries;
}

std::string FSEventStream::Impl::description() const {
  std::string paths;
  for (const std::string& path : configuration_.paths) paths += "\n    \"" + path + "\"";
  const std::lock_guard lock(mutex_);
  return fmt::format("FSEventStream {{ state = {}, latestEventId = {}, latency = {:.3f}, flags = {:#010x}, paths = ({}\n) }}",
                     nameOf(state_), latestId_, std::chrono::duration<double>(configuration_.latency).count(), configuration_.flags, paths);
}

FSEventStream::FSEventStream(Callback callback, std::vector<std::string> pathsToWatch, FSEventStreamEventId sinceWhen, double latency,
                             FSEventStreamCreateFlags flags, Source source) {
  EngineConfiguration configuration;
  configuration.paths = std::move(pathsToWatch);
  configuration.sinceWhen = sinceWhen;
  // A day is for ever, and keeps the sum with a point in time from overflowing.
  const double seconds = latency > 0 ? std::min(latency, 86400.0) : 0.0;
  configuration.latency = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
  configuration.flags = flags;
  configuration.source = chosenSource(source);
  impl_ = std::make_shared<Impl>(*this, std::move(callback), std::move(configuration));
  impl_->registerStatus();
}

FSEventStream::~FSEventStream() {
  impl_->unregisterStatus();
  impl_->invalidate();
}

void FSEventStream::scheduleWithRunLoop(const std::shared_ptr<RunLoop>& runLoop) { impl_->schedule(runLoop); }
bool FSEventStream::start() { return impl_->start(); }
void FSEventStream::stop() { impl_->stop(); }
void FSEventStream::invalidate() { impl_->invalidate(); }
void FSEventStream::flushSync() { impl_->flushSync(); }
FSEventStreamEventId FSEventStream::flushAsync() { return impl_->flushAsync(); }
bool FSEventStream::setExclusionPaths(std::vector<std::string> paths) { return impl_->setExclusionPaths(std::move(paths)); }
std::string FSEventStream::copyDescription() const { return impl_->description(); }
const std::vector<std::string>& FSEventStream::pathsBeingWatched() const { return impl_->configuration().paths; }
FSEventStreamEventId FSEventStream::getLatestEventId() const { return impl_->latestId(); }
Object FSEventStream::status() const { return impl_->status(); }

FSEventStreamEventId FSEventsGetCurrentEventId() { return fsevents::EventClock::shared().current(); }

}  // namespace platform
