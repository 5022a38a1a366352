// What a message costs on its way through the channel, without the socket.
#include <benchmark/benchmark.h>

#include <variant>

#include "platform/xpc/value/WireFormat.h"

namespace {

using namespace platform::xpc;

/// An object-level call, which is what the application sends.
Value smallMessage() {
  return Value::dictionary(
      {{"interface", Value::string("FileWatcherXpcServiceProtocol")}, {"selector", Value::string("callToFileWatcher")}});
}

/// A thousand entries of mixed kinds.
Value largeMessage() {
  Value::Array rows;
  for (int row = 0; row < 250; ++row) {
    rows.push_back(Value::dictionary({{"number", Value::int64(row)},
                                      {"name", Value::string("a name of ordinary length")},
                                      {"ratio", Value::real(row / 7.0)},
                                      {"done", Value::boolean(row % 2 == 0)}}));
  }
  return Value::dictionary({{"rows", Value::array(std::move(rows))}});
}

void encodeMessage(benchmark::State& state, const Value& message) {
  while (state.KeepRunning()) benchmark::DoNotOptimize(encode(message));
}

void decodeMessage(benchmark::State& state, const Value& message) {
  const auto encoded = encode(message);
  const auto& bytes = encoded->bytes;
  while (state.KeepRunning()) {
    if (!decode(bytes, {})) state.SkipWithError("not decoded");
  }
}

BENCHMARK_CAPTURE(encodeMessage, small, smallMessage())->Name("wire format: encode a call");
BENCHMARK_CAPTURE(decodeMessage, small, smallMessage())->Name("wire format: decode a call");
BENCHMARK_CAPTURE(encodeMessage, large, largeMessage())->Name("wire format: encode 1,000 values");
BENCHMARK_CAPTURE(decodeMessage, large, largeMessage())->Name("wire format: decode 1,000 values");

}  // namespace
