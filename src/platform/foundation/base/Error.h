#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace platform {

/// What went wrong, as a value: a domain, a code that means something within it, and a sentence for people. A platform operation that can
/// fail for reasons outside the program hands one out; misuse by the program is an Exception instead.
struct Error {
  std::string domain;
  std::int64_t code = 0;
  std::string localizedDescription;
  /// The address of the request that failed; empty where there is none.
  std::string failingURL = {};

  /// What "%@" prints, on one line: Error Domain=NSURLErrorDomain Code=-1001 "The request timed out."
  [[nodiscard]] std::string description() const {
    return "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" + localizedDescription + "\"";
  }
  friend bool operator==(const Error&, const Error&) = default;
};

}  // namespace platform
