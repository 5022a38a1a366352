#include "app/cli/Help.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace kestrine {

namespace {

void appendExits(std::string& text, std::span<const ExitNote> notes) {
  for (const ExitNote& note : notes) fmt::format_to(std::back_inserter(text), "  {}  {}\n", static_cast<int>(note.code), note.meaning);
}

std::string label(const Option& option) {
  return option.value.empty() ? std::string(option.name) : fmt::format("{} {}", option.name, option.value);
}

std::string usage(const Command& command) {
  std::string line = fmt::format("kestrine {}", command.name);
  for (const Option& option : command.options) {
    fmt::format_to(std::back_inserter(line), " [{}]{}", label(option), option.repeatable ? "..." : "");
  }
  if (!command.operands.empty()) fmt::format_to(std::back_inserter(line), " {}", command.operands);
  return line;
}

}  // namespace

std::string helpText(CommandTable commands) {
  std::string text =
      "kestrine starts, stops and examines the folder-watching service, which raises a flag on every change below <base>/Kestrine.\n"
      "\nUsage: kestrine COMMAND [OPTION]... [ARGUMENT]...\n\nCommands:\n";
  for (const Command* command : commands) fmt::format_to(std::back_inserter(text), "  {:<9} {}\n", command->name, command->summary);
  text += "\n'kestrine COMMAND --help' tells more of one; 'kestrine --version' names the version.\n\nExit codes:\n";
  appendExits(text, exitCodes());
  return text;
}

std::string helpText(const Command& command) {
  std::string text = fmt::format("{}\n\nUsage: {}\n", command.summary, usage(command));
  if (!command.details.empty()) fmt::format_to(std::back_inserter(text), "\n{}\n", command.details);
  if (!command.options.empty()) {
    std::size_t width = 0;
    for (const Option& option : command.options) width = std::max(width, label(option).size());
    text += "\nOptions:\n";
    for (const Option& option : command.options) {
      fmt::format_to(std::back_inserter(text), "  {:<{}}  {}\n", label(option), width, option.help);
    }
  }
  text += "\nExit codes:\n";
  appendExits(text, command.exits);
  appendExits(text, exitCodes().subspan(static_cast<std::size_t>(ExitCode::Usage), 1));
  return text;
}

}  // namespace kestrine
