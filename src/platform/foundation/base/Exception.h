#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace platform {

inline constexpr const char* NSInvalidArgumentException = "NSInvalidArgumentException";
inline constexpr const char* NSRangeException = "NSRangeException";
inline constexpr const char* NSInternalInconsistencyException = "NSInternalInconsistencyException";

/// A named exception, as the platform raises for misuse and as the product raises for a failed start. `what()` is the reason.
/// A value; may be thrown and caught on any thread.
class Exception : public std::runtime_error {
 public:
  Exception(std::string name, const std::string& reason) : std::runtime_error(reason), name_(std::move(name)) {}

  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  [[nodiscard]] std::string reason() const { return what(); }

 private:
  std::string name_;
};

}  // namespace platform
