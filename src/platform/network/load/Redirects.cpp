#include "platform/network/load/Redirects.h"

#include <string>

#include "platform/network/message/URLError.h"

namespace platform::network {

namespace {

constexpr int kFollowedAtMost = 20;

bool goesOnAsGET(int status, const std::string& method) {
  return status == 303 ? method != "GET" && method != "HEAD" : (status == 301 || status == 302) && method == "POST";
}

}  // namespace

bool Redirects::isOne(const URLResponse& reply) {
  const int status = reply.statusCode();
  if (status != 301 && status != 302 && status != 303 && status != 307 && status != 308) return false;
  const auto location = reply.valueForHTTPHeaderField("Location");
  return location && !location->empty();
}

Result<Origin, LoadFailure> Redirects::follow(const URLResponse& reply, const Origin& from, Exchange::Request& request) {
  const auto location = reply.valueForHTTPHeaderField("Location").value_or("");
  const auto target = resolvedLocation(request.url, location);
  if (met_++ == kFollowedAtMost) return LoadFailure{NSURLErrorHTTPTooManyRedirects};
  if (target.empty()) return LoadFailure{NSURLErrorBadURL, "the redirect's address: " + location};
  auto origin = originOf(target);
  if (!origin) return LoadFailure{NSURLErrorUnsupportedURL, "the redirect's address: " + target};
  if (goesOnAsGET(reply.statusCode(), request.method)) {
    request.method = "GET";
    request.body.reset();
    for (const char* name : {"Content-Type", "Content-Encoding", "Content-Language", "Content-Location"}) request.headers.remove(name);
  }
  if (*origin != from) {
    for (const char* name : {"Authorization", "Cookie", "Host"}) request.headers.remove(name);
  }
  request.url = target;
  request.authentication = HTTPAuthentication::None;
  return *std::move(origin);
}

}  // namespace platform::network
