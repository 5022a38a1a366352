#pragma once

#include "platform/network/message/HTTPHeaders.h"

namespace platform {

/// How the tasks of a session behave. A value; the session copies it.
struct URLSessionConfiguration {
  static URLSessionConfiguration defaultSessionConfiguration() { return {}; }

  /// Sent with every request that does not have the field itself.
  HTTPHeaders HTTPAdditionalHeaders = {};
  /// Seconds of silence (no byte sent or received, waiting for a connection or for the answer to a challenge included) after which a task
  /// fails with NSURLErrorTimedOut. The request's own time-out holds too. Zero or less: no such limit.
  double timeoutIntervalForRequest = 60;
  /// Seconds for a whole task, redirects included.
  double timeoutIntervalForResource = 7 * 24 * 60 * 60;
  /// Connections to one host at a time; further tasks wait. Zero or less: no limit.
  int HTTPMaximumConnectionsPerHost = 6;
  /// Kept for callers; every network is used alike here.
  bool allowsCellularAccess = true;
};

}  // namespace platform
