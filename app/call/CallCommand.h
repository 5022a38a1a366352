#pragma once

#include "app/cli/Command.h"

namespace kestrine {

/// `kestrine call`: one operation of the product's server.
extern const Command kCallCommand;

}  // namespace kestrine
