#pragma once

#include <string>

#include "app/cli/Command.h"

namespace kestrine {

/// What `kestrine --help` prints.
std::string helpText(CommandTable commands);
/// What `kestrine COMMAND --help` prints.
std::string helpText(const Command& command);

}  // namespace kestrine
