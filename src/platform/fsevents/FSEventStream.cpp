#include "platform/fsevents/FSEventStream.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/base/Mutex.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/process/StatusRegistry.h"
#include "platform/foundation/value/Dictionary.h"
#include "platform/fsevents/engine/EnginePool.h"
#include "platform/fsevents/event/EventClock.h"

namespace platform {
namespace {

using fsevents::EngineConfiguration;
using fsevents::EnginePool;
using fsevents::EngineShared;
using fsevents::HangWatch;
using fsevents::StreamBatch;
using fsevents::StreamMailbox;
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

/// The stream's state and its run loop. What the engines offer comes through the mailbox, one batch at a time.
class FSEventStream::Impl final : public std::enable_shared_from_this<FSEventStream::Impl> {
 public:
  Impl(FSEventStream& stream, Callback callback, EngineConfiguration configuration)
      : stream_(stream),
        callback_(std::move(callback)),
        configuration_(std::move(configuration)),
        mailbox_(std::make_shared<StreamMailbox>([signal = signal_] { signal->call(); },
                                                 [status = status_] { return status->losses().takeNotices(); })) {}

  void schedule(const std::shared_ptr<RunLoop>& runLoop) EXCLUDES(mutex_);
  bool start() EXCLUDES(control_, mutex_);
  void stop() { end(State::Stopped); }
  void invalidate();
  void flushSync();
  FSEventStreamEventId flushAsync();
  bool setExclusionPaths(std::vector<std::string> paths);
  void setLossCallback(LossCallback callback);
  [[nodiscard]] Object status() const;
  [[nodiscard]] std::string description() const;
  [[nodiscard]] const EngineConfiguration& configuration() const { return configuration_; }
  [[nodiscard]] FSEventStreamEventId latestId() const { return mailbox_->latestId(); }

  void registerStatus() {
    registration_ = StatusRegistry::shared().add("streams", [this] { return status(); });
  }
  void unregisterStatus() { registration_ = {}; }

 private:
  /// Has the run loop deliver; engines may outlive the stream, so it is not the stream's own.
  class Signal {
   public:
    void set(std::shared_ptr<RunLoopSource> source) {
      source_.with([&](std::shared_ptr<RunLoopSource>& current) { current = std::move(source); });
    }
    void call() const {
      // Held until the signal is given: a loop lets go of a source without asking anybody.
      const auto source = source_.with([](const std::shared_ptr<RunLoopSource>& current) { return current; });
      if (source) source->signal();
    }

   private:
    Guarded<std::shared_ptr<RunLoopSource>> source_;
  };

  void end(State next) EXCLUDES(control_, mutex_);
  void deliver();
  [[nodiscard]] std::shared_ptr<EnginePool> engines() const EXCLUDES(mutex_);
  [[nodiscard]] bool mayStart() EXCLUDES(mutex_);

  FSEventStream& stream_;
  const Callback callback_;
  LossCallback lossCallback_;
  /// Changed before the start only.
  EngineConfiguration configuration_;
  const std::shared_ptr<Signal> signal_ = std::make_shared<Signal>();
  const std::shared_ptr<StreamStatus> status_ = std::make_shared<StreamStatus>();
  const std::shared_ptr<StreamMailbox> mailbox_;
  StatusRegistry::Registration registration_;

