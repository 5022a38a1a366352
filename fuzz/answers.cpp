// An answer of the server through the parser of each operation: a record, or an NSInvalidArgumentException.
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <tuple>

#include "Services/Endpoints.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/formats/JSON.h"

namespace {

template <class Query, class Result>
void parse(const kestrine::Endpoint<Query, Result>& endpoint, const platform::Object& answer) {
  try {
    static_cast<void>(endpoint.parser(answer));
  } catch (const platform::Exception& exception) {
    if (exception.name() != platform::NSInvalidArgumentException) std::abort();
  }
}

template <class Query>
void parse(const kestrine::StreamEndpoint<Query>& /*endpoint*/, const platform::Object& /*answer*/) {}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  platform::Object answer;
  try {
    answer = platform::readJSON(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const platform::JSONError&) {
    return 0;
  }
  std::apply([&](const auto&... endpoints) { (parse(endpoints, answer), ...); }, kestrine::kEndpoints);
  return 0;
}
