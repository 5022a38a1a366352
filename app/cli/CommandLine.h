#pragma once

#include <span>
#include <string>

#include "app/cli/Command.h"

namespace kestrine {

/// The whole command line without the program's name: finds the sub-command, runs it and returns the exit code. Errors go to standard
/// error.
ExitCode runCommandLine(CommandTable commands, std::span<const std::string> words);

}  // namespace kestrine
