#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrine {

/// Those of `names` that somebody who wrote `word` may have meant, the likeliest first, at most three: few letters apart without regard to
/// case, or one a part of the other.
std::vector<std::string> nearestNames(std::string_view word, std::span<const std::string> names);

/// "; did you mean 'a', 'b' or 'c'?", or nothing when no name is near.
std::string didYouMean(std::string_view word, std::span<const std::string> names);

}  // namespace kestrine
