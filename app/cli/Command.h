#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "app/cli/ExitCode.h"

namespace kestrine {

/// One option of a sub-command. With an empty `value` it is a switch; else it takes one, as "--name VALUE" or "--name=VALUE".
struct Option {
  std::string_view name;
  std::string_view value;
  std::string_view help;
  bool repeatable = false;
};

/// What stood on the command line of a sub-command: options that its table names, and operands. A value.
class Arguments {
 public:
  [[nodiscard]] bool has(std::string_view option) const { return values_.contains(option); }
  [[nodiscard]] std::optional<std::string> value(std::string_view option) const;
  [[nodiscard]] std::vector<std::string> values(std::string_view option) const;
  [[nodiscard]] const std::vector<std::string>& operands() const { return operands_; }

 private:
  friend Arguments parseArguments(const struct Command& command, std::span<const std::string> words);
  std::map<std::string, std::vector<std::string>, std::less<>> values_;
  std::vector<std::string> operands_;
};

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
  ExitCode (*run)(const Arguments& arguments) = nullptr;
};

/// Thrown by a sub-command that cannot go on. The text names the thing and the remedy; it is printed on standard error.
class CommandError : public std::runtime_error {
 public:
  CommandError(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
  [[nodiscard]] ExitCode code() const noexcept { return code_; }

 private:
  ExitCode code_;
};

/// Sorts the words after the sub-command's name. Throws CommandError(Usage) for what its table does not know.
Arguments parseArguments(const Command& command, std::span<const std::string> words);

/// The sub-commands of a program in the order in which its help names them.
using CommandTable = std::span<const Command* const>;

/// The whole command line without the program's name: finds the sub-command, runs it and returns the exit code. Errors go to standard
/// error.
ExitCode runCommandLine(CommandTable commands, std::span<const std::string> words);

std::string helpText(CommandTable commands);
std::string helpText(const Command& command);

}  // namespace kestrine
