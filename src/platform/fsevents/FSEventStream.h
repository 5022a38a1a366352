#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/foundation/value/Object.h"
#include "platform/fsevents/event/FSEventStreamTypes.h"
#include "platform/fsevents/status/LossNotices.h"

namespace platform {

class RunLoop;

/// The identifier that a change made now would get at the earliest: comparable between processes and restarts, so an application may store
/// it. Never later than a change that is not yet delivered. Any thread.
FSEventStreamEventId FSEventsGetCurrentEventId();

/// A stream of the changes below a list of paths, delivered in batches on a run loop.
///
/// | state       | start      | stop      | schedule  | invalidate / destroy |
/// |-------------|------------|-----------|-----------|----------------------|
/// | created     | started    | nothing   | scheduled | invalid              |
/// | started     | true again | stopped   | moves     | stops, invalid       |
/// | stopped     | started    | nothing   | scheduled | invalid              |
/// | invalid     | false      | nothing   | nothing   | nothing              |
///
/// When `start` has returned true, every later change below the paths is told: exactly, or, where the kernel or this stream lost something,
/// by an event with MustScanSubDirs for the folder above it. New folders are taken up as they appear, moved folders keep being told under
/// their new paths, and folders that leave fall silent. Symbolic links below a watched path are not followed; a watched path that is one
/// is. A watched path need not exist: watching begins when it appears.
///
/// What is mounted below a path is watched too, Mount and Unmount are told of the folder that it is mounted on, and no mount is kept busy.
/// Where the kernel marks no further folder, or none at all, folders are compared from time to time instead; on network file systems and
/// FUSE that is done too, since others write there unseen.
///
/// What cannot be told: a write through a hard link in a folder that is not watched; a store through a shared mapping before the mapping
/// ends. Changes by other machines, and by a program behind a FUSE mount, are told when they are found. Owner, mode and extended attributes
/// are all ItemInodeMetaMod, since the kernel does not say which; of an item that is gone before it was looked at, no more is known than
/// whether it was a folder.
///
/// Threads: any thread may call anything. The callback runs on the thread of the run loop that the stream is scheduled on. `stop`,
/// `invalidate` and destruction wait for a running callback, except when called from inside it, and end that run loop when nothing else is
/// on it. They wait two seconds at most for a file system that does not answer: what hangs there is left behind and ends when it can.
class FSEventStream {
 public:
  /// `events` is valid during the call only. Events of one path are in the order in which they happened.
  using Callback = std::function<void(FSEventStream& stream, std::span<const FSEvent> events)>;
  /// What cannot be told at the moment, and where that is over: a loss begins, of which an event with MustScanSubDirs tells too, a little
  /// before or after, and lasts until a notice says otherwise. In order, and never while events are handed over. `notices` is valid during
  /// the call only.
  using LossNotice = fsevents::LossNotice;
  using LossCallback = std::function<void(FSEventStream& stream, std::span<const LossNotice> notices)>;

  /// Which part of the kernel tells the changes. Automatic prefers fanotify and uses inotify for what fanotify refuses; the others use
  /// nothing else. Automatic obeys the environment variable KESTRINE_FSEVENTS_SOURCE ("fanotify", "inotify") when it is set.
  using Source = FSEventStreamSource;

  /// Creates a stream; nothing is watched before `start`. `latency` is in seconds, counted from the first change of a window; `sinceWhen`
  /// is kFSEventStreamEventIdSinceNow or an identifier of the past, which asks for what changed since (followed by HistoryDone).
  FSEventStream(Callback callback, std::vector<std::string> pathsToWatch, FSEventStreamEventId sinceWhen, double latency,
                FSEventStreamCreateFlags flags, Source source = Source::Automatic);
  ~FSEventStream();
  FSEventStream(const FSEventStream&) = delete;
  FSEventStream& operator=(const FSEventStream&) = delete;

  /// Names the run loop to deliver on; it keeps running while the stream is scheduled on it and valid.
  void scheduleWithRunLoop(const std::shared_ptr<RunLoop>& runLoop);
  /// Who is told of losses, on the run loop, like the events. Before `start` only.
  void setLossCallback(LossCallback callback);
  /// Begins watching and returns when the watch stands. A file system that does not answer is not waited for: the stream starts without it,
  /// and tells of it as a loss until it answers. False, with the reason in the log and in `status()`, when the kernel offers no
  /// source at all (or not the one asked for), when no path or an empty one was given or when the stream is not scheduled.
  [[nodiscard]] bool start();
  /// Ends watching and forgets what was not delivered; the stream stays scheduled.
  void stop();
  /// Ends everything for good.
  void invalidate();

  /// Delivers every change made before the call and returns then. On the run loop's own thread the callback runs inside the call; on
  /// another it waits for the run loop, if that is running.
  void flushSync();
  /// The same without waiting. Returns the identifier of the last event that was given out so far.
  FSEventStreamEventId flushAsync();

  /// Leaves out everything at and below these paths (whole components: "/a/b" does not exclude "/a/bc"); they cost no watches. Before
  /// `start` only: returns false afterwards. At most once per stream takes effect, the last call.
  bool setExclusionPaths(std::vector<std::string> paths);

  /// The watched paths, the latest identifier, the flags and the state, for people.
  [[nodiscard]] std::string copyDescription() const;
  [[nodiscard]] const std::vector<std::string>& pathsBeingWatched() const;
  [[nodiscard]] FSEventStreamEventId getLatestEventId() const;

  /// A dictionary of what `kestrine status` shows: "paths" (array), "state" (text: "created", "started", "stopped", "invalid"), "source"
  /// ("fanotify", "inotify", "polling", several joined by "+"), "trees" (array of dictionaries "path", "source": what serves each watched
  /// path and mount), "foldersMarked", "eventsDelivered", "deliveries" (numbers), "losses" (array of dictionaries "path", "reason",
  /// "remedy", "count", "lasting"), "unreadable" (array of paths), "regions" (array of dictionaries "path", "folders", "interval" in
  /// seconds, "reason": what is polled), "polled" (array of folders on the way to watched paths that are polled), "error" (text, when start
  /// failed).
  [[nodiscard]] Object status() const;

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace platform
