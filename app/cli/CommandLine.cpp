#include "app/cli/CommandLine.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <exception>

#include "app/cli/CommandError.h"
#include "app/cli/Help.h"
#include "app/cli/PrintError.h"

namespace kestrine {

namespace {

void print(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

ExitCode runCommand(const Command& command, std::span<const std::string> words) {
  const auto end = std::ranges::find(words, "--");
  if (std::find(words.begin(), end, "--help") != end) {
    print(helpText(command));
    return ExitCode::Ok;
  }
  return command.run(parseArguments(command, words));
}

ExitCode dispatch(CommandTable commands, std::span<const std::string> words) {
  if (words.empty()) throw CommandError(ExitCode::Usage, "no command given; see 'kestrine --help'");
  const std::string& name = words.front();
  if (name == "--version") {
    print(fmt::format("kestrine {}\n", KESTRINE_VERSION));
    return ExitCode::Ok;
  }
  const bool help = name == "--help" || name == "help";
  if (help && words.size() == 1) {
    print(helpText(commands));
    return ExitCode::Ok;
  }
  const std::string& wanted = help ? words[1] : name;
  const auto found = std::ranges::find(commands, wanted, &Command::name);
  if (found == commands.end()) {
    throw CommandError(ExitCode::Usage, fmt::format("unknown command '{}'; see 'kestrine --help'", wanted));
  }
  if (!help) return runCommand(**found, words.subspan(1));
  print(helpText(**found));
  return ExitCode::Ok;
}

}  // namespace

ExitCode runCommandLine(CommandTable commands, std::span<const std::string> words) {
  try {
    const ExitCode code = dispatch(commands, words);
    if (std::fflush(stdout) == 0) return code;
    printError("kestrine: standard output could not be written\n");
    return ExitCode::Failed;
  } catch (const CommandError& error) {
    std::fflush(stdout);
    printError(fmt::format("kestrine: {}\n", error.what()));
    return error.code();
  } catch (const std::exception& error) {
    std::fflush(stdout);
    printError(fmt::format("kestrine: {}\n", error.what()));
    return ExitCode::Failed;
  }
}

}  // namespace kestrine
