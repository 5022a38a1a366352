#pragma once

#include <stdexcept>
#include <string>

#include "app/cli/ExitCode.h"

namespace kestrine {

/// Thrown by a sub-command that cannot go on. The text names the thing and the remedy; it is printed on standard error.
class CommandError : public std::runtime_error {
 public:
  CommandError(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
  [[nodiscard]] ExitCode code() const noexcept { return code_; }

 private:
  ExitCode code_;
};

}  // namespace kestrine
