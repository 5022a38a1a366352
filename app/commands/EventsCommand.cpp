#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <span>

#include "app/cli/CommandError.h"
#include "app/cli/Numbers.h"
#include "app/cli/Output.h"
#include "app/cli/PrintError.h"
#include "app/cli/StopSignals.h"
#include "app/commands/Commands.h"
#include "app/commands/EventLine.h"
#include "platform/concurrency/loop/RunLoop.h"
#include "platform/fsevents/FSEventStream.h"

namespace kestrine {

namespace {

using platform::FSEventStream;

constexpr Option kEventsOptions[] = {
    {"--latency", "S", "seconds to collect changes for, from the first one on; 0.1 if not given"},
    {"--since", "ID", "tell first what changed since this event identifier; 'now' if not given"},
    {"--no-file-events", "", "one event per folder in which something changed, not one per item"},
    {"--no-defer", "", "tell the first change after a quiet time at once"},
    {"--watch-root", "", "tell when a PATH itself, or a folder above it, is moved, removed or made"},
    {"--exclude", "PATH", "leave out what is at or below this path", true},
    {"--source", "SOURCE", "fanotify, inotify or auto: what the kernel offers; auto if not given"},
    {"--flags", "N", "the stream's creation flags as a number (0x... too), in place of the switches above"},
    {"--json", "", "one JSON object per line instead of text for people"},
};

/// As it is printed, so that its lines are its own.
constexpr std::string_view kEventsDetails =
    R"(A PATH need not exist: watching begins when it appears. What is printed reaches the reader with each delivery.
Text: identifier, names of the flags, path (with escapes for what cannot be printed); "watching" on standard error when the watch
stands. JSON: first {"ready": true, "source": "fanotify"} when the watch stands, then {"id", "flags" (number), "names" (array),
"path"}, with "path_hex" instead of "path" where its bytes are not UTF-8. An event with MustScanSubDirs says that something
below its path may have changed untold; look through it. Where that goes on, as at a folder without permission, {"loss": {"path",
"reason", "remedy"}} says when it begins and {"recovered": {"path"}} when it is over; without --json these are lines on standard
error. With --since, an event HistoryDone divides what had changed since the identifier (some of it perhaps told before) from what
changes now. On SIGINT and SIGTERM what is pending is printed first.)";

constexpr ExitNote kEventsExits[] = {
    {ExitCode::Ok, "ended by SIGINT or SIGTERM, or its reader has gone"},
    {ExitCode::Failed, "standard output could not be written"},
    {ExitCode::NotWatching, "the watch could not start; the message says why"},
};

struct SourceName {
  std::string_view name;
  FSEventStream::Source source;
};
constexpr SourceName kSources[] = {
    {"auto", FSEventStream::Source::Automatic},
    {"fanotify", FSEventStream::Source::Fanotify},
    {"inotify", FSEventStream::Source::Inotify},
};

/// A switch and what it does to the creation flags.
struct FlagSwitch {
  std::string_view option;
  platform::FSEventStreamCreateFlags flag;
  bool sets;
};
constexpr FlagSwitch kFlagSwitches[] = {
    {"--no-file-events", platform::kFSEventStreamCreateFlagFileEvents, false},
    {"--no-defer", platform::kFSEventStreamCreateFlagNoDefer, true},
    {"--watch-root", platform::kFSEventStreamCreateFlagWatchRoot, true},
};

[[noreturn]] void refuse(std::string_view option, const std::string& value, std::string_view expected) {
  throw CommandError(ExitCode::Usage, fmt::format("events: '{} {}' is not {}", option, value, expected));
}

double latencyIn(const Arguments& arguments) {
  const auto text = arguments.value("--latency");
  if (!text) return 0.1;
  const auto seconds = parseSeconds(*text);
  if (!seconds) refuse("--latency", *text, "a number of seconds from 0 to 86400");
  return *seconds;
}

platform::FSEventStreamEventId sinceIn(const Arguments& arguments) {
  const auto text = arguments.value("--since");
  if (!text || *text == "now") return platform::kFSEventStreamEventIdSinceNow;
  const auto identifier = parseUnsigned(*text);
  if (!identifier) refuse("--since", *text, "an event identifier or 'now'");
  return *identifier;
}

FSEventStream::Source sourceIn(const Arguments& arguments) {
  const std::string name = arguments.value("--source").value_or("auto");
  const auto found = std::ranges::find(kSources, name, &SourceName::name);
  if (found == std::end(kSources)) refuse("--source", name, "fanotify, inotify or auto");
  return found->source;
}

platform::FSEventStreamCreateFlags flagsIn(const Arguments& arguments) {
  if (const auto text = arguments.value("--flags")) {
    const auto number = parseUnsignedOrHexadecimal(*text);
    if (!number || *number > std::numeric_limits<platform::FSEventStreamCreateFlags>::max())
      refuse("--flags", *text, "a number of 32 bits");
    return static_cast<platform::FSEventStreamCreateFlags>(*number);
  }
  platform::FSEventStreamCreateFlags flags = platform::kFSEventStreamCreateFlagFileEvents;
  for (const FlagSwitch& row : kFlagSwitches) {
    if (arguments.has(row.option)) flags = row.sets ? flags | row.flag : flags & ~row.flag;
  }
  return flags;
}

/// Prints what one stream delivers, until a signal comes or nobody reads any more.
class EventPrinter {
 public:
  explicit EventPrinter(const Arguments& arguments)
      : json_(arguments.has("--json")),
        output_(STDOUT_FILENO, signals_.fileDescriptor()),
        writer_(json_),
        stream_([this](FSEventStream&, std::span<const platform::FSEvent> events) { print(events); }, arguments.operands(),
                sinceIn(arguments), latencyIn(arguments), flagsIn(arguments), sourceIn(arguments)) {
    if (arguments.has("--exclude")) stream_.setExclusionPaths(arguments.values("--exclude"));
    stream_.setLossCallback([this](FSEventStream&, std::span<const platform::fsevents::LossNotice> notices) { print(notices); });
    stream_.scheduleWithRunLoop(loop_);
  }

