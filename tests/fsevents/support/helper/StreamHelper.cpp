// A stream in a process of its own, driven by lines on its standard input:
//
//   StreamHelper SOURCE LATENCY FLAGS PATH... -EXCLUDED...
//
// It says "ready SOURCE" or "failed REASON", then answers each command with any number of lines and "done". Ends when its input ends.

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/foundation/log/Log.h"
#include "platform/fsevents/FSEventStream.h"
#include "tests/fsevents/support/Hex.h"

namespace {

using kestrine::test::fromHex;
using kestrine::test::toHex;
using platform::FSEvent;
using platform::FSEventStream;

class Helper {
 public:
  Helper(FSEventStream::Source source, double latency, platform::FSEventStreamCreateFlags flags,
         const std::vector<std::string>& arguments) {
    std::vector<std::string> paths;
    std::vector<std::string> exclusions;
    for (const auto& argument : arguments) {
      if (argument.starts_with("-")) {
        exclusions.push_back(argument.substr(1));
      } else {
        paths.push_back(argument);
      }
    }
    if (paths.empty()) return;
    stream_ = std::make_unique<FSEventStream>(
        [this](FSEventStream&, std::span<const FSEvent> events) {
          const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
          const std::lock_guard lock(mutex_);
          for (const auto& event : events) events_.emplace_back(event, now);
        },
        std::move(paths), platform::kFSEventStreamEventIdSinceNow, latency, flags, source);
    if (!exclusions.empty() && !stream_->setExclusionPaths(std::move(exclusions))) throw std::runtime_error("too many exclusions");
  }

  int run() {
    if (!stream_) {
      answer("ready none");
      serve();
      return 0;
    }
    auto loop = platform::RunLoop::current();
    stream_->scheduleWithRunLoop(loop);
    if (stream_->start()) {
      answer("ready " + stream_->status().objectForKey("source").stringValue());
    } else {
      answer("failed " + stream_->status().objectForKey("error").stringValue());
    }
    std::thread commands;
    // Not before the loop runs: a flush waits only for a loop that does.
    loop->perform([this, &commands] {
      commands = std::thread([this] {
        serve();
        stream_->invalidate();
      });
    });
    loop->run();
    commands.join();
    stream_.reset();
    platform::flushLog();
    return 0;
  }

 private:
  static void answer(const std::string& line) { std::cout << line << '\n' << std::flush; }

  void serve() {
    for (std::string line; std::getline(std::cin, line);) {
      std::istringstream words(line);
      std::string command;
      std::string first;
      std::string second;
      words >> command >> first >> second;
      obey(command, first, second);
      answer("done");
    }
  }

  void obey(const std::string& command, const std::string& first, const std::string& second) {
    if (command == "flush") {
      stream_->flushSync();
      tellEvents();
    } else if (command == "delivered") {
      tellEvents();
    } else if (command == "compared") {
      unsigned long long folders = 0;
      const auto regions = stream_->status().objectForKey("regions");
      for (std::size_t i = 0; i < regions.count(); ++i) folders += regions.objectAtIndex(i).objectForKey("folders").unsignedLongLongValue();
      answer(std::to_string(folders));
    } else if (command == "status") {
      const auto value = stream_->status().objectForKey(first);
      answer(std::to_string(value.isArray() ? value.count() : value.unsignedLongLongValue()));
    } else if (command == "write") {
      std::ofstream(fromHex(first), std::ios::app) << "x";
    } else if (command == "folder") {
      ::mkdir(fromHex(first).c_str(), 0755);
    } else if (command == "move") {
      std::rename(fromHex(first).c_str(), fromHex(second).c_str());
    }
  }

  void tellEvents() {
    std::vector<std::pair<FSEvent, std::int64_t>> events;
    {
      const std::lock_guard lock(mutex_);
      events.swap(events_);
    }
    for (const auto& [event, time] : events) std::cout << event.id << ' ' << event.flags << ' ' << toHex(event.path) << ' ' << time << '\n';
  }

  std::mutex mutex_;
  /// Each with the time of its delivery.
  std::vector<std::pair<FSEvent, std::int64_t>> events_;
  std::unique_ptr<FSEventStream> stream_;
};

}  // namespace

int main(int count, char** values) {
  if (count < 4) return 64;
  const std::string name = values[1];
  const auto source = name == "fanotify"  ? FSEventStream::Source::Fanotify
                      : name == "inotify" ? FSEventStream::Source::Inotify
                                          : FSEventStream::Source::Automatic;
  Helper helper(source, std::stod(values[2]), static_cast<platform::FSEventStreamCreateFlags>(std::stoul(values[3])),
                std::vector<std::string>(values + 4, values + count));
  return helper.run();
}
