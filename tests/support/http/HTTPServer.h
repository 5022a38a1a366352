#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrine::test {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

/// A request as it arrived. Names of header fields keep their spelling, and a field that came twice is there twice.
struct ReceivedRequest {
  std::string method;
  /// As it stood in the request line, escapes and all.
  std::string target;
  HeaderList headers;
  std::string body;

  /// The values of `name` (without regard to case) joined with " | ", so that a doubled field shows; nothing when there is none.
  [[nodiscard]] std::optional<std::string> header(const std::string& name) const;
};

struct Answer {
  int status = 200;
  std::string body = {};
  /// "Content-Type" too. "Content-Length" and "Connection" are the server's own.
  HeaderList headers = {};
  /// Sent in chunks rather than with its length.
  bool chunked = false;
};

/// A well-behaved HTTP server (cpp-httplib) on 127.0.0.1 and a free port, with threads of its own. The handler runs on them, several at
/// once. Ends, with what is running, when destroyed.
class HTTPServer {
 public:
  using Handler = std::function<Answer(const ReceivedRequest&)>;

  explicit HTTPServer(Handler handler);
  /// On `host` and `port` (0: a free one); throws std::runtime_error when they cannot be had.
  HTTPServer(Handler handler, const std::string& host, int port);
  /// Over TLS, with a certificate for "localhost" that nobody has signed.
  static std::unique_ptr<HTTPServer> overTLS(Handler handler);
  ~HTTPServer();
  HTTPServer(const HTTPServer&) = delete;
  HTTPServer& operator=(const HTTPServer&) = delete;

  [[nodiscard]] int port() const;
  /// "http://127.0.0.1:PORT" and `path` ("https://localhost:PORT" over TLS).
  [[nodiscard]] std::string url(const std::string& path) const;
  /// Those that arrived so far, in that order.
  [[nodiscard]] std::vector<ReceivedRequest> requests() const;

 private:
  struct Impl;
  explicit HTTPServer(std::unique_ptr<Impl> impl);
  const std::unique_ptr<Impl> impl_;
};

}  // namespace kestrine::test
