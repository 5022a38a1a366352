// Base64 of 1 MiB, next to OpenSSL's functions writing into memory that is there already.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "util/Base64.h"

namespace {

constexpr int kBytes = 1 << 20;

const platform::Data& plain() {
  static const auto& bytes = *[] {
    auto* made = new platform::Data(kBytes);
    std::mt19937 random(20'261'121);
    for (std::byte& byte : *made) byte = static_cast<std::byte>(random());
    return made;
  }();
  return bytes;
}

const std::string& encoded() {
  static const std::string& text = *new std::string(kestrine::base64EncodedString(plain()).value());
  return text;
}

const unsigned char* in(const void* bytes) { return static_cast<const unsigned char*>(bytes); }

// What is encoded is made before the first iteration.
void encode(benchmark::State& state) {
  static_cast<void>(encoded());
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(kestrine::base64EncodedString(plain()));
}

void encodeByOpenSSL(benchmark::State& state) {
  std::vector<unsigned char> text(encoded().size() + 1);
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(EVP_EncodeBlock(text.data(), in(plain().data()), kBytes));
}

void decode(benchmark::State& state) {
  static_cast<void>(encoded());
  for ([[maybe_unused]] auto _ : state) {
    if (kestrine::dataWithBase64EncodedString(encoded()) != plain()) state.SkipWithError("not decoded");
  }
}

void decodeByOpenSSL(benchmark::State& state) {
  std::vector<std::byte> bytes(kBytes + 3);
  for ([[maybe_unused]] auto _ : state) {
    EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()), in(encoded().data()), static_cast<int>(encoded().size()));
    if (!std::equal(plain().begin(), plain().end(), bytes.begin())) state.SkipWithError("not decoded");
  }
}

void encodeLines(benchmark::State& state) {
  static_cast<void>(encoded());
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(kestrine::base64EncodedStringWithWrapWidth(plain(), 76));
}

void decodeLines(benchmark::State& state) {
  const std::string lines = kestrine::base64EncodedStringWithWrapWidth(plain(), 76).value();
  for ([[maybe_unused]] auto _ : state) {
    if (kestrine::dataWithBase64EncodedString(lines) != plain()) state.SkipWithError("not decoded");
  }
}

BENCHMARK(encode)->Name("base64: encode 1 MiB")->Unit(benchmark::kMicrosecond);
BENCHMARK(encodeByOpenSSL)->Name("base64: encode 1 MiB, OpenSSL")->Unit(benchmark::kMicrosecond);
BENCHMARK(decode)->Name("base64: decode 1 MiB")->Unit(benchmark::kMicrosecond);
BENCHMARK(decodeByOpenSSL)->Name("base64: decode 1 MiB, OpenSSL")->Unit(benchmark::kMicrosecond);
BENCHMARK(encodeLines)->Name("base64: encode 1 MiB in lines")->Unit(benchmark::kMicrosecond);
BENCHMARK(decodeLines)->Name("base64: decode 1 MiB in lines")->Unit(benchmark::kMicrosecond);

}  // namespace
