#pragma once

#include <array>
#include <string_view>

namespace kestrine {

/// How far a watch has come.
enum class WatchState { Starting, Standing, Failed };

/// What the service's status calls each, in the order of the enumeration.
inline constexpr std::array<std::string_view, 3> kWatchStateNames{"starting", "standing", "failed"};

constexpr std::string_view watchStateName(WatchState state) { return kWatchStateNames.at(static_cast<std::size_t>(state)); }

}  // namespace kestrine
