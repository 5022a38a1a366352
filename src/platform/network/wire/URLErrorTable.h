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

  /// All of the reply has come, or the handshake that was all there was to do.
  [[nodiscard]] bool isSuccess() const { return result == CURLE_OK; }
  /// The handshake failed because the system's certificates do not vouch for the server.
  [[nodiscard]] bool isOfUntrustedServer() const { return result == CURLE_PEER_FAILED_VERIFICATION; }
  /// libcurl's words for it.
  [[nodiscard]] const char* text() const { return curl_easy_strerror(result); }
};

/// The platform's code; NSURLErrorUnknown for a result that libcurl cannot give for HTTP as it is used here.
std::int64_t URLErrorCode(const TransferEnd& end);

}  // namespace platform::network
