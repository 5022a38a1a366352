#include "app/client/FileWatcherClient.h"

#include <stdexcept>
#include <utility>

#include "app/client/FlagMonitor.h"
#include "app/client/StatusFlag.h"
#include "app/client/WatchKeeper.h"
#include "app/client/WatchRequest.h"
#include "app/client/WatchedFolder.h"
#include "platform/concurrency/loop/RunLoop.h"

namespace kestrine {

namespace {

bool checkedTaken(const FlagReading& reading) {
  if (reading.resetFailed) throw std::runtime_error("the flag is raised and cannot be reset; see the log");
  return reading.raised;
}

}  // namespace

FileWatcherClient::FileWatcherClient() : keeper_(std::make_unique<WatchKeeper>()) {}

FileWatcherClient::~FileWatcherClient() = default;

bool FileWatcherClient::setBasePath(const std::string& path) { return kestrine::setBasePath(path); }

WatchStart FileWatcherClient::startWatching(std::chrono::milliseconds limit) {
  WatchStart start = requestWatch(limit);
  if (start.stands()) keeper_->keep(start.process);
  return start;
}

bool FileWatcherClient::waitForFlag(std::chrono::milliseconds limit) {
  const auto loop = platform::RunLoop::current();
  FlagReading reading;
  FlagMonitor monitor(loop, [&](const FlagReading& raised) {
    reading = raised;
    loop->stop();
  });
  if (!monitor.start()) throw std::runtime_error("the preferences folder cannot be watched: " + monitor.error());
  loop->runFor(std::chrono::duration<double>(limit).count());
  return checkedTaken(reading);
}

bool FileWatcherClient::takeFlag() { return checkedTaken(kestrine::takeFlag()); }

void FileWatcherClient::setEventHandler(std::function<void(const ServiceEvent&)> handler) { keeper_->setHandler(std::move(handler)); }

}  // namespace kestrine
