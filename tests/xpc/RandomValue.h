#pragma once

#include <random>

#include "platform/xpc/value/Value.h"

namespace kestrine::test {

/// Values of every kind, nested at random; the same for the same seed. Descriptors only when `withDescriptors`.
class RandomValue {
 public:
  RandomValue(unsigned seed, bool withDescriptors) : random_(seed), withDescriptors_(withDescriptors) {}
  platform::xpc::Value next(int depth = 5);

 private:
  std::uint64_t bits() { return random_(); }
  std::size_t below(std::size_t limit) { return random_() % limit; }
  std::string text();
  platform::xpc::Value plain();

  std::mt19937_64 random_;
  bool withDescriptors_;
};

}  // namespace kestrine::test
