#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "app/cli/Arguments.h"
#include "app/cli/ExitCode.h"

namespace kestrine {

/// A sub-command: what it is called, what it takes, what its help says and what it does. The help is made of nothing else.
struct Command {
  std::string_view name;
  /// Its operands, as the usage line shows them.
  std::string_view operands;
  std::string_view summary;
  std::string_view details;
  std::span<const Option> options;
  std::size_t fewestOperands = 0;
  std::size_t mostOperands = 0;
  /// The exit codes that it can give, besides that for a wrong command line.
  std::span<const ExitNote> exits;
  /// May throw CommandError.
  ExitCode (*run)(const Arguments& arguments) = nullptr;
};

/// The sub-commands of a program in the order in which its help names them.
using CommandTable = std::span<const Command* const>;

}  // namespace kestrine
