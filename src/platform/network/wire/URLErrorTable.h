#pragma once

#include <curl/curl.h>

#include <cstdint>

// Internal to the network room: the one place that knows what libcurl's codes mean to a caller.
namespace platform::network {

/// How far a transfer was when it ended, where that decides.
struct TransferEnd {
  CURLcode result = CURLE_OK;
  /// errno of the last connection that failed; 0 for none.
  long systemError = 0;
  /// Whether any byte of a reply had arrived.
  bool replyBegan = false;
};

/// The platform's code; NSURLErrorUnknown for a result that libcurl cannot give for HTTP as it is used here.
std::int64_t URLErrorCode(const TransferEnd& end);

}  // namespace platform::network
