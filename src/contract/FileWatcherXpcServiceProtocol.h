#pragma once

#include "platform/xpc/connection/XPCInterface.h"

namespace kestrine {

/// What the service offers to the application over a connection.
class FileWatcherXpcServiceProtocol {
 public:
  virtual ~FileWatcherXpcServiceProtocol() = default;

  /// Begins to watch the sync folder, in place of what an earlier call on the same connection watches. There is no reply: the watch lasts
  /// as long as the call.
  virtual void callToFileWatcher() = 0;

 protected:
  FileWatcherXpcServiceProtocol() = default;
  FileWatcherXpcServiceProtocol(const FileWatcherXpcServiceProtocol&) = default;
  FileWatcherXpcServiceProtocol& operator=(const FileWatcherXpcServiceProtocol&) = default;
};

/// `callToFileWatcher` as it is called over a connection.
inline constexpr const char* kCallToFileWatcherSelector = "callToFileWatcher";

/// The protocol as a connection needs to know it, by selector.
inline platform::XPCInterface fileWatcherXpcServiceInterface() {
  return platform::XPCInterface::interfaceWithProtocol<FileWatcherXpcServiceProtocol>(
      "FileWatcherXpcServiceProtocol", {{kCallToFileWatcherSelector, &FileWatcherXpcServiceProtocol::callToFileWatcher}});
}

}  // namespace kestrine
