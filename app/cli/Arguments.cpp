#include "app/cli/Arguments.h"

#include <fmt/format.h>

#include <algorithm>

#include "app/cli/Command.h"
#include "app/cli/CommandError.h"
#include "platform/foundation/text/ASCII.h"

namespace kestrine {

std::optional<std::string> Arguments::value(std::string_view option) const {
  const auto found = values_.find(option);
  if (found == values_.end()) return std::nullopt;
  return found->second.back();
}

std::vector<std::string> Arguments::values(std::string_view option) const {
  const auto found = values_.find(option);
  return found == values_.end() ? std::vector<std::string>{} : found->second;
}

namespace {

[[noreturn]] void refuse(const Command& command, const std::string& text) {
  throw CommandError(ExitCode::Usage, fmt::format("{}: {}; see 'kestrine {} --help'", command.name, text, command.name));
}

/// "-" alone is an operand, and so is a number below zero.
bool looksLikeOption(std::string_view word) {
  const bool isNumber = word.size() > 1 && (platform::isASCIIDigit(word[1]) || word[1] == '.');
  return word.starts_with('-') && word != "-" && !isNumber;
}

const Option& optionNamed(const Command& command, std::string_view name) {
  const auto found = std::ranges::find(command.options, name, &Option::name);
  if (found == command.options.end()) refuse(command, fmt::format("unknown option '{}'", name));
  return *found;
}

}  // namespace

Arguments parseArguments(const Command& command, std::span<const std::string> words) {
  Arguments arguments;
  bool optionsEnded = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string_view word = words[i];
    if (optionsEnded || !looksLikeOption(word)) {
      arguments.operands_.emplace_back(word);
      continue;
    }
    if (word == "--") {
      optionsEnded = true;
      continue;
    }
    const auto equals = word.find('=');
    const Option& option = optionNamed(command, word.substr(0, equals));
    auto& values = arguments.values_[std::string(option.name)];
    if (!values.empty() && !option.repeatable) refuse(command, fmt::format("option '{}' stands twice", option.name));
    if (option.value.empty()) {
      if (equals != std::string_view::npos) refuse(command, fmt::format("option '{}' takes no value", option.name));
      values.emplace_back();
    } else if (equals != std::string_view::npos) {
      values.emplace_back(word.substr(equals + 1));
    } else if (i + 1 < words.size()) {
      values.push_back(words[++i]);
    } else {
      refuse(command, fmt::format("option '{}' needs a value: {}", option.name, option.value));
    }
  }
  const auto count = arguments.operands_.size();
  if (count < command.fewestOperands) refuse(command, fmt::format("too few arguments, expected {}", command.operands));
  if (count > command.mostOperands) refuse(command, fmt::format("unexpected argument '{}'", arguments.operands_[command.mostOperands]));
  return arguments;
}

}  // namespace kestrine