  /// Held while the stream is started and stopped; never while a batch is handled.
  Mutex control_ ACQUIRED_BEFORE(mutex_);
  mutable Mutex mutex_;
  State state_ GUARDED_BY(mutex_) = State::Created;
  std::shared_ptr<EnginePool> engines_ GUARDED_BY(mutex_);
  std::shared_ptr<RunLoop> runLoop_ GUARDED_BY(mutex_);
  std::shared_ptr<RunLoopSource> source_ GUARDED_BY(mutex_);
};

void FSEventStream::Impl::schedule(const std::shared_ptr<RunLoop>& runLoop) {
  std::shared_ptr<RunLoopSource> former;
  std::shared_ptr<RunLoopSource> source;
  {
    const MutexLock lock(mutex_);
    if (state_ == State::Invalid || !runLoop) return;
    // The source may outlive the stream by the moment in which the loop lets go of it.
    source = RunLoopSource::create([weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->deliver();
    });
    former = std::exchange(source_, source);
    runLoop_ = runLoop;
    signal_->set(source);
  }
  if (former) former->invalidate();
  runLoop->add(source);
  // What came in meanwhile has signalled the former.
  if (mailbox_->hasWaiting()) source->signal();
}

bool FSEventStream::Impl::mayStart() {
  const MutexLock lock(mutex_);
  const auto& paths = configuration_.paths;
  if (paths.empty()) {
    status_->setError("no path to watch was given");
  } else if (std::ranges::any_of(paths, &std::string::empty)) {
    // The kernel would take it for the process's current folder.
    status_->setError("a path to watch is empty");
  } else if (!source_) {
    status_->setError("the stream is not scheduled on a run loop");
  } else {
    return true;
  }
  return false;
}

bool FSEventStream::Impl::start() {
  const MutexLock control(control_);
  {
    const MutexLock lock(mutex_);
    if (state_ == State::Started || state_ == State::Invalid) return state_ == State::Started;
  }
  auto shared = std::make_shared<EngineShared>(
      EngineShared{configuration_, status_, mailbox_, std::make_shared<HangWatch>(HangWatch::chosenPatience())});
  auto engines = std::make_shared<EnginePool>(std::move(shared));
  if (configuration_.asksForHistory() && !configuration_.paths.empty()) mailbox_->expectHistory(configuration_.paths.front());
  if (!mayStart() || !engines->start()) {
    mailbox_->close();
    NSLog("FSEventStream: cannot start: " + status_->error());
    return false;
  }
  status_->setError("");
  NSLog(fmt::format("FSEventStream: watching {} folders by {}", status_->foldersMarked.load(), status_->sources()));
  const MutexLock lock(mutex_);
  engines_ = std::move(engines);
  state_ = State::Started;
  return true;
}

void FSEventStream::Impl::end(State next) {
  const MutexLock control(control_);
  std::shared_ptr<EnginePool> engines;
  {
    const MutexLock lock(mutex_);
    if (state_ == State::Started || next == State::Invalid) state_ = next;
    engines = std::exchange(engines_, nullptr);
  }
  if (engines) engines->stop();
  mailbox_->close();
  mailbox_->waitHandled();
}

void FSEventStream::Impl::invalidate() {
  end(State::Invalid);
  std::shared_ptr<RunLoopSource> source;
  {
    const MutexLock lock(mutex_);
    source = std::exchange(source_, nullptr);
    signal_->set(nullptr);
    runLoop_.reset();
  }
  if (source) source->invalidate();
}

std::shared_ptr<EnginePool> FSEventStream::Impl::engines() const {
  const MutexLock lock(mutex_);
  return engines_;
}

void FSEventStream::Impl::deliver() {
  // The callback may destroy the stream, and may throw: the next batch must find the way free either way.
  const auto self = shared_from_this();
  const std::optional<StreamBatch> batch = mailbox_->take();
  if (!batch) return;
  struct Done {
    StreamMailbox& mailbox;
    ~Done() { mailbox.handled(); }
  } const done{*mailbox_};
  const auto tellLosses = [&] {
    // Nothing follows the end of the stream, though the callback be what ended it.
    if (!batch->losses.empty() && lossCallback_ && engines()) lossCallback_(stream_, batch->losses);
  };
  if (!batch->events.empty()) {
    status_->eventsDelivered += batch->events.size();
    ++status_->deliveries;
    try {
      callback_(stream_, batch->events);
    } catch (...) {
      // They come once: without them the reader would wait for a recovery for ever.
      tellLosses();
      throw;
    }
  }
  tellLosses();
}

void FSEventStream::Impl::flushSync() {
  const std::shared_ptr<EnginePool> engines = this->engines();
  if (!engines || mailbox_->isHandling()) return;
  std::shared_ptr<RunLoop> runLoop;
  {
    const MutexLock lock(mutex_);
    runLoop = runLoop_;
  }
  const std::vector<EnginePool::Flush> flushes = engines->requestFlush();
  const bool here = runLoop && runLoop->isCurrent();
  while (true) {
    const bool flushed = EnginePool::waitFlushed(flushes, here ? std::chrono::milliseconds(1) : kFlushLook);
    if (here) deliver();
    if (this->engines() != engines || (flushed && mailbox_->isIdle())) return;
    if (!here && (!runLoop || !runLoop->isRunning())) return;
    if (flushed && !here) mailbox_->waitIdle(kFlushLook);
  }
}

FSEventStreamEventId FSEventStream::Impl::flushAsync() {
  if (const auto engines = this->engines()) engines->requestFlush();
  return latestId();
}

void FSEventStream::Impl::setLossCallback(LossCallback callback) {
  const MutexLock lock(mutex_);
  if (state_ == State::Created) lossCallback_ = std::move(callback);
}

bool FSEventStream::Impl::setExclusionPaths(std::vector<std::string> paths) {
  const MutexLock lock(mutex_);
  if (state_ != State::Created) return false;
  configuration_.exclusions = std::move(paths);
  return true;
}

Object FSEventStream::Impl::status() const {
  Array paths;
  for (const std::string& path : configuration_.paths) paths.emplace_back(path);
  Dictionary entries{{"paths", std::move(paths)}};
  {
    const MutexLock lock(mutex_);
    entries["state"] = nameOf(state_);
  }
  status_->describe(entries);
  return entries;
}

std::string FSEventStream::Impl::description() const {
  std::string paths;
  for (const std::string& path : configuration_.paths) paths += "\n    \"" + path + "\"";
  const MutexLock lock(mutex_);
  return fmt::format("FSEventStream {{ state = {}, latestEventId = {}, latency = {:.3f}, flags = {:#010x}, paths = ({}\n) }}",
                     nameOf(state_), mailbox_->latestId(), std::chrono::duration<double>(configuration_.latency).count(),
                     configuration_.flags, paths);
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
void FSEventStream::setLossCallback(LossCallback callback) { impl_->setLossCallback(std::move(callback)); }
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
