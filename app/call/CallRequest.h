#pragma once

#include <span>
#include <string>
#include <vector>

#include "app/call/CallOperation.h"

namespace kestrine {

/// The operation that `word` names. Throws CommandError(Usage), which names the nearest ones, when there is none.
const CallOperation& operationNamed(const std::string& word);

/// The records that `words` (what stands behind the operation on the command line) make. Reads the files that they name, and standard
/// input. Throws CommandError: Usage for what the operation does not take, Failed for a file that cannot be read or holds something else.
std::vector<PropertyValues> requestRecords(const CallOperation& operation, std::span<const std::string> words);

}  // namespace kestrine
