#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/network/session/URLSession.h"

namespace kestrine::test {

/// What a completion handler was given.
struct Fetched {
  std::optional<platform::Bytes> data;
  std::shared_ptr<const platform::URLResponse> response;
  std::optional<platform::Error> error;

  /// 0 when no reply came.
  [[nodiscard]] int status() const { return response ? response->statusCode() : 0; }
  [[nodiscard]] std::string text() const { return data ? data->text() : std::string("(no data)"); }
  /// 0 for no error.
  [[nodiscard]] std::int64_t code() const { return error ? error->code : 0; }
};

platform::URL address(const std::string& text);
platform::URLRequest requestFor(const std::string& url, const std::string& method = "GET", const std::string& body = {});

/// A configuration whose tasks give up after `seconds` of silence.
platform::URLSessionConfiguration patience(double seconds);

/// A session with a delegate queue of its own, so that the main loop need not run.
std::shared_ptr<platform::URLSession> makeSession(const platform::URLSessionConfiguration& configuration = {},
                                                  const std::shared_ptr<platform::URLSessionDelegate>& delegate = nullptr);

/// Runs a data task to its end.
Fetched fetch(platform::URLSession& session, const platform::URLRequest& request);
Fetched fetch(const platform::URLRequest& request);
Fetched fetch(const std::string& url);

/// Runs an upload of a file to its end.
Fetched uploadFile(platform::URLSession& session, const platform::URLRequest& request, const std::string& path);

}  // namespace kestrine::test
