#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/network/message/URLResponse.h"

namespace platform {

inline constexpr const char* NSURLAuthenticationMethodHTTPBasic = "NSURLAuthenticationMethodHTTPBasic";
inline constexpr const char* NSURLAuthenticationMethodHTTPDigest = "NSURLAuthenticationMethodHTTPDigest";
inline constexpr const char* NSURLAuthenticationMethodServerTrust = "NSURLAuthenticationMethodServerTrust";

/// What asks for authentication.
struct URLProtectionSpace {
  std::string host;
  int port = 0;
  /// "http" or "https".
  std::string protocol;
  /// One of the methods above.
  std::string authenticationMethod;
  /// What the server calls the area; empty for a trust challenge.
  std::string realm;
};

/// A user and a password, or the caller's word that a server is to be trusted.
struct URLCredential {
  static URLCredential credentialWithUser_password(std::string user, std::string password) {
    return {std::move(user), std::move(password), false};
  }
  static URLCredential credentialForTrust() { return {{}, {}, true}; }
  std::string user;
  std::string password;
  bool trust = false;
};

/// A server's question to the client. A value.
struct URLAuthenticationChallenge {
  URLProtectionSpace protectionSpace;
  /// Credentials of this task that the server has already refused.
  int previousFailureCount = 0;
  /// The reply that asked; none for a trust challenge.
  std::shared_ptr<const URLResponse> failureResponse = {};
  /// Trust challenges: whether the system's certificates vouch for the server.
  bool serverIsTrustedBySystem = false;
};

enum class URLSessionAuthChallengeDisposition {
  /// Try again with the credential (without one: PerformDefaultHandling).
  UseCredential,
  /// As if nobody had been asked: the refusal is the reply; trust is what the system says.
  PerformDefaultHandling,
  /// The task ends as cancelled.
  CancelAuthenticationChallenge,
  /// The next method that the server offers, if any; otherwise as PerformDefaultHandling.
  RejectProtectionSpace,
};

/// May be called on any thread, once; later calls do nothing. Dropping it unanswered leaves the task waiting until it times out.
using URLChallengeHandler = std::function<void(URLSessionAuthChallengeDisposition, std::optional<URLCredential>)>;

}  // namespace platform
