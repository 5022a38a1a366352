#pragma once

#include <string_view>

#include "Services/RestAnswer.h"
#include "platform/foundation/value/Object.h"

namespace kestrine {

/// What a call logs besides the transport: the body before it is sent, what the transport delivered, and a text after the handler has
/// returned. Nothing where empty.
struct EndpointLog {
  std::string_view body = {};
  std::string_view result = {};
  std::string_view afterError = {};
  std::string_view afterSuccess = {};
};

template <class Query, class Result>
struct Endpoint {
  int number;
  /// The name that the operation was designed with.
  std::string_view selector;
  /// Relative to the server's base URL.
  std::string_view path;
  void (*method)(const Query& query, RestHandler<Result> handler);
  platform::Object (*builder)(const Query& query);
  Result (*parser)(const platform::Object& response);
  EndpointLog log = {};
};
template <class Query, class Result>
Endpoint(int, std::string_view, std::string_view, void (*)(const Query&, RestHandler<Result>), platform::Object (*)(const Query&),
         Result (*)(const platform::Object&), EndpointLog = {}) -> Endpoint<Query, Result>;

/// The one whose answer is not parsed.
template <class Query>
struct StreamEndpoint {
  int number;
  std::string_view selector;
  std::string_view path;
  void (*method)(const Query& query, RestStreamHandler handler);
  platform::Object (*builder)(const Query& query);
};
template <class Query>
StreamEndpoint(int, std::string_view, std::string_view, void (*)(const Query&, RestStreamHandler), platform::Object (*)(const Query&))
    -> StreamEndpoint<Query>;

}  // namespace kestrine
