#pragma once

#include <string>

namespace platform::xpc {

/// Why a service cannot be reached, started or become one. A value.
struct LaunchError {
  /// What a caller may want to act upon without asking a second time, when the answer could be another one.
  enum class Kind {
    /// The system refused something that the text names.
    System,
    /// No service can have this name.
    IllegalName,
    /// No description of it is installed.
    NotInstalled,
    /// Its description is no description, or its program cannot be run.
    BadInstallation,
    /// The folder of service sockets is not there.
    NoFolder,
    /// The folder of service sockets, or the way to it, is not this user's alone, or may not be looked at.
    ForeignFolder,
    /// Somebody else has held one of its lock files for too long.
    Locked,
    /// Its socket has nobody behind it and is not ours to replace.
    ForeignSocket,
    /// Its process lives and has no socket: it is about to end, or somebody removed the file.
    WithoutSocket,
    /// It has no socket, or a dead one.
    NobodyListens,
    /// It listens, and takes no more connections.
    NotAccepting,
    /// Nobody is the service at this moment.
    NotRunning,
    /// Another process is the service, or listens for it.
    AlreadyServed,
    /// Whoever listens is neither this user nor root.
    ForeignServer,
  };

  /// In words that name the thing and what to do about it.
  std::string reason;
  Kind kind = Kind::System;
  friend bool operator==(const LaunchError&, const LaunchError&) = default;
};

}  // namespace platform::xpc
