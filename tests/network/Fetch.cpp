#include "tests/network/Fetch.h"

#include <future>
#include <stdexcept>

namespace kestrine::test {

namespace {

using platform::URLSession;

/// The handler fills it; whoever waits takes it. The handler holds the promise too, since it may be in use when the waiting one is gone on.
struct Waiting {
  const std::shared_ptr<std::promise<Fetched>> promise = std::make_shared<std::promise<Fetched>>();
  [[nodiscard]] URLSession::DataHandler handler() const {
    return [promise = promise](const auto& data, const auto& response, const auto& error) { promise->set_value({data, response, error}); };
  }
  [[nodiscard]] Fetched wait() const { return promise->get_future().get(); }
};

}  // namespace

platform::URL address(const std::string& text) {
  auto url = platform::URL::URLWithString(text);
  if (!url) throw std::runtime_error("no address: " + text);
  return *url;
}

platform::URLRequest requestFor(const std::string& url, const std::string& method, const std::string& body) {
  platform::URLRequest request(address(url));
  request.setHTTPMethod(method);
  if (!body.empty()) request.setHTTPBody(platform::Bytes(body));
  return request;
}

platform::URLSessionConfiguration patience(double seconds) {
  auto configuration = platform::URLSessionConfiguration::defaultSessionConfiguration();
  configuration.timeoutIntervalForRequest = seconds;
  return configuration;
}

std::shared_ptr<URLSession> makeSession(const platform::URLSessionConfiguration& configuration,
                                        const std::shared_ptr<platform::URLSessionDelegate>& delegate) {
  return URLSession::sessionWithConfiguration(configuration, delegate, platform::OperationQueue::create("test"));
}

Fetched fetch(URLSession& session, const platform::URLRequest& request) {
  const Waiting waiting;
  session.dataTaskWithRequest(request, waiting.handler())->resume();
  return waiting.wait();
}

Fetched fetch(const platform::URLRequest& request) { return fetch(*makeSession(), request); }

Fetched fetch(const std::string& url) { return fetch(requestFor(url)); }

Fetched uploadFile(URLSession& session, const platform::URLRequest& request, const std::string& path) {
  const Waiting waiting;
  session.uploadTaskWithRequest_fromFile(request, platform::URL::fileURLWithPath(path), waiting.handler())->resume();
  return waiting.wait();
}

}  // namespace kestrine::test