  ExitCode run() {
    signals_.schedule(*loop_, [this] { end(); });
    if (!stream_.start()) {
      const platform::Object error = stream_.status().objectForKey("error");
      throw CommandError(ExitCode::NotWatching,
                         fmt::format("the watch could not start: {}", error.isNil() ? "see the log" : error.description()));
    }
    tellReady();
    if (!output_.isClosed()) loop_->run();
    stream_.invalidate();
    if (output_.isClosed() && !output_.readerHasGone()) {
      throw CommandError(ExitCode::Failed, fmt::format("standard output could not be written: {}", output_.reason()));
    }
    return ExitCode::Ok;
  }

 private:
  void tellReady() {
    if (!json_) {
      printError("watching\n");
      return;
    }
    std::string line = "{\"ready\": true, \"source\": ";
    appendJsonString(line, stream_.status().objectForKey("source").stringValue());
    output_.write(line + "}\n");
  }

  void print(std::span<const platform::FSEvent> events) {
    text_.clear();
    for (const platform::FSEvent& event : events) writer_.append(text_, event);
    if (!output_.write(text_)) loop_->stop();
  }

  void print(std::span<const platform::fsevents::LossNotice> notices) {
    text_.clear();
    for (const platform::fsevents::LossNotice& notice : notices) writer_.append(text_, notice);
    if (!json_) {
      printError(text_);
    } else if (!output_.write(text_)) {
      loop_->stop();
    }
  }

  /// What happened before the signal is still told.
  void end() {
    output_.hurry();
    stream_.flushSync();
    loop_->stop();
  }

  bool json_;
  // First of all: threads made later inherit the blocked signals.
  StopSignals signals_;
  Output output_;
  EventLineWriter writer_;
  std::string text_;
  std::shared_ptr<platform::RunLoop> loop_ = platform::RunLoop::current();
  FSEventStream stream_;
};

ExitCode runEvents(const Arguments& arguments) { return EventPrinter(arguments).run(); }

}  // namespace

constinit const Command kEventsCommand{
    .name = "events",
    .operands = "PATH...",
    .summary = "Prints the changes below folders and files, one line per event.",
    .details = kEventsDetails,
    .options = kEventsOptions,
    .fewestOperands = 1,
    .mostOperands = std::numeric_limits<std::size_t>::max(),
    .exits = kEventsExits,
    .run = runEvents,
};

}  // namespace kestrine
