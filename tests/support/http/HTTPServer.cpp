#include "tests/support/http/HTTPServer.h"

#include <httplib.h>
#include <strings.h>

#include <mutex>
#include <stdexcept>
#include <thread>

#include "tests/support/http/Certificate.h"

namespace kestrine::test {

std::optional<std::string> ReceivedRequest::header(const std::string& name) const {
  std::optional<std::string> values;
  for (const auto& [field, value] : headers) {
    if (strcasecmp(field.c_str(), name.c_str()) != 0) continue;
    values = values ? *values + " | " + value : value;
  }
  return values;
}

struct HTTPServer::Impl {
  explicit Impl(Handler itsHandler, std::unique_ptr<httplib::Server> itsServer)
      : handler(std::move(itsHandler)), server(std::move(itsServer)) {}

  void serve(const httplib::Request& from, httplib::Response& to) {
    ReceivedRequest request{from.method, from.target, {}, from.body};
    for (const auto& [name, value] : from.headers) {
      // Put there by the library, not by the client.
      if (name != "REMOTE_ADDR" && name != "REMOTE_PORT" && name != "LOCAL_ADDR" && name != "LOCAL_PORT") {
        request.headers.emplace_back(name, value);
      }
    }
    {
      const std::lock_guard lock(mutex);
      requests.push_back(request);
    }
    const Answer answer = handler(request);
    to.status = answer.status;
    std::string type;
    for (const auto& [name, value] : answer.headers) {
      if (strcasecmp(name.c_str(), "Content-Type") == 0) {
        type = value;
      } else {
        to.headers.emplace(name, value);
      }
    }
    if (answer.chunked) {
      to.set_chunked_content_provider(type, [body = answer.body](std::size_t offset, httplib::DataSink& sink) {
        const auto piece = std::min<std::size_t>(body.size() - offset, 16384);
        if (piece > 0 && !sink.write(body.data() + offset, piece)) return false;
        if (offset + piece == body.size()) sink.done();
        return true;
      });
    } else {
      to.body = answer.body;
      if (!type.empty()) to.headers.emplace("Content-Type", type);
    }
  }

  void start(const std::string& host, int wanted) {
    server->set_keep_alive_max_count(1000000);
    server->set_read_timeout(120);
    server->set_write_timeout(120);
    // The library's own headers (Content-Encoding by Accept-Encoding, ranges) stay out of the way: everything goes through one function
    // before its routing.
    server->set_pre_routing_handler(
        [](const httplib::Request&, httplib::Response&) { return httplib::Server::HandlerResponse::Unhandled; });
    const auto any = [this](const httplib::Request& from, httplib::Response& to) { serve(from, to); };
    server->Get(".*", any).Post(".*", any).Put(".*", any).Delete(".*", any).Patch(".*", any).Options(".*", any);
    port = wanted == 0 ? server->bind_to_any_port(host) : (server->bind_to_port(host, wanted) ? wanted : -1);
    if (port <= 0) throw std::runtime_error("no port for the test's server on " + host);
    thread = std::thread([this] { server->listen_after_bind(); });
    while (!server->is_running()) std::this_thread::yield();
  }

  ~Impl() {
    if (!thread.joinable()) return;
    server->stop();
    thread.join();
  }

  const Handler handler;
  const std::unique_ptr<httplib::Server> server;
  int port = 0;
  std::string base;
  std::thread thread;
  std::mutex mutex;
  std::vector<ReceivedRequest> requests;
};

HTTPServer::HTTPServer(Handler handler) : HTTPServer(std::move(handler), "127.0.0.1", 0) {}

HTTPServer::HTTPServer(Handler handler, const std::string& host, int port)
    : impl_(std::make_unique<Impl>(std::move(handler), std::make_unique<httplib::Server>())) {
  impl_->start(host, port);
  impl_->base = "http://" + host + ":" + std::to_string(impl_->port);
}

HTTPServer::HTTPServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

std::unique_ptr<HTTPServer> HTTPServer::overTLS(Handler handler) {
  const SelfSigned pair;
  auto impl = std::make_unique<Impl>(std::move(handler), std::make_unique<httplib::SSLServer>(pair.certificate(), pair.key()));
  impl->start("127.0.0.1", 0);
  impl->base = "https://localhost:" + std::to_string(impl->port);
  return std::unique_ptr<HTTPServer>(new HTTPServer(std::move(impl)));
}

HTTPServer::~HTTPServer() = default;

int HTTPServer::port() const { return impl_->port; }

std::string HTTPServer::url(const std::string& path) const { return impl_->base + path; }

std::vector<ReceivedRequest> HTTPServer::requests() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->requests;
}

}  // namespace kestrine::test
