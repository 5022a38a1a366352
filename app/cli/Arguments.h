#pragma once

#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrine {

struct Command;

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
  /// The last one, where it stood more than once.
  [[nodiscard]] std::optional<std::string> value(std::string_view option) const;
  [[nodiscard]] std::vector<std::string> values(std::string_view option) const;
  [[nodiscard]] const std::vector<std::string>& operands() const { return operands_; }

 private:
  friend Arguments parseArguments(const Command& command, std::span<const std::string> words);
  std::map<std::string, std::vector<std::string>, std::less<>> values_;
  std::vector<std::string> operands_;
};

/// Sorts the words after the sub-command's name. Throws CommandError(Usage) for what its table does not know.
Arguments parseArguments(const Command& command, std::span<const std::string> words);

}  // namespace kestrine
